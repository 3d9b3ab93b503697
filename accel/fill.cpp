#include "accel/fill.h"

#include <algorithm>
#include <cmath>

#include "shading/hair_scattering.h"
#include "shading/surface_setup.h"

namespace {
// The corners of a face with their interpolation weights at the hit.
struct FaceCorners {
  uint32_t vertex[4];
  float weight[4];
  int count;
};

// The object-space position of a vertex. Still sets keep only their world
// positions after preparation; those stand in for it then.
template <typename Set>
Vec3f unposedPosition(const Set& set, uint32_t vertex) {
  const std::vector<Vec3f>& positions = set.vectorChannels[0].values;
  if (vertex < positions.size()) return positions[vertex];
  return vertex < set.worldPositions.size() ? set.worldPositions[vertex] : zeroVector;
}

template <typename Set>
FloatPair uvAt(const Set& set, uint32_t vertex) {
  const std::vector<FloatPair>& uv = set.pairChannels[0].values;
  return vertex < uv.size() ? uv[vertex] : FloatPair{};
}

uint32_t packedAt(const std::vector<uint32_t>& words, uint32_t vertex) {
  return vertex < words.size() ? words[vertex] : 0;
}

void beginFill(const Ray& ray, Surface& s) {
  s.position = ray.origin + ray.t * ray.direction;
  s.view = -ray.direction;
  s.instance_id = ray.hit.instance_id;
}

Vec3f blend(const Vec3f* v, const float* w, int count) {
  Vec3f sum = zeroVector;
  for (int i = 0; i < count; ++i) sum += w[i] * v[i];
  return sum;
}

// Beside a corner: the corner normal, the two edge normals and the face
// normal, bilinear in the position (s, t) within the corner's square.
Vec3f cornerBlend(Vec3f corner, Vec3f edgeT, Vec3f edgeS, Vec3f face, float s, float t) {
  return (1 - s) * (1 - t) * corner + (1 - s) * t * edgeT + s * (1 - t) * edgeS + s * t * face;
}

Vec3f edgeNormal(Vec3f a, Vec3f b) { return normalize(a + b); }

// Rounded corners of a four-cornered face: the corner normals in full at
// r >= 1; otherwise the face normal inside, blends of the edge normals within
// r of an edge, and of the corner normal within r of a corner.
Vec3f roundTetragon(const Vec3f* n, Vec3f g, float u, float v, float r) {
  if (r >= 1) {
    const float w[4] = {(1 - u) * (1 - v), (1 - u) * v, u * v, u * (1 - v)};
    return normalize(blend(n, w, 4));
  }
  const bool lowU = u < r, highU = u > 1 - r, lowV = v < r, highV = v > 1 - r;
  if (!(lowU || highU || lowV || highV)) return g;
  const Vec3f e01 = edgeNormal(n[0], n[1]), e12 = edgeNormal(n[1], n[2]);
  const Vec3f e23 = edgeNormal(n[2], n[3]), e30 = edgeNormal(n[3], n[0]);
  const float su = lowU ? u / r : (u - (1 - r)) / r, sv = lowV ? v / r : (v - (1 - r)) / r;
  if (lowU && lowV) return cornerBlend(n[0], e01, e30, g, su, sv);
  if (lowU && highV) return cornerBlend(e01, n[1], g, e12, su, sv);
  if (highU && highV) return cornerBlend(g, e12, e23, n[2], su, sv);
  if (highU && lowV) return cornerBlend(e30, g, n[3], e23, su, sv);
  if (lowU) return (1 - su) * e01 + su * g;
  if (highU) return su * e23 + (1 - su) * g;
  if (lowV) return (1 - sv) * e30 + sv * g;
  return sv * e12 + (1 - sv) * g;
}

// The same for a triangle, with barycentric weights: within r of the edge
// opposite corner i (w_i < r) the edge normal blends into the face normal;
// near corner i, where both other weights are below r, the corner normal
// blends with the two edge normals and the face normal.
Vec3f roundTriangle(const Vec3f* n, Vec3f g, const float* w, float r) {
  if (r >= 1) return normalize(blend(n, w, 3));
  int small = 0, last = 0;
  for (int i = 0; i < 3; ++i)
    if (w[i] < r) ++small, last = i;
  if (small == 0) return g;
  if (small == 1) {
    const int j = (last + 1) % 3, k = (last + 2) % 3;
    const float s = w[last] / r;
    return (1 - s) * edgeNormal(n[j], n[k]) + s * g;
  }
  // The corner is the vertex with the largest weight; the other two measure the way out of its square.
  const int i = int(std::max_element(w, w + 3) - w), j = (i + 1) % 3, k = (i + 2) % 3;
  const float s = std::min(w[j] / r, 1.0f), t = std::min(w[k] / r, 1.0f);
  return cornerBlend(n[i], edgeNormal(n[i], n[k]), edgeNormal(n[i], n[j]), g, s, t);
}

// The tangent along increasing u from the uv differences over two edges.
Vec3f uvTangent(const Mesh& mesh, const FaceCorners& f, Vec3f e1, Vec3f e2) {
  const FloatPair a = uvAt(mesh, f.vertex[0]), b = uvAt(mesh, f.vertex[1]), c = uvAt(mesh, f.vertex[2]);
  const float du1 = b.u - a.u, du2 = c.u - a.u, dv1 = b.v - a.v, dv2 = c.v - a.v;
  const float orientation = du1 * dv2 - du2 * dv1 < 0 ? -1.0f : 1.0f;
  return normalize(orientation * (e1 * dv2 - e2 * dv1));
}

// The blend of the corners' packed tangents, when every corner has one.
bool blendedTangent(const Mesh& mesh, const FaceCorners& f, Vec3f& tangent) {
  Vec3f sum = zeroVector;
  for (int i = 0; i < f.count; ++i) {
    const uint32_t word = packedAt(mesh.tangents, f.vertex[i]);
    if (word == 0) return false;
    const Vec3f raw{float(int(word & 1023) - 512), float(int(word >> 10 & 1023) - 512), float(int(word >> 20 & 1023) - 512)};
    sum += f.weight[i] * raw;
  }
  tangent = normalize(sum);
  return true;
}

// Everything the two face kinds share once their corners, weights, face
// normal and rounded normal rule are known.
template <typename Round>
void fillFace(const Mesh& mesh, const Ray& ray, const Shader& shader, Surface& s, const FaceCorners& f, Vec3f g,
              Round roundNormal) {
  Vec3f unposed[4];
  for (int i = 0; i < f.count; ++i) unposed[i] = unposedPosition(mesh, f.vertex[i]);
  s.smooth_position = blend(unposed, f.weight, f.count);
  s.uv[0] = s.uv[1] = 0;
  if (shader.textured && !mesh.pairChannels[0].values.empty())
    for (int i = 0; i < f.count; ++i) {
      const FloatPair uv = uvAt(mesh, f.vertex[i]);
      s.uv[0] += f.weight[i] * uv.u;
      s.uv[1] += f.weight[i] * uv.v;
    }

  Vec3f normal = g;
  if (ray.diffuse_bounces == 0 || shader.needs_surface_normal) {
    Vec3f corners[4];
    for (int i = 0; i < f.count; ++i) {
      const uint32_t word = packedAt(mesh.normals, f.vertex[i]);
      corners[i] = word ? unpackUnitVector(word) : g;
      if (dot(corners[i], g) < 0) corners[i] = g;
    }
    normal = roundNormal(corners, g);
  }
  const bool front = ray.facing > 0;
  s.geometric_normal = front ? g : -g;
  s.normal = front ? normal : -normal;

  Vec3f tangent = zeroVector;
  if (shader.needs_tangents && !blendedTangent(mesh, f, tangent)) {
    const Vec3f p0 = mesh.worldPositions[f.vertex[0]];
    tangent = uvTangent(mesh, f, mesh.worldPositions[f.vertex[1]] - p0, mesh.worldPositions[f.vertex[2]] - p0);
  }
  s.normal = normalize(s.normal);
  if (lengthSquared(tangent) >= 1e-8f) {
    s.bitangent = normalize(cross(s.normal, tangent));
    s.tangent = normalize(cross(s.bitangent, s.normal));
  } else {
    buildOrthonormalBasis(s.normal, s.tangent, s.bitangent);
  }
  setupSurface(shader, ray, s);
}
}  // namespace

