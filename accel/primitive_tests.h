// Ray tests of the four primitive kinds, in a closest form that records the
// hit and a shadow form that only blocks. The geometric parts of triangles,
// tetragons and particles are inline: the walks run them for every leaf.
#pragma once

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "accel/bbvh.h"
#include "accel/ray.h"
#include "geometry/object.h"

// What a face test leaves for the steps after it.
struct FaceCrossing {
  float t;
  float denominator;   // face normal dot direction
  float weights[4];    // vertex weights: barycentric for triangles, bilinear for tetragons
  float u, v;          // tetragons only
};

// --- the steps that follow a geometric hit (primitive_tests.cpp)

// The primitive's shader after the placement's substitution, and whether this
// ray may see it at all: camera and first light segments skip hidden shaders.
bool visibleShader(const Ray& ray, uint32_t primitiveShader, uint32_t& shader);

// Writes everything of a closest hit but `facing`, `coords` and `across`.
inline void recordHit(const Object& object, Ray& ray, uint8_t kind, uint32_t index, uint32_t shader, float t) {
  ray.t = t;
  ray.hit.depth = uint8_t(ray.instance_depth);
  ray.hit.instance_id = ray.instance_id;
  ray.hit.instance = ray.instance;
  ray.hit.shader = shader;
  ray.hit.object = &object;
  ray.hit.primitive = index;
  ray.hit.kind = kind;
}

// The primitive that this ray left, named in full.
inline bool isPreviousPrimitive(const Object& object, const Ray& ray, uint8_t kind, uint32_t index) {
  return ray.prev_kind == kind && ray.prev_primitive == index && ray.prev_instance == ray.instance &&
         ray.prev_object == &object;
}

// A shadow ray aimed at an emitter passes the primitive it aims at, in every object.
inline bool isShadowTarget(const Ray& ray, uint8_t kind, uint32_t index) {
  return ray.hit.kind == kind && ray.hit.primitive == index;
}

// --- triangles, up to four at a time in the lanes of 128-bit registers

// What the lanes of a group leave for the steps after the geometric test.
struct TriangleGroup {
  alignas(16) float t[4];
  alignas(16) float denominator[4];
  alignas(16) float w[3][4];
};

// Triangles `first` to `first + count - 1` (count 1 to 4) against the ray up
// to its present limit; the bits of the lanes crossed. Both sides count.
inline int crossTriangles(const Object& object, uint32_t first, uint32_t count, const Ray& ray, TriangleGroup& g) {
  const TriangleRecord* records = object.triangleRecords.data() + first;
  // Missing lanes repeat lane 0 or hold leftovers; either way they are masked off at the end.
  const float* r0 = records[0].p0;
  const float* r1 = records[count > 1 ? 1 : 0].p0;
  const float* r2 = records[count > 2 ? 2 : 0].p0;
  const float* r3 = records[count > 3 ? 3 : 0].p0;
  // Row k of the records, turned into four vectors of one field each. Most
  // leaves hold one or two triangles: their rows take half the shuffles.
  auto transposeRow = [&](int row, __m128& x, __m128& y, __m128& z, __m128& w) {
    x = _mm_load_ps(r0 + 4 * row), y = _mm_load_ps(r1 + 4 * row);
    if (count <= 2) {
      const __m128 low = _mm_unpacklo_ps(x, y), high = _mm_unpackhi_ps(x, y);
      x = low, y = _mm_movehl_ps(low, low), z = high, w = _mm_movehl_ps(high, high);
      return;
    }
    z = _mm_load_ps(r2 + 4 * row), w = _mm_load_ps(r3 + 4 * row);
    _MM_TRANSPOSE4_PS(x, y, z, w);
  };
  __m128 p0x, p0y, p0z, scale, nx, ny, nz, ux, uy, uz, vx, vy, vz, unused;
  transposeRow(0, p0x, p0y, p0z, scale);
  transposeRow(1, nx, ny, nz, unused);
  transposeRow(2, ux, uy, uz, unused);
  transposeRow(3, vx, vy, vz, unused);
  auto sub = [](__m128 a, __m128 b) { return _mm_sub_ps(a, b); };
  auto mul = [](__m128 a, __m128 b) { return _mm_mul_ps(a, b); };
  auto dot = [&](__m128 ax, __m128 ay, __m128 az, __m128 bx, __m128 by, __m128 bz) {
    return _mm_add_ps(_mm_add_ps(mul(ax, bx), mul(ay, by)), mul(az, bz));
  };
  const __m128 dx = _mm_set1_ps(ray.direction.x), dy = _mm_set1_ps(ray.direction.y), dz = _mm_set1_ps(ray.direction.z);
  const __m128 ax = sub(p0x, _mm_set1_ps(ray.origin.x)), ay = sub(p0y, _mm_set1_ps(ray.origin.y));
  const __m128 az = sub(p0z, _mm_set1_ps(ray.origin.z));
  const __m128 denominator = dot(nx, ny, nz, dx, dy, dz);
  const __m128 t = _mm_div_ps(dot(nx, ny, nz, ax, ay, az), denominator);
  // Ordered comparisons: a NaN distance fails.
  __m128 inside = _mm_and_ps(_mm_cmpge_ps(t, _mm_set1_ps(1e-6f)), _mm_cmplt_ps(t, _mm_set1_ps(ray.t - 1e-6f)));
  const __m128 qx = mul(sub(mul(t, dx), ax), scale), qy = mul(sub(mul(t, dy), ay), scale);
  const __m128 qz = mul(sub(mul(t, dz), az), scale);
  // w1 := q . (e2 x N), w2 := q . (N x e1), w0 := 1 - (w1 + w2).
  const __m128 w1 = dot(qx, qy, qz, ux, uy, uz);
  const __m128 w2 = dot(qx, qy, qz, vx, vy, vz);
  const __m128 w0 = sub(_mm_set1_ps(1), _mm_add_ps(w1, w2));
  const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1);
  inside = _mm_and_ps(inside, _mm_and_ps(_mm_cmpge_ps(w1, zero), _mm_cmple_ps(w1, one)));
  inside = _mm_and_ps(inside, _mm_and_ps(_mm_cmpge_ps(w2, zero), _mm_cmple_ps(w2, one)));
  inside = _mm_and_ps(inside, _mm_cmpge_ps(w0, zero));
  const int lanes = _mm_movemask_ps(inside) & ((1 << count) - 1);
  if (lanes == 0) return 0;
  _mm_store_ps(g.t, t);
  _mm_store_ps(g.denominator, denominator);
  _mm_store_ps(g.w[0], w0);
  _mm_store_ps(g.w[1], w1);
  _mm_store_ps(g.w[2], w2);
  return lanes;
}

