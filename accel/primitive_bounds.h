// Boxes and areas of single primitives, as the hierarchy and the emitter tables need them.
#pragma once

#include <algorithm>
#include <cstdint>

#include "frame/vec.h"

struct Object;
struct ParticleSet;
struct CylinderSet;
struct Mesh;
struct Instance;

struct Box {
  Vec3f min{infinity, infinity, infinity};
  Vec3f max{-infinity, -infinity, -infinity};
};

// Plain comparisons compile to single instructions; a NaN corner is passed over.
inline void growBox(Box& box, Vec3f min, Vec3f max) {
  box.min = {std::min(box.min.x, min.x), std::min(box.min.y, min.y), std::min(box.min.z, min.z)};
  box.max = {std::max(box.max.x, max.x), std::max(box.max.y, max.y), std::max(box.max.z, max.z)};
}
inline void growBox(Box& box, const Box& other) { growBox(box, other.min, other.max); }

// The strand's curve through vertices `first` and `first + 1` at s in [0, 1]:
// a cubic Hermite segment whose end tangents are the chord length times the
// vertex directions.
Vec3f cylinderCurvePoint(const CylinderSet& set, uint32_t first, float s);

Box particleBox(const ParticleSet& set, uint32_t particle);
// The nine points P(k/8) of the curve, widened by the larger end radius.
Box cylinderBox(const CylinderSet& set, uint32_t cylinder);
Box triangleBox(const Mesh& mesh, uint32_t triangle);
Box tetragonBox(const Mesh& mesh, uint32_t tetragon);
// The eight corners of a box through a matrix, with the homogeneous divide.
Box transformBox(const Matrix4f& matrix, Vec3f min, Vec3f max);
// The placed object's box through the placement's matrix.
Box instanceBox(const Instance& instance);
Box primitiveBox(const Object& object, uint8_t kind, uint32_t index);

float triangleArea(const Mesh& mesh, uint32_t triangle);
// Half the cross product of the diagonals: exact for a planar four-cornered face.
float tetragonArea(const Mesh& mesh, uint32_t tetragon);
