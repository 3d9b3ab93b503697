#include "accel/ray.h"

#include "accel/traversal.h"
#include "frame/renderer.h"
#include "geometry/object.h"
#include "geometry/scene_assembly.h"
#include "shading/surface_setup.h"

namespace {
// One row a placement level for each thread: the normal matrices on the way to its nearest hit.
float instanceTransforms[maxThreads][maxInstanceDepth][9];

// Thread numbers come from the runtime; one outside the table folds back into it.
uint32_t tableThread(uint32_t thread) { return thread % maxThreads; }

// The fields every query front resets before it walks from the root.
void startAtRoot(Ray& ray) {
  ray.instance = nullptr;
  ray.instance_id = 0;
  ray.instance_depth = 0;
  ray.placements_entered = 0;
  updateInverseDirection(ray);
}
}  // namespace

const float (*instanceNormalMatrices(uint32_t thread))[9] { return instanceTransforms[tableThread(thread)]; }

void storeInstanceNormalMatrix(uint32_t thread, uint32_t depth, const float* matrix) {
  if (depth == 0 || depth > uint32_t(maxInstanceDepth)) return;
  float* row = instanceTransforms[tableThread(thread)][depth - 1];
  for (int i = 0; i < 9; ++i) row[i] = matrix[i];
}

bool traceClosest(Ray& ray) {
  countRay(rayCountersOf(ray.thread).closest);
  ray.t = infinity;
  startAtRoot(ray);
  if (rootObject >= objects.size()) return false;
  return intersectClosest(objects[rootObject], ray);
}

bool traceShadow(Ray& ray) {
  countRay(rayCountersOf(ray.thread).shadow);
  ray.throughput = white;
  startAtRoot(ray);
  if (rootObject < objects.size()) intersectShadow(objects[rootObject], ray);
  return isBlocked(ray);
}