inline FaceCrossing laneCrossing(const TriangleGroup& g, int lane) {
  return {g.t[lane], g.denominator[lane], {g.w[0][lane], g.w[1][lane], g.w[2][lane], 0}, 0, 0};
}

// Substitution, visibility and the stochastic cut-out by a textured opacity,
// then the closest hit is written; false when the face lets the ray through.
bool acceptTriangle(const Object& object, uint32_t index, Ray& ray, const FaceCrossing& crossing);

// Triangles in index order, each hit shortening the ray for the ones after it.
inline bool closestTriangles(const Object& object, uint32_t first, uint32_t count, Ray& ray) {
  bool found = false;
  for (uint32_t base = first, last = first + count; base < last; base += 4) {
    TriangleGroup g;
    for (int lanes = crossTriangles(object, base, std::min(last - base, 4u), ray, g); lanes; lanes &= lanes - 1) {
      const int lane = __builtin_ctz(lanes);
      const uint32_t index = base + uint32_t(lane);
      // A lane before this one may have come nearer.
      if (!(g.t[lane] < ray.t - 1e-6f)) continue;
      // The closest triangle test does not compare the object.
      if (ray.prev_kind == kindTriangle && ray.prev_primitive == index && ray.prev_instance == ray.instance) continue;
      found |= acceptTriangle(object, index, ray, laneCrossing(g, lane));
    }
  }
  return found;
}

inline bool closestTriangle(const Object& object, uint32_t index, Ray& ray) {
  return closestTriangles(object, index, 1, ray);
}

// The same steps for a shadow ray: true when the face blocks it.
bool triangleBlocks(const Object& object, uint32_t index, const Ray& ray, const FaceCrossing& crossing);

inline bool shadowTriangles(const Object& object, uint32_t first, uint32_t count, const Ray& ray) {
  for (uint32_t base = first, last = first + count; base < last; base += 4) {
    TriangleGroup g;
    for (int lanes = crossTriangles(object, base, std::min(last - base, 4u), ray, g); lanes; lanes &= lanes - 1) {
      const int lane = __builtin_ctz(lanes);
      const uint32_t index = base + uint32_t(lane);
      if (isPreviousPrimitive(object, ray, kindTriangle, index) || isShadowTarget(ray, kindTriangle, index)) continue;
      if (triangleBlocks(object, index, ray, laneCrossing(g, lane))) return true;
    }
  }
  return false;
}

inline bool shadowTriangle(const Object& object, uint32_t index, const Ray& ray) {
  return shadowTriangles(object, index, 1, ray);
}

// --- tetragons

