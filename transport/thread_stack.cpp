#include "transport/thread_stack.h"

#include <algorithm>

#include "frame/renderer.h"

namespace {
// `bounces` is a byte: past 255 it would wrap to 0 and the recursion would never end.
constexpr int deepestPath = 256;
}  // namespace

int pathDepthLimit() { return std::min(renderer.ray_depth, deepestPath); }
