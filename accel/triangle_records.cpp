// The per-triangle records of the triangle test, made once per build.
#include <immintrin.h>

#include "accel/bbvh.h"
#include "geometry/object.h"

namespace {
// Four triangles at a time in the lanes of 128-bit registers, by the same
// operations that the test would otherwise run per ray, so that the compiler's
// fused multiply-adds fall where they fell there and the results match bit for bit.
void recordFour(const Mesh& mesh, const uint32_t (&corners)[4][3], TriangleRecord* out, int count) {
  const Vec3f* p = mesh.worldPositions.data();
  auto gather = [&](int corner, int axis) {
    return _mm_setr_ps(p[corners[0][corner]][axis], p[corners[1][corner]][axis], p[corners[2][corner]][axis],
                       p[corners[3][corner]][axis]);
  };
  auto sub = [](__m128 a, __m128 b) { return _mm_sub_ps(a, b); };
  auto mul = [](__m128 a, __m128 b) { return _mm_mul_ps(a, b); };
  auto dot = [&](__m128 ax, __m128 ay, __m128 az, __m128 bx, __m128 by, __m128 bz) {
    return _mm_add_ps(_mm_add_ps(mul(ax, bx), mul(ay, by)), mul(az, bz));
  };
  const __m128 p0x = gather(0, 0), p0y = gather(0, 1), p0z = gather(0, 2);
  const __m128 e1x = sub(gather(1, 0), p0x), e1y = sub(gather(1, 1), p0y), e1z = sub(gather(1, 2), p0z);
  const __m128 e2x = sub(gather(2, 0), p0x), e2y = sub(gather(2, 1), p0y), e2z = sub(gather(2, 2), p0z);
  const __m128 nx = sub(mul(e1y, e2z), mul(e1z, e2y)), ny = sub(mul(e1z, e2x), mul(e1x, e2z));
  const __m128 nz = sub(mul(e1x, e2y), mul(e1y, e2x));
  const __m128 scale = _mm_div_ps(_mm_set1_ps(1), dot(nx, ny, nz, nx, ny, nz));
  const __m128 ux = sub(mul(e2y, nz), mul(e2z, ny)), uy = sub(mul(e2z, nx), mul(e2x, nz));
  const __m128 uz = sub(mul(e2x, ny), mul(e2y, nx));
  const __m128 vx = sub(mul(ny, e1z), mul(nz, e1y)), vy = sub(mul(nz, e1x), mul(nx, e1z));
  const __m128 vz = sub(mul(nx, e1y), mul(ny, e1x));
  // Each row of four components across the lanes, transposed into one row per triangle.
  __m128 fields[4][4] = {{p0x, p0y, p0z, scale}, {nx, ny, nz}, {ux, uy, uz}, {vx, vy, vz}};
  // A record is sixteen floats in a row; it is addressed as such, not through its first field.
  float* rows = reinterpret_cast<float*>(out);
  for (int row = 0; row < 4; ++row) {
    __m128* f = fields[row];
    _MM_TRANSPOSE4_PS(f[0], f[1], f[2], f[3]);
    for (int lane = 0; lane < count; ++lane) _mm_storeu_ps(rows + 16 * lane + 4 * row, f[lane]);
  }
}
}  // namespace

void recordTriangles(Object& object) {
  const Mesh& mesh = object.mesh;
  const size_t count = mesh.triangles.size(), vertices = mesh.worldPositions.size();
  object.triangleRecords.assign(count, TriangleRecord{});
  const int64_t groups = int64_t((count + 3) / 4);
#pragma omp parallel for schedule(static) if (groups >= 4096)
  for (int64_t group = 0; group < groups; ++group) {
    const size_t first = size_t(group) * 4;
    const int n = int(std::min<size_t>(4, count - first));
    // Missing lanes and corners out of range read vertex 0; an out-of-range
    // triangle keeps a zero record, whose distance 0 / 0 no ray accepts.
    uint32_t corners[4][3] = {};
    bool valid[4] = {};
    for (int lane = 0; lane < n; ++lane) {
      const Triangle& t = mesh.triangles[first + size_t(lane)];
      valid[lane] = t.i0 < vertices && t.i1 < vertices && t.i2 < vertices;
      if (valid[lane]) corners[lane][0] = t.i0, corners[lane][1] = t.i1, corners[lane][2] = t.i2;
    }
    if (vertices == 0) continue;
    recordFour(mesh, corners, object.triangleRecords.data() + first, n);
    for (int lane = 0; lane < n; ++lane)
      if (!valid[lane]) object.triangleRecords[first + size_t(lane)] = TriangleRecord{};
  }
}
