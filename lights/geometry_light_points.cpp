// Points on the emitting surfaces: picking a side along the cumulative areas,
// a point on it with its emission, and the photons that leave from there.
#include <cmath>

#include "accel/primitive_bounds.h"
#include "accel/traversal.h"
#include "geometry/object.h"
#include "geometry/scene_assembly.h"
#include "lights/geometry_light.h"
#include "shading/shader.h"

namespace {
// The entry of `table` that u falls in, and u rescaled to that entry's share.
int pickEntry(const EmitterTable& table, float& u) {
  float p;
  const int j = selectFromCdf(table.cdf.data(), int(table.cdf.size()), u, p);
  const float below = j == 0 ? 0 : table.cdf[size_t(j) - 1];
  u = p > 0 ? std::fmin(std::fmax((u - below) / p, 0.0f), 1.0f) : 0.5f;
  return j;
}

// The corners of a face and their weights at (u1, u2): uniform over a
// triangle, bilinear over a four-cornered face as its hit test weighs them.
int faceCorners(const Mesh& mesh, uint8_t kind, uint32_t index, float u1, float u2, uint32_t vertex[4],
                float weight[4]) {
  if (kind == kindTriangle) {
    const Triangle& t = mesh.triangles[index];
    const float s = std::sqrt(u1);
    vertex[0] = t.i0, vertex[1] = t.i1, vertex[2] = t.i2;
    weight[0] = 1 - s, weight[1] = u2 * s, weight[2] = 1 - weight[0] - weight[1];
    return 3;
  }
  const Tetragon& q = mesh.tetragons[index];
  vertex[0] = q.i0, vertex[1] = q.i1, vertex[2] = q.i2, vertex[3] = q.i3;
  weight[0] = (1 - u1) * (1 - u2), weight[1] = (1 - u1) * u2, weight[2] = u1 * u2, weight[3] = u1 * (1 - u2);
  return 4;
}

// The surface record that the emission node reads at a point: position,
// texture coordinates and the side's frame.
Surface emitterSurface(const EmitterPick& pick, Vec3f position, Vec3f objectPosition, Vec3f normal, float u, float v) {
  Surface s;
  s.position = position;
  s.smooth_position = objectPosition;
  s.normal = s.geometric_normal = s.view = normal;
  buildOrthonormalBasis(normal, s.tangent, s.bitangent);
  s.cos_view = 1;
  s.uv[0] = u, s.uv[1] = v;
  s.instance_id = pick.instance_id;
  return s;
}

Vec3f worldCorner(const EmitterPick& pick, const Mesh& mesh, uint32_t vertex) {
  return transformPoint(pick.matrix, vertex < mesh.worldPositions.size() ? mesh.worldPositions[vertex] : zeroVector);
}

// Where procedural layers look the point up: the unposed position, as the fills do.
Vec3f unposedCorner(const Mesh& mesh, uint32_t vertex) {
  const std::vector<Vec3f>& positions = mesh.vectorChannels[0].values;
  if (vertex < positions.size()) return positions[vertex];
  return vertex < mesh.worldPositions.size() ? mesh.worldPositions[vertex] : zeroVector;
}

Surface faceSample(const EmitterPick& pick, float u1, float u2, EmitterPoint& point) {
  const Mesh& mesh = pick.object->mesh;
  uint32_t vertex[4];
  float weight[4];
  const int count = faceCorners(mesh, pick.kind, pick.primitive, u1, u2, vertex, weight);
  Vec3f corner[4], objectPosition = zeroVector;
  float u = 0, v = 0;
  const std::vector<FloatPair>& uv = mesh.pairChannels[0].values;
  for (int i = 0; i < count; ++i) {
    corner[i] = worldCorner(pick, mesh, vertex[i]);
    point.position += weight[i] * corner[i];
    objectPosition += weight[i] * unposedCorner(mesh, vertex[i]);
    if (vertex[i] < uv.size()) u += weight[i] * uv[vertex[i]].u, v += weight[i] * uv[vertex[i]].v;
  }
  // The same face normals as the hit tests: the edge product, the diagonals' product.
  const Vec3f n = count == 3 ? cross(corner[1] - corner[0], corner[2] - corner[0])
                             : cross(corner[2] - corner[0], corner[3] - corner[1]);
  point.normal = normalize(n);
  point.area = count == 3 ? triangleArea(mesh, pick.primitive) : tetragonArea(mesh, pick.primitive);
  return emitterSurface(pick, point.position, objectPosition, point.normal, u, v);
}

Surface particleSample(const EmitterPick& pick, float u1, float u2, EmitterPoint& point) {
  const ParticleSet& set = pick.object->particles;
  const uint32_t vertex = set.indices[pick.primitive];
  const std::vector<float>& radii = set.scalarChannels[0].values;
  const float r = vertex < radii.size() ? radii[vertex] : 0;
  const Vec3f centre = vertex < set.worldPositions.size() ? set.worldPositions[vertex] : zeroVector;
  Vec3f d;
  sampleSphere(d, u1, u2);
  point.position = transformPoint(pick.matrix, centre + r * d);
  point.normal = normalize(point.position - transformPoint(pick.matrix, centre));
  point.area = 12.566371f * r * r;
  return emitterSurface(pick, point.position, centre + r * d, point.normal, 0, 0);
}

// Whether the primitive that an entry names exists in its object.
bool primitiveExists(const Object& object, uint8_t kind, int32_t index) {
  if (index < 0) return false;
  const size_t i = size_t(index);
  switch (kind) {
    case kindParticle: return i < object.particles.indices.size();
    case kindTriangle: return i < object.mesh.triangles.size();
    case kindTetragon: return i < object.mesh.tetragons.size();
    default: return false;
  }
}

uint32_t primitiveShader(const Object& object, uint8_t kind, uint32_t index) {
  switch (kind) {
    case kindParticle: return uint32_t(object.particles.shader);
    case kindTriangle: return object.mesh.triangles[index].shader;
    default: return object.mesh.tetragons[index].shader;
  }
}
}  // namespace

