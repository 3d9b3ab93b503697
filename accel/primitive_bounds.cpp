#include "accel/primitive_bounds.h"

#include <algorithm>

#include "geometry/object.h"

Vec3f cylinderCurvePoint(const CylinderSet& set, uint32_t first, float s) {
  Vec3f a = set.worldPositions[first], b = set.worldPositions[first + 1];
  float chord = length(b - a);
  Vec3f m0 = unpackUnitVector(set.tangents[first]) * chord;
  Vec3f m1 = unpackUnitVector(set.tangents[first + 1]) * chord;
  float r = 1 - s;
  return a + (3 * s * s - 2 * s * s * s) * (b - a) + (s * r * r) * m0 - (s * s * r) * m1;
}

Box particleBox(const ParticleSet& set, uint32_t particle) {
  uint32_t vertex = set.indices[particle];
  Vec3f p = set.worldPositions[vertex];
  float r = set.scalarChannels[0].values[vertex];
  Vec3f extent{r, r, r};
  return {p - extent, p + extent};
}

Box cylinderBox(const CylinderSet& set, uint32_t cylinder) {
  uint32_t first = set.indices[cylinder].first;
  const std::vector<float>& radius = set.scalarChannels[0].values;
  float r = std::max(radius[first], radius[first + 1]);
  Box box;
  for (int k = 0; k <= 8; ++k) {
    Vec3f p = cylinderCurvePoint(set, first, float(k) * 0.125f);
    growBox(box, p, p);
  }
  Vec3f extent{r, r, r};
  return {box.min - extent, box.max + extent};
}

Box triangleBox(const Mesh& mesh, uint32_t triangle) {
  const Triangle& t = mesh.triangles[triangle];
  Box box;
  for (uint32_t i : {t.i0, t.i1, t.i2}) growBox(box, mesh.worldPositions[i], mesh.worldPositions[i]);
  return box;
}

Box tetragonBox(const Mesh& mesh, uint32_t tetragon) {
  const Tetragon& t = mesh.tetragons[tetragon];
  Box box;
  for (uint32_t i : {t.i0, t.i1, t.i2, t.i3}) growBox(box, mesh.worldPositions[i], mesh.worldPositions[i]);
  return box;
}

Box transformBox(const Matrix4f& matrix, Vec3f min, Vec3f max) {
  Box box;
  for (int corner = 0; corner < 8; ++corner) {
    Vec3f p{corner & 1 ? max.x : min.x, corner & 2 ? max.y : min.y, corner & 4 ? max.z : min.z};
    // A matrix that is not affine can send a corner to infinity or to NaN:
    // infinities are held to the largest float, NaN corners are left out.
    p = transformPoint(matrix, p);
    for (int axis = 0; axis < 3; ++axis) p[axis] = std::clamp(p[axis], -infinity, infinity);
    growBox(box, p, p);
  }
  return box;
}

Box instanceBox(const Instance& instance) {
  const Object& placed = objects[instance.object];
  // An empty object has an inverted box, which a scaling matrix would not keep inverted.
  if (!(placed.boundsMin.x <= placed.boundsMax.x)) return Box{};
  return transformBox(instance.matrix, placed.boundsMin, placed.boundsMax);
}

Box primitiveBox(const Object& object, uint8_t kind, uint32_t index) {
  switch (kind) {
    case kindParticle:
      return particleBox(object.particles, index);
    case kindCylinder:
      return cylinderBox(object.cylinders, index);
    case kindTriangle:
      return triangleBox(object.mesh, index);
    case kindTetragon:
      return tetragonBox(object.mesh, index);
    default:
      return instanceBox(object.instances[index]);
  }
}

float triangleArea(const Mesh& mesh, uint32_t triangle) {
  const Triangle& t = mesh.triangles[triangle];
  const std::vector<Vec3f>& p = mesh.worldPositions;
  return 0.5f * length(cross(p[t.i1] - p[t.i0], p[t.i2] - p[t.i0]));
}

float tetragonArea(const Mesh& mesh, uint32_t tetragon) {
  const Tetragon& t = mesh.tetragons[tetragon];
  const std::vector<Vec3f>& p = mesh.worldPositions;
  return 0.5f * length(cross(p[t.i2] - p[t.i0], p[t.i3] - p[t.i1]));
}
