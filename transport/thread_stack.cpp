// A path is a recursion of tracePath, a shading function and a child ray on
// the stack of its worker thread. Measured between mirrors, one level takes
// about 1.1 KB in a release build (a Surface, the lobe accumulators and a
// child Ray) and 2.8 KB under the address sanitizer; a level that jitters
// holds a second Surface. The depth is bounded by the byte-wide bounce counter
// at 256 levels, so the deepest path needs about 0.3 MB (0.7 MB sanitized),
// and the walk of the hierarchy at its end up to 17 nested traversal stacks of
// 16 KB.
//
// The worker threads of the OpenMP runtime are created at the first parallel
// loop, with the process's default thread attributes unless the environment
// names a size, and this library reads no environment. So, once at load time,
// before the library's first parallel loop, the default stack size of new
// threads is raised to 16 MB, over ten times the need: only address space is
// reserved, and pages are touched only as deep as a path really goes. A larger
// default (a host's own setting or a large stack limit) is kept. The calling
// thread, which takes part in every loop, keeps the stack its host gave it, and
// so do runtime threads that a host's own parallel loops made before loading us.
#include "transport/thread_stack.h"

#include <pthread.h>

#include <algorithm>

#include "frame/renderer.h"

namespace {
// `bounces` is a byte: past 255 it would wrap to 0 and the recursion would never end.
constexpr int deepestPath = 256;

__attribute__((constructor)) void raiseWorkerStacks() {
  pthread_attr_t attributes;
  if (pthread_getattr_default_np(&attributes) != 0) return;
  size_t size = 0;
  if (pthread_attr_getstacksize(&attributes, &size) == 0 && size < workerStackBytes &&
      pthread_attr_setstacksize(&attributes, workerStackBytes) == 0)
    pthread_setattr_default_np(&attributes);
  pthread_attr_destroy(&attributes);
}
}  // namespace

const size_t workerStackBytes = size_t(16) << 20;

int pathDepthLimit() { return std::min(renderer.ray_depth, deepestPath); }

int photonDepthLimit() { return std::min(renderer.photon_depth, deepestPath); }
