// Scenes built through the exports for the ray query tests and benchmarks.
#pragma once

#include <cmath>
#include <string>
#include <vector>

#include "accel/ray.h"
#include "geometry/object.h"
#include "qz.h"
#include "tests/mesh_fixture.h"

// A new object holding the triangles of an OBJ file; -1 when the file has none.
inline int addMeshObject(const std::string& path) {
  Mesh mesh;
  if (!readObjMesh(path, mesh)) return -1;
  const int o = qzAddObject();
  std::vector<float> positions;
  for (Vec3f p : mesh.worldPositions) positions.insert(positions.end(), {p.x, p.y, p.z});
  std::vector<unsigned> indices;
  for (const Triangle& t : mesh.triangles) indices.insert(indices.end(), {t.i0, t.i1, t.i2});
  qzAddVertexData(o, 3, "position", int(mesh.worldPositions.size()), 3, positions.data());
  qzAddPrimitives(o, 3, int(mesh.triangles.size()), indices.data());
  return o;
}

// Row-major: rotation by `degrees` about a unit axis, uniform scale, then translation.
inline std::vector<float> placementMatrix(Vec3f axis, float degrees, float scale, Vec3f move) {
  const float a = degrees * 3.14159265f / 180, c = std::cos(a), s = std::sin(a), k = 1 - c;
  const float x = axis.x, y = axis.y, z = axis.z;
  return {scale * (c + x * x * k),     scale * (x * y * k - z * s), scale * (x * z * k + y * s), move.x,
          scale * (y * x * k + z * s), scale * (c + y * y * k),     scale * (y * z * k - x * s), move.y,
          scale * (z * x * k - y * s), scale * (z * y * k + x * s), scale * (c + z * z * k),     move.z,
          0,                           0,                           0,                           1};
}

// A ray at the scene level, past its first bounce so that no shader hides from it.
inline Ray rayFrom(Vec3f origin, Vec3f direction) {
  Ray ray;
  ray.origin = origin;
  ray.direction = normalize(direction);
  ray.bounces = 1;
  return ray;
}

// An object of one sphere.
inline int particle(Vec3f centre, float radius) {
  const int o = qzAddObject();
  const float position[3] = {centre.x, centre.y, centre.z};
  const unsigned index = 0;
  qzAddVertexData(o, 1, "position", 1, 3, position);
  qzAddVertexData(o, 1, "radius", 1, 1, &radius);
  qzAddPrimitives(o, 1, 1, &index);
  return o;
}

// An object of one strand along x from 0 to 2 in two segments, 0.1 thick.
inline int straightStrand() {
  const int o = qzAddObject();
  const float strand[9] = {0, 0, 0, 1, 0, 0, 2, 0, 0};
  const float radius[3] = {0.1f, 0.1f, 0.1f};
  const unsigned firsts[2] = {0, 1};
  qzAddVertexData(o, 2, "position", 3, 3, strand);
  qzAddVertexData(o, 2, "radius", 3, 1, radius);
  qzAddPrimitives(o, 2, 2, firsts);
  return o;
}
