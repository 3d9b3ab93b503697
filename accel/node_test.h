// One ray against the eight boxes of a node in 256-bit registers.
#pragma once

#include <immintrin.h>

#include <cstdint>

#include "accel/bbvh.h"
#include "accel/ray.h"
#include "geometry/object.h"

// The ray broadcast to all lanes, and per axis the byte offset of its near
// plane block: 0 for the minima, 96 for the maxima when the ray runs backwards.
struct RayLanes {
  __m256 origin[3];
  __m256 inverse[3];
  uint32_t nearOffset[3];
  uint32_t farOffset[3];
};

// A component below 0 makes the ray run backwards on that axis; the shadow
// walk counts a component of 0 as backwards too (`zeroIsBackwards`).
inline RayLanes broadcastRay(const Ray& ray, bool zeroIsBackwards) {
  RayLanes lanes;
  for (int axis = 0; axis < 3; ++axis) {
    const float component = ray.direction[axis];
    lanes.origin[axis] = _mm256_set1_ps(ray.origin[axis]);
    lanes.inverse[axis] = _mm256_set1_ps(ray.inv_direction[axis]);
    const uint32_t back = component < 0 || (zeroIsBackwards && component == 0) ? 96 : 0;
    lanes.nearOffset[axis] = uint32_t(axis * 32) + back;
    lanes.farOffset[axis] = uint32_t(axis * 32) + (96 - back);
  }
  return lanes;
}

inline __m256 planeDistances(const BvhNode& node, uint32_t offset, __m256 origin, __m256 inverse) {
  const float* plane = reinterpret_cast<const float*>(reinterpret_cast<const char*>(&node) + offset);
  return _mm256_mul_ps(_mm256_sub_ps(_mm256_load_ps(plane), origin), inverse);
}

// Bits of the lanes in `mask` whose slabs overlap between 1e-8 and `t`; their
// entry distances are left in `near`. NaN lanes fail the ordered comparison.
inline uint32_t hitLanes(const BvhNode& node, const RayLanes& r, float t, uint32_t mask, __m256& near) {
  // The child references fill the node's last cache line, which the boxes do
  // not touch: fetched now, its miss overlaps with theirs instead of
  // following the test.
  _mm_prefetch(reinterpret_cast<const char*>(node.child), _MM_HINT_T0);
  const __m256 nx = planeDistances(node, r.nearOffset[0], r.origin[0], r.inverse[0]);
  const __m256 ny = planeDistances(node, r.nearOffset[1], r.origin[1], r.inverse[1]);
  const __m256 nz = planeDistances(node, r.nearOffset[2], r.origin[2], r.inverse[2]);
  const __m256 fx = planeDistances(node, r.farOffset[0], r.origin[0], r.inverse[0]);
  const __m256 fy = planeDistances(node, r.farOffset[1], r.origin[1], r.inverse[1]);
  const __m256 fz = planeDistances(node, r.farOffset[2], r.origin[2], r.inverse[2]);
  near = _mm256_max_ps(_mm256_max_ps(_mm256_set1_ps(1e-8f), nx), _mm256_max_ps(ny, nz));
  const __m256 far = _mm256_min_ps(_mm256_min_ps(_mm256_set1_ps(t), fx), _mm256_min_ps(fy, fz));
  return uint32_t(_mm256_movemask_ps(_mm256_cmp_ps(near, far, _CMP_LE_OQ))) & mask;
}

// Starts loading what the hit lanes lead to, so that the misses of the
// children waiting on the stack overlap with the walk of the nearest one.
inline void prefetchChildren(const BvhNode& node, uint32_t hits, const BvhNode* nodes,
                             const TriangleRecord* triangles) {
  for (; hits; hits &= hits - 1) {
    const uint64_t child = node.child[__builtin_ctz(hits)];
    if (!isLeafReference(child)) {
      const char* target = reinterpret_cast<const char*>(nodes + referenceIndex(child));
      for (int line = 0; line < 256; line += 64) _mm_prefetch(target + line, _MM_HINT_T0);
    } else if (referenceKind(child) == kindTriangle) {
      const TriangleRecord* first = triangles + referenceIndex(child);
      _mm_prefetch(reinterpret_cast<const char*>(first), _MM_HINT_T0);
      if (referenceCount(child) > 1) _mm_prefetch(reinterpret_cast<const char*>(first + 1), _MM_HINT_T0);
    }
  }
}