void fillTriangle(const Mesh& mesh, const Ray& ray, const Shader& shader, Surface& surface) {
  beginFill(ray, surface);
  if (surface.cheap_query && shader.plain) return;
  const Triangle& t = mesh.triangles[ray.hit.primitive];
  const FaceCorners f{{t.i0, t.i1, t.i2, 0}, {ray.coords[0], ray.coords[1], ray.coords[2], 0}, 3};
  const Vec3f p0 = mesh.worldPositions[t.i0];
  const Vec3f g = normalize(cross(mesh.worldPositions[t.i1] - p0, mesh.worldPositions[t.i2] - p0));
  const float r = shader.geometry.round_corner;
  fillFace(mesh, ray, shader, surface, f, g, [&](const Vec3f* n, Vec3f face) { return roundTriangle(n, face, f.weight, r); });
}

void fillTetragon(const Mesh& mesh, const Ray& ray, const Shader& shader, Surface& surface) {
  beginFill(ray, surface);
  if (surface.cheap_query && shader.plain) return;
  const Tetragon& t = mesh.tetragons[ray.hit.primitive];
  const float u = ray.coords[0], v = ray.coords[1];
  const FaceCorners f{{t.i0, t.i1, t.i2, t.i3}, {(1 - u) * (1 - v), (1 - u) * v, u * v, u * (1 - v)}, 4};
  const std::vector<Vec3f>& p = mesh.worldPositions;
  const Vec3f g = normalize(cross(p[t.i2] - p[t.i0], p[t.i3] - p[t.i1]));
  const float r = shader.geometry.round_corner;
  fillFace(mesh, ray, shader, surface, f, g, [&](const Vec3f* n, Vec3f face) { return roundTetragon(n, face, u, v, r); });
}

