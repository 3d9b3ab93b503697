// Displacement: the faces of shaders with `vector` layers become a finer grid
// of triangles on a curved surface through their corners, and each grid vertex
// moves by the layer's vector in its tangent frame.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "geometry/object.h"

struct SurfacePoint {
  Vec3f position, normal;
};

// The grid of one triangle at level N: barycentric weights row by row, and
// N * N triangles of indices into them, upright ones first.
struct TriangleGrid {
  std::vector<std::array<float, 3>> weights;
  std::vector<std::array<uint32_t, 3>> triangles;
};

TriangleGrid tessellateTriangle(int level);
// A cubic bulge from b (t = 0) to a (t = 1) that leaves each end along its normal.
SurfacePoint edge(float t, SurfacePoint a, SurfacePoint b);
// The point of weights b0, b1, b2 on the surface through the corners P with normals Nrm.
Vec3f curvedPoint(float b0, float b1, float b2, const Vec3f P[3], const Vec3f Nrm[3]);

// Each tetragon becomes two triangles with its shader.
void splitTetragons(Mesh& mesh);
void displaceMesh(Mesh& mesh);
