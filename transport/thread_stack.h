// How deep a path may grow, and the stack that its recursion needs.
#pragma once

// The levels of children below a camera ray: `ray_depth`, but no more than
// the 8-bit bounce counter of a ray can tell apart.
int pathDepthLimit();
