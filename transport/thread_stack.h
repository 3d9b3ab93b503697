// How deep a path may grow, and the stack that its recursion needs.
#pragma once

#include <cstddef>

// The levels of children below a camera ray: `ray_depth`, but no more than
// the 8-bit bounce counter of a ray can tell apart.
int pathDepthLimit();

// The stack every worker thread is given: room for the deepest path.
extern const size_t workerStackBytes;
// The same for a photon's path under `photon_depth`.
int photonDepthLimit();