// The distance to the plane of the diagonals' product, the four edge tests
// and the projective (u, v), exact for a parallelogram.
inline bool crossTetragon(const Mesh& mesh, const Tetragon& tetragon, const Ray& ray, FaceCrossing& c) {
  const Vec3f p0 = mesh.worldPositions[tetragon.i0], p1 = mesh.worldPositions[tetragon.i1];
  const Vec3f p2 = mesh.worldPositions[tetragon.i2], p3 = mesh.worldPositions[tetragon.i3];
  const Vec3f n = cross(p2 - p0, p3 - p1);
  const Vec3f a0 = p0 - ray.origin;
  c.denominator = dot(n, ray.direction);
  c.t = dot(n, a0) / c.denominator;
  if (!(c.t >= 1e-6f && c.t <= ray.t - 1e-6f)) return false;
  const Vec3f a1 = p1 - ray.origin, a2 = p2 - ray.origin, a3 = p3 - ray.origin;
  const float A = dot(cross(a0, a1), ray.direction), B = dot(cross(a1, a2), ray.direction);
  const float C = dot(cross(a2, a3), ray.direction), D = dot(cross(a3, a0), ray.direction);
  // Every edge value must share the denominator's sign or be zero.
  const float d = c.denominator;
  if (d < 0 && (A > 0 || B > 0 || C > 0 || D > 0)) return false;
  if (d > 0 && (A < 0 || B < 0 || C < 0 || D < 0)) return false;
  c.u = A / (C + A);
  c.v = D / (D + B);
  c.weights[0] = (1 - c.u) * (1 - c.v), c.weights[1] = (1 - c.u) * c.v;
  c.weights[2] = c.u * c.v, c.weights[3] = c.u * (1 - c.v);
  return true;
}

bool acceptTetragon(const Object& object, uint32_t index, Ray& ray, const FaceCrossing& crossing);

inline bool closestTetragon(const Object& object, uint32_t index, Ray& ray) {
  FaceCrossing c;
  if (!crossTetragon(object.mesh, object.mesh.tetragons[index], ray, c)) return false;
  if (isPreviousPrimitive(object, ray, kindTetragon, index)) return false;
  return acceptTetragon(object, index, ray, c);
}

bool tetragonBlocks(const Object& object, uint32_t index, const Ray& ray, const FaceCrossing& crossing);

inline bool shadowTetragon(const Object& object, uint32_t index, const Ray& ray) {
  FaceCrossing c;
  if (!crossTetragon(object.mesh, object.mesh.tetragons[index], ray, c)) return false;
  if (isPreviousPrimitive(object, ray, kindTetragon, index) || isShadowTarget(ray, kindTetragon, index)) return false;
  return tetragonBlocks(object, index, ray, c);
}

// --- particles: spheres at a vertex with the radius channel's value

inline bool closestParticle(const Object& object, uint32_t index, Ray& ray) {
  const ParticleSet& set = object.particles;
  const uint32_t vertex = set.indices[index];
  const float r = set.scalarChannels[0].values[vertex];
  const Vec3f c = set.worldPositions[vertex] - ray.origin;
  const float perpendicular = lengthSquared(cross(c, ray.direction));
  if (perpendicular > r * r) return false;
  const float h = std::sqrt(r * r - perpendicular), b = dot(c, ray.direction);
  const float roots[2] = {b - h, b + h};
  // Each root is tried against the limit that the one before may have set.
  bool taken[2] = {false, false};
  float limit = ray.t;
  for (int i = 0; i < 2; ++i)
    if (roots[i] > 1e-6f && roots[i] < limit + 1e-6f) taken[i] = true, limit = roots[i];
  uint32_t shader;
  if (!(taken[0] || taken[1]) || !visibleShader(ray, uint32_t(set.shader), shader)) return false;
  const float facing = lengthSquared(c) - r * r > 1e-6f ? 1.0f : -1.0f;
  for (int i = 0; i < 2; ++i) {
    if (!taken[i]) continue;
    recordHit(object, ray, kindParticle, index, shader, roots[i]);
    const Vec3f offset = roots[i] * ray.direction - c;
    ray.coords[0] = offset.x, ray.coords[1] = offset.y, ray.coords[2] = offset.z;
    ray.facing = facing;
  }
  return true;
}

// The shadow form puts the discriminant itself where its square root belongs;
// this widens or narrows the window a little, for shadow rays only, and is kept.
inline bool shadowParticle(const Object& object, uint32_t index, const Ray& ray) {
  const ParticleSet& set = object.particles;
  const uint32_t vertex = set.indices[index];
  const float r = set.scalarChannels[0].values[vertex];
  const Vec3f c = set.worldPositions[vertex] - ray.origin;
  const float b = dot(c, ray.direction);
  const float d = b * b - (lengthSquared(c) - r * r);
  if (d < 0) return false;
  const float t1 = b - d, t2 = d + b, limit = ray.t + 1e-6f;
  if (!((t1 > 1e-6f && t1 < limit) || (t2 > 1e-6f && t2 < limit))) return false;
  uint32_t shader;
  return !isPreviousPrimitive(object, ray, kindParticle, index) && visibleShader(ray, uint32_t(set.shader), shader);
}

// --- cylinders: eight chords of the strand's cubic curve in eight lanes (cylinder_test.cpp)

bool closestCylinder(const Object& object, uint32_t index, Ray& ray);
// The walk guards the primitive this ray left; the test does not.
bool shadowCylinder(const Object& object, uint32_t index, const Ray& ray);
