// Hair takes the texture coordinates of the surface it grows from: each strand
// root looks for the nearest face of its own object that it lies above.
#include <cmath>

#include "frame/report.h"
#include "geometry/object.h"

namespace {

struct FaceHit {
  float distance = infinity;
  FloatPair uv;
};

FloatPair uvAt(const Mesh& mesh, uint32_t vertex) {
  const std::vector<FloatPair>& uv = mesh.pairChannels[0].values;
  return vertex < uv.size() ? uv[vertex] : FloatPair{};
}

// The point projected along the face normal must fall inside the triangle;
// the edge products against that normal give its barycentric weights.
void testTriangle(const Mesh& mesh, const Triangle& t, Vec3f point, FaceHit& best) {
  const std::vector<Vec3f>& p = mesh.worldPositions;
  Vec3f a0 = p[t.i0] - point, a1 = p[t.i1] - point, a2 = p[t.i2] - point;
  Vec3f n = cross(a1 - a0, a2 - a0);
  float w0 = dot(cross(a1, a2), n), w1 = dot(cross(a2, a0), n), w2 = dot(cross(a0, a1), n);
  float sum = w0 + w1 + w2;
  if (w0 < 0 || w1 < 0 || w2 < 0 || !(sum > 0)) return;
  float distance = std::fabs(dot(a0, n)) / std::sqrt(dot(n, n));
  if (!(distance < best.distance)) return;
  FloatPair u0 = uvAt(mesh, t.i0), u1 = uvAt(mesh, t.i1), u2 = uvAt(mesh, t.i2);
  best.distance = distance;
  best.uv = {(w0 * u0.u + w1 * u1.u + w2 * u2.u) / sum, (w0 * u0.v + w1 * u1.v + w2 * u2.v) / sum};
}

// The projective parameters of the tetragon's ray test, with the face normal as the ray.
void testTetragon(const Mesh& mesh, const Tetragon& t, Vec3f point, FaceHit& best) {
  const std::vector<Vec3f>& p = mesh.worldPositions;
  Vec3f a0 = p[t.i0] - point, a1 = p[t.i1] - point, a2 = p[t.i2] - point, a3 = p[t.i3] - point;
  Vec3f n = cross(a2 - a0, a3 - a1);
  float A = dot(cross(a0, a1), n), B = dot(cross(a1, a2), n), C = dot(cross(a2, a3), n), D = dot(cross(a3, a0), n);
  if (A < 0 || B < 0 || C < 0 || D < 0 || !(A + C > 0) || !(B + D > 0)) return;
  float distance = std::fabs(dot(a0, n)) / std::sqrt(dot(n, n));
  if (!(distance < best.distance)) return;
  float u = A / (C + A), v = D / (D + B);
  float w[4] = {(1 - u) * (1 - v), (1 - u) * v, u * v, u * (1 - v)};
  const uint32_t corners[4] = {t.i0, t.i1, t.i2, t.i3};
  best.distance = distance;
  best.uv = {};
  for (int k = 0; k < 4; ++k) {
    FloatPair c = uvAt(mesh, corners[k]);
    best.uv.u += w[k] * c.u;
    best.uv.v += w[k] * c.v;
  }
}

bool laneContains(const BvhNode& node, int lane, Vec3f p) {
  return p.x >= node.min_x[lane] && p.y >= node.min_y[lane] && p.z >= node.min_z[lane] && p.x <= node.max_x[lane] &&
         p.y <= node.max_y[lane] && p.z <= node.max_z[lane];
}

// Descends only into boxes that hold the point.
FloatPair surfaceUv(const Object& object, Vec3f point) {
  FaceHit best;
  if (object.bvhNodes.empty()) return best.uv;
  std::vector<uint64_t> stack{uint64_t(0xFF) << 32};
  while (!stack.empty()) {
    uint64_t reference = stack.back();
    stack.pop_back();
    const BvhNode& node = object.bvhNodes[referenceIndex(reference)];
    const uint32_t mask = referenceMask(reference);
    for (int lane = 0; lane < 8; ++lane) {
      const uint64_t child = node.child[lane];
      if (!(mask >> lane & 1) || child == emptyLane || !laneContains(node, lane, point)) continue;
      if (!isLeafReference(child)) {
        stack.push_back(child);
        continue;
      }
      const uint32_t first = referenceIndex(child), end = first + referenceCount(child);
      if (referenceKind(child) == kindTriangle)
        for (uint32_t i = first; i < end; ++i) testTriangle(object.mesh, object.mesh.triangles[i], point, best);
      if (referenceKind(child) == kindTetragon)
        for (uint32_t i = first; i < end; ++i) testTetragon(object.mesh, object.mesh.tetragons[i], point, best);
    }
  }
  return best.uv;
}

}  // namespace

void assignHairUv(Object& object) {
  CylinderSet& hair = object.cylinders;
  if (hair.indices.empty()) return;
  const int strands = int(hair.strandRoots.size());
  LoopAllocation allocation;
#pragma omp parallel for schedule(dynamic, 1)
  for (int s = 0; s < strands; ++s) {
    allocation.run([&] {
      FloatPair uv = surfaceUv(object, hair.strandRoots[s]);
      hair.strandRoots[s].x = uv.u;
      hair.strandRoots[s].y = uv.v;
    });
  }
  allocation.rethrow();
  std::vector<FloatPair>& uv = hair.pairChannels[0].values;
  uv.resize(hair.worldPositions.size());
  for (const Cylinder& c : hair.indices) {
    const Vec3f& root = hair.strandRoots[c.strand];
    uv[c.first] = uv[c.first + 1] = {root.x, root.y};
  }
  std::vector<Vec3f>().swap(hair.strandRoots);
}