void fillParticle(const ParticleSet& set, const Ray& ray, const Shader& shader, Surface& surface) {
  beginFill(ray, surface);
  const uint32_t vertex = set.indices[ray.hit.primitive];
  const Vec3f offset{ray.coords[0], ray.coords[1], ray.coords[2]};
  const std::vector<float>& radius = set.scalarChannels[0].values;
  const float r = vertex < radius.size() ? radius[vertex] : 0;
  surface.smooth_position = unposedPosition(set, vertex) + r * offset;
  surface.uv[0] = surface.uv[1] = 0;
  if (shader.textured && !set.pairChannels[0].values.empty()) {
    const FloatPair uv = uvAt(set, vertex);
    surface.uv[0] = uv.u, surface.uv[1] = uv.v;
  }
  const Vec3f outward = dot(offset, surface.view) > 0 ? offset : -offset;
  surface.geometric_normal = outward;  // left at the sphere's radius in length
  surface.normal = normalize(outward);
  buildOrthonormalBasis(surface.normal, surface.tangent, surface.bitangent);
  setupSurface(shader, ray, surface);
}

void fillCylinder(const CylinderSet& set, const Ray& ray, const Shader& shader, Surface& surface) {
  const float h = 2 * drawNumber(decisionCursor(ray, ray.cursor.index, decideFibreOffset)) - 1;
  beginFill(ray, surface);
  const uint32_t a = set.indices[ray.hit.primitive].first, b = a + 1;
  const float f = ray.coords[2];
  // The fibre is thin: the point on its axis stands for the hit.
  surface.position = (1 - f) * set.worldPositions[a] + f * set.worldPositions[b];
  surface.smooth_position = surface.position;
  const FloatPair uvA = uvAt(set, a), uvB = uvAt(set, b);
  surface.uv[0] = (1 - f) * uvA.u + f * uvB.u;
  surface.uv[1] = (1 - f) * uvA.v + f * uvB.v;
  const std::vector<float>& parameter = set.scalarChannels[1].values;
  surface.hair_t = (1 - f) * (a < parameter.size() ? parameter[a] : 0) + f * (b < parameter.size() ? parameter[b] : 0);
  surface.hair_h = ray.across;
  surface.tangent = normalize((1 - f) * unpackUnitVector(packedAt(set.tangents, a)) +
                              f * unpackUnitVector(packedAt(set.tangents, b)));
  surface.bitangent = normalize(cross(surface.tangent, ray.direction));
  const Vec3f across = normalize(cross(surface.tangent, surface.bitangent));
  // A random turn about the axis stands for where across the round fibre the ray landed.
  surface.normal = surface.geometric_normal = h * surface.bitangent + std::sqrt(1 - h * h) * across;
  surface.bitangent = cross(surface.normal, surface.tangent);
  evaluateHairSurface(shader, surface);
}

void fillSurface(const Ray& ray, const Shader& shader, Surface& surface) {
  const Object& object = *ray.hit.object;
  switch (ray.hit.kind) {
    case kindParticle: fillParticle(object.particles, ray, shader, surface); break;
    case kindCylinder: fillCylinder(object.cylinders, ray, shader, surface); break;
    case kindTriangle: fillTriangle(object.mesh, ray, shader, surface); break;
    case kindTetragon: fillTetragon(object.mesh, ray, shader, surface); break;
  }
}
