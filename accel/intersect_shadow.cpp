// The blocking walk: no order, no distances kept, stopping at the first
// primitive that blocks the segment.
#include "accel/node_test.h"
#include "accel/primitive_tests.h"
#include "accel/traversal.h"
#include "geometry/object.h"

namespace {
// A child named by where it stands; its reference is read again when popped.
struct StackEntry {
  uint32_t node, lane;
};

constexpr int stackSize = 1024;
constexpr uint64_t rootReference = uint64_t(0xFF) << 32;

void enterShadowInstance(const Object& object, uint32_t i, Ray& ray) {
  const Instance& placement = object.instances[i];
  // Too deep or too many: the walk's stack and its time are bounded.
  if (uint32_t(placement.object) >= objects.size() || ray.instance_depth + 1 >= maxPlacementDepth ||
      ++ray.placements_entered > maxPlacementsPerWalk)
    return;
  const Object& placed = objects[placement.object];
  const SavedFrame saved = enterPlacement(ray, placement, false);
  ray.instance_depth += 1;
  ray.instance_id = i;
  float near, far;
  if (intersectBox(placed.boundsMin, placed.boundsMax, ray, near, far)) intersectShadow(placed, ray);
  ray.instance_depth -= 1;
  leavePlacement(ray, saved);
}

// Tests the leaf's primitives until one blocks; true when blocked.
bool leafBlocks(const Object& object, uint64_t reference, Ray& ray) {
  const uint32_t first = referenceIndex(reference), last = first + referenceCount(reference);
  const uint8_t kind = referenceKind(reference);
  if (kind == kindTriangle) {
    if (shadowTriangles(object, first, last - first, ray)) ray.throughput *= black;
    return isBlocked(ray);
  }
  for (uint32_t i = first; i < last; ++i) {
    switch (kind) {
      case kindTetragon:
        if (shadowTetragon(object, i, ray)) ray.throughput *= black;
        break;
      case kindCylinder:
        // The walk, not the test, passes over the fibre this ray left.
        if (!isPreviousPrimitive(object, ray, kindCylinder, i) && shadowCylinder(object, i, ray))
          ray.throughput *= black;
        break;
      case kindParticle:
        if (shadowParticle(object, i, ray)) ray.throughput = black;
        break;
      case kindInstance:
        enterShadowInstance(object, i, ray);
        break;
      default:
        return false;
    }
    if (isBlocked(ray)) return true;
  }
  return false;
}
}  // namespace

void intersectShadow(const Object& object, Ray& ray) {
  if (object.bvhNodes.empty()) return;
  const BvhNode* nodes = object.bvhNodes.data();
  // Here a zero component counts as backwards.
  const RayLanes lanes = broadcastRay(ray, true);
  StackEntry stack[stackSize];
  StackEntry* top = stack;
  StackEntry* const end = stack + stackSize;
  uint64_t reference = rootReference;
  for (;;) {
    if (!isLeafReference(reference)) {
      const uint32_t index = referenceIndex(reference);
      const BvhNode& node = nodes[index];
      __m256 near;
      uint32_t hits = hitLanes(node, lanes, ray.t, referenceMask(reference), near);
      if (hits != 0) {
        // Lanes go upward: the lowest is walked now, the others wait with the
        // next lowest on top.
        const int lowest = __builtin_ctz(hits);
        hits &= hits - 1;
        prefetchChildren(node, hits, nodes, object.triangleRecords.data());
        for (; hits && top != end; hits &= ~(1u << (31 - __builtin_clz(hits))))
          *top++ = {index, uint32_t(31 - __builtin_clz(hits))};
        reference = node.child[lowest];
        continue;
      }
    } else if (leafBlocks(object, reference, ray)) {
      return;
    }
    if (top == stack) return;
    --top;
    reference = nodes[top->node].child[top->lane];
  }
}
