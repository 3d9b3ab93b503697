// The nearest-hit walk: one ray against the eight boxes of a node at a time,
// children visited nearest first, the far limit shrinking with every hit.
#include "accel/node_test.h"
#include "accel/primitive_tests.h"
#include "accel/traversal.h"
#include "geometry/object.h"

namespace {
struct StackEntry {
  float near;
  uint64_t reference;
};

// A node pushes at most seven entries and the hierarchy is at most 128 levels
// deep, so the stack is not expected to fill; should it, further children are
// dropped rather than written past its end.
constexpr int stackSize = 1024;
// Node 0 with all eight lanes its own.
constexpr uint64_t rootReference = uint64_t(0xFF) << 32;

// Largest distance at the bottom, so that the nearest comes off the stack first.
inline void sortDescending(StackEntry* first, StackEntry* last) {
  for (StackEntry* i = first + 1; i < last; ++i) {
    const StackEntry entry = *i;
    StackEntry* j = i;
    for (; j > first && (j - 1)->near < entry.near; --j) *j = *(j - 1);
    *j = entry;
  }
}

template <bool probe>
bool walkClosest(const Object& object, Ray& ray);

// Walks the placed object in the placement's space. A hit found there records
// the placement's normal matrix for the shading of that hit.
template <bool probe>
bool enterInstance(const Object& object, uint32_t i, Ray& ray) {
  const Instance& placement = object.instances[i];
  // Too deep or too many: the walk's stack and its time are bounded.
  if (uint32_t(placement.object) >= objects.size() || ray.instance_depth + 1 >= maxPlacementDepth ||
      ++ray.placements_entered > maxPlacementsPerWalk)
    return false;
  const Object& placed = objects[placement.object];
  const SavedFrame saved = enterPlacement(ray, placement, probe);
  ray.instance_depth += 1;
  // The probe names the placement by its index alone.
  ray.instance_id = probe ? i : hashInstanceId(saved.instance_id, i);
  float near, far;
  bool found = false;
  if (intersectBox(placed.boundsMin, placed.boundsMax, ray, near, far) && walkClosest<probe>(placed, ray)) {
    storeInstanceNormalMatrix(ray.thread, ray.instance_depth, placement.normalMatrix);
    found = true;
  }
  ray.instance_depth -= 1;
  leavePlacement(ray, saved);
  return found;
}

template <bool probe>
bool testLeaf(const Object& object, uint64_t reference, Ray& ray) {
  const uint32_t first = referenceIndex(reference), count = referenceCount(reference);
  bool found = false;
  switch (referenceKind(reference)) {
    case kindTriangle:
      found = closestTriangles(object, first, count, ray);
      break;
    case kindTetragon:
      for (uint32_t i = first; i < first + count; ++i) found |= closestTetragon(object, i, ray);
      break;
    case kindCylinder:
      if (!probe)
        for (uint32_t i = first; i < first + count; ++i) found |= closestCylinder(object, i, ray);
      break;
    case kindParticle:
      if (!probe)
        for (uint32_t i = first; i < first + count; ++i) found |= closestParticle(object, i, ray);
      break;
    case kindInstance:
      for (uint32_t i = first; i < first + count; ++i) found |= enterInstance<probe>(object, i, ray);
      break;
  }
  return found;
}

template <bool probe>
bool walkClosest(const Object& object, Ray& ray) {
  if (object.bvhNodes.empty()) return false;
  const BvhNode* nodes = object.bvhNodes.data();
  const TriangleRecord* triangles = object.triangleRecords.data();
  const RayLanes lanes = broadcastRay(ray, false);
  StackEntry stack[stackSize];
  StackEntry* top = stack;
  StackEntry* const end = stack + stackSize;
  alignas(32) float nears[8];
  uint64_t reference = rootReference;
  bool found = false;

  for (;;) {
    while (!isLeafReference(reference)) {
      const BvhNode& node = nodes[referenceIndex(reference)];
      __m256 near;
      const uint32_t hits = hitLanes(node, lanes, ray.t, referenceMask(reference), near);
      if (hits == 0) goto next;
      const int low = __builtin_ctz(hits);
      const uint32_t rest = hits & (hits - 1);
      if (rest == 0) {
        reference = node.child[low];
        continue;
      }
      // Some children wait on the stack: start fetching what they lead to.
      prefetchChildren(node, hits, nodes, triangles);
      _mm256_store_ps(nears, near);
      if ((rest & (rest - 1)) == 0) {
        // Two lanes, listed from the higher: the nearer goes on, on a tie the higher lane.
        const int high = __builtin_ctz(rest);
        const bool lowFirst = nears[low] < nears[high];
        const int pushed = lowFirst ? high : low;
        if (top != end) *top++ = {nears[pushed], node.child[pushed]};
        reference = node.child[lowFirst ? low : high];
        continue;
      }
      // Three or more: all pushed, the group sorted, the nearest taken back.
      StackEntry* const group = top;
      for (uint32_t lanesLeft = hits; lanesLeft && top != end; lanesLeft &= lanesLeft - 1) {
        const int lane = __builtin_ctz(lanesLeft);
        *top++ = {nears[lane], node.child[lane]};
      }
      if (top == group) goto next;
      sortDescending(group, top);
      reference = (--top)->reference;
    }
    found |= testLeaf<probe>(object, reference, ray);
  next:
    // Entries that the shrinking limit has passed are dropped unopened.
    do {
      if (top == stack) return found;
      --top;
    } while (!(top->near < ray.t));
    reference = top->reference;
  }
}
}  // namespace

SavedFrame enterPlacement(Ray& ray, const Instance& placement, bool renormalise) {
  const SavedFrame saved{ray.origin, ray.direction, ray.inv_direction, ray.instance, ray.instance_id};
  const float* m = placement.inverse3;
  ray.origin = transformPoint(placement.inverse, ray.origin);
  const Vec3f d = ray.direction;
  ray.direction = {m[0] * d.x + m[1] * d.y + m[2] * d.z, m[3] * d.x + m[4] * d.y + m[5] * d.z,
                   m[6] * d.x + m[7] * d.y + m[8] * d.z};
  if (renormalise) ray.direction = normalize(ray.direction);
  updateInverseDirection(ray);
  ray.instance = &placement;
  return saved;
}

void leavePlacement(Ray& ray, const SavedFrame& saved) {
  ray.origin = saved.origin;
  ray.direction = saved.direction;
  ray.inv_direction = saved.inv_direction;
  ray.instance = saved.instance;
  ray.instance_id = saved.instance_id;
}

bool intersectBox(Vec3f min, Vec3f max, const Ray& ray, float& near, float& far) {
  near = -infinity;
  far = infinity;
  for (int axis = 0; axis < 3; ++axis) {
    if (ray.direction[axis] == 0) continue;
    const bool backwards = ray.direction[axis] < 0;
    const float nearPlane = backwards ? max[axis] : min[axis], farPlane = backwards ? min[axis] : max[axis];
    const float t1 = (nearPlane - ray.origin[axis]) * ray.inv_direction[axis];
    const float t2 = (farPlane - ray.origin[axis]) * ray.inv_direction[axis];
    // An unordered comparison counts as the limit lying below.
    if (!(ray.t >= t1) && !(ray.t >= t2)) return false;
    near = std::max(near, t1);
    far = std::min(far, t2);
    if (near > far || far < 0) return false;
  }
  return true;
}

bool intersectClosest(const Object& object, Ray& ray) { return walkClosest<false>(object, ray); }

bool intersectProbe(const Object& object, Ray& ray) { return walkClosest<true>(object, ray); }
