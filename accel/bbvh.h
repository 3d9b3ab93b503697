// The per-object hierarchy: a binary tree kept for rebuilding, and the
// eight-lane nodes that traversal reads.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "frame/vec.h"

struct Object;

// Primitive kinds; the first four are public numbers, instances join them in the hierarchy.
enum PrimitiveKind : uint8_t {
  kindParticle = 1,
  kindCylinder = 2,
  kindTriangle = 3,
  kindTetragon = 4,
  kindInstance = 5,
};

// A node of the binary tree. Inner: children at `link` and `link + 1`.
// Leaf: `count` primitives of `kind` from `link` on. The reserved bytes stay
// zero so that a leaf's last eight bytes are its child reference as they stand.
struct BuildRecord {
  Vec3f min, max;
  uint32_t link = 0;
  uint16_t reserved = 0;
  uint8_t kind = 0;
  uint8_t count = 0;  // 0 marks an inner node
};
static_assert(sizeof(BuildRecord) == 32);

// Eight lanes as structure of arrays. The maxima sit 96 bytes after the minima,
// so traversal picks each axis's near plane by an offset of 0 or 96 bytes.
struct alignas(64) BvhNode {
  float min_x[8], min_y[8], min_z[8];
  float max_x[8], max_y[8], max_z[8];
  // Bits 0-31: node index or first primitive; 32-47: lane mask of the target
  // node (inner only); 48-55: leaf kind; 56-63: leaf count, nonzero for leaves.
  uint64_t child[8];
};
static_assert(sizeof(BvhNode) == 256);

// What the triangle test needs of one triangle, worked out once per build in
// leaf order, so that a leaf's triangles are read from consecutive cache lines:
// the first corner and `scale` = 1 / (N . N), the unnormalised normal N =
// e1 x e2, and the two vectors whose products with the hit's offset give the
// weights, e2 x N and N x e1. Four rows of four floats, transposed into lanes.
struct alignas(64) TriangleRecord {
  float p0[3], scale;
  float n[3], unused0;
  float u[3], unused1;
  float v[3], unused2;
};
static_assert(sizeof(TriangleRecord) == 64);

// An unused lane: its box can never be hit, its low word ends the used lanes.
constexpr uint64_t emptyLane = 0x000000FFFFFFFFFFull;

inline bool isLeafReference(uint64_t reference) { return (reference >> 56) != 0; }
inline uint32_t referenceIndex(uint64_t reference) { return uint32_t(reference); }
inline uint32_t referenceMask(uint64_t reference) { return uint32_t(reference >> 32) & 0xFFFF; }
inline uint8_t referenceKind(uint64_t reference) { return uint8_t(reference >> 48); }
inline uint8_t referenceCount(uint64_t reference) { return uint8_t(reference >> 56); }

constexpr int maxBuildDepth = 128;

// x (y + z) + y z of the extents, each clamped to at least 0.
inline float halfArea(Vec3f min, Vec3f max) {
  float x = std::max(max.x - min.x, 0.0f), y = std::max(max.y - min.y, 0.0f), z = std::max(max.z - min.z, 0.0f);
  return x * (y + z) + y * z;
}
// The first lane whose low word is 0xFFFFFFFF, or 8.
int firstFreeLane(const BvhNode& node);

// Empties the per-depth lists that restructuring works from.
void clearDepthLists();

// Stage 1: binned surface-area split, breadth first; reorders the primitives into leaf order.
void buildBinaryTree(Object& object);
void refitBinaryTree(Object& object, uint32_t node);
// Stage 2: treelets of 16 leaves reclustered greedily, deepest first.
void restructureTree(Object& object);
// Stage 3: eight-lane nodes that share their lanes between parents.
void collapseTree(Object& object);
// The triangle records of the object's mesh, in its present order and pose.
void recordTriangles(Object& object);
// Percentage of used lanes over all nodes.
float simdOccupancy(const Object& object);