bool pickEmitter(uint64_t index, uint64_t count, EmitterPick& pick) {
  if (count == 0 || size_t(rootObject) >= objects.size()) return false;
  pick = EmitterPick{};
  const Object* object = &objects[rootObject];
  float u = float((double(index) + 0.5) / double(count));
  for (uint32_t depth = 0; depth < maxPlacementDepth; ++depth) {
    const EmitterTable& table = object->lightFaces;
    if (table.cdf.empty() || !(table.total > 0)) return false;
    const EmitterEntry& entry = table.entries[size_t(pickEntry(table, u))];
    if (entry.kind != kindInstance) {
      if (!primitiveExists(*object, entry.kind, entry.index)) return false;
      pick.object = object;
      pick.primitive = uint32_t(entry.index);
      pick.kind = entry.kind;
      pick.front = entry.front;
      pick.shader = primitiveShader(*object, entry.kind, pick.primitive);
      if (pick.instance) {
        const auto found = pick.instance->overrides.find(int32_t(pick.shader));
        if (found != pick.instance->overrides.end()) pick.shader = uint32_t(found->second);
      }
      return true;
    }
    const Instance& placement = object->instances[size_t(entry.index)];
    if (uint32_t(placement.object) >= objects.size()) return false;
    pick.matrix = pick.matrix * placement.matrix;
    pick.instance = &placement;
    pick.instance_id = hashInstanceId(pick.instance_id, uint32_t(entry.index));
    object = &objects[size_t(placement.object)];
  }
  return false;
}

EmitterPoint sampleEmitter(const EmitterPick& pick, float u1, float u2) {
  EmitterPoint point;
  const Surface surface = pick.kind == kindParticle ? particleSample(pick, u1, u2, point) : faceSample(pick, u1, u2, point);
  if (pick.shader < shaders.size()) {
    const Shader& shader = shaders[pick.shader];
    // A single-sided shader shows its front node on both sides.
    const int side = shader.two_sided == 0 || pick.front ? 0 : 1;
    point.emission = evaluateColor(channelNode(shader, emissionChannel, side), surface);
  }
  return point;
}

void emitGeometryPhoton(Ray& ray, uint64_t index) {
  // Started first: a textured emission picks texels from the photon's stream.
  startPhoton(ray, index, 4, 1);
  EmitterPick pick;
  const int64_t count = geometryLight.photon;
  if (count <= 0 || !pickEmitter(index, uint64_t(count), pick)) {
    ray.weight = black;
    return;
  }
  float u1 = radicalInverse(index, 3), u2 = radicalInverse(index, 2);
  emissionPair(index, decidePhotonOrigin, u1, u2);
  const EmitterPoint point = sampleEmitter(pick, u1, u2);
  Frame frame;
  frame.normal = pick.front ? point.normal : -point.normal;
  buildOrthonormalBasis(frame.normal, frame.tangent, frame.bitangent);
  sampleHemisphere(ray.direction, frame, {uint32_t(index), 2, photonScramble()});
  ray.origin = point.position;
  // The photon must not find the primitive it leaves.
  ray.prev_kind = pick.kind;
  ray.prev_primitive = pick.primitive;
  ray.prev_object = pick.object;
  ray.prev_instance = pick.instance;
  ray.prev_shader = pick.shader;
  ray.weight = point.emission * geometryLight.flux;
}
