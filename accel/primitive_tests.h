// Ray tests of the four primitive kinds, in a closest form that records the
// hit and a shadow form that only blocks. The geometric parts of triangles,
// tetragons and particles are inline: the walks run them for every leaf.
#pragma once

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

// --- triangles

// The plane's distance and the barycentric weights; both sides count.
inline bool crossTriangle(const Mesh& mesh, const Triangle& triangle, const Ray& ray, FaceCrossing& c) {
  const Vec3f p0 = mesh.worldPositions[triangle.i0];
  const Vec3f e1 = mesh.worldPositions[triangle.i1] - p0, e2 = mesh.worldPositions[triangle.i2] - p0;
  const Vec3f n = cross(e1, e2);
  const Vec3f a = p0 - ray.origin;
  c.denominator = dot(n, ray.direction);
  c.t = dot(n, a) / c.denominator;
  // Written so that a NaN distance fails.
  if (!(c.t >= 1e-6f && c.t < ray.t - 1e-6f)) return false;
  const Vec3f q = (c.t * ray.direction - a) * (1.0f / dot(n, n));
  const float w1 = dot(q, cross(e2, n));
  if (!(w1 >= 0 && w1 <= 1)) return false;
  const float w2 = dot(q, cross(n, e1));
  if (!(w2 >= 0 && w2 <= 1)) return false;
  const float w0 = 1 - (w1 + w2);
  if (w0 < 0) return false;
  c.weights[0] = w0, c.weights[1] = w1, c.weights[2] = w2;
  return true;
}

// Substitution, visibility and the stochastic cut-out by a textured opacity,
// then the closest hit is written; false when the face lets the ray through.
bool acceptTriangle(const Object& object, uint32_t index, Ray& ray, const FaceCrossing& crossing);

inline bool closestTriangle(const Object& object, uint32_t index, Ray& ray) {
  FaceCrossing c;
  if (!crossTriangle(object.mesh, object.mesh.triangles[index], ray, c)) return false;
  // The closest triangle test does not compare the object.
  if (ray.prev_kind == kindTriangle && ray.prev_primitive == index && ray.prev_instance == ray.instance) return false;
  return acceptTriangle(object, index, ray, c);
}

// The same steps for a shadow ray: true when the face blocks it.
bool triangleBlocks(const Object& object, uint32_t index, const Ray& ray, const FaceCrossing& crossing);

inline bool shadowTriangle(const Object& object, uint32_t index, const Ray& ray) {
  FaceCrossing c;
  if (!crossTriangle(object.mesh, object.mesh.triangles[index], ray, c)) return false;
  if (isPreviousPrimitive(object, ray, kindTriangle, index) || isShadowTarget(ray, kindTriangle, index)) return false;
  return triangleBlocks(object, index, ray, c);
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
