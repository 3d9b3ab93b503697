// Turning what the exports stored into what the hierarchy and the primitive
// tests read: world positions, strands, face fixes, poses, bounds and the report.
#include <algorithm>
#include <cmath>
#include <limits>

#include "accel/bbvh.h"
#include "accel/primitive_bounds.h"
#include "frame/renderer.h"
#include "frame/report.h"
#include "geometry/displacement.h"
#include "geometry/emitter.h"
#include "geometry/obj_reader.h"
#include "geometry/object.h"
#include "geometry/smooth_mesh.h"
#include "output/camera.h"
#include "shading/shader.h"

namespace {

template <typename T>
size_t channelValues(const std::vector<VertexChannel<T>>& list) {
  size_t n = 0;
  for (const VertexChannel<T>& channel : list) n += channel.values.size();
  return n;
}

// Every channel of the three lists of a set.
template <typename Set, typename Visit>
void forEachChannel(Set& set, Visit visit) {
  for (auto& channel : set.vectorChannels) visit(channel.values);
  for (auto& channel : set.pairChannels) visit(channel.values);
  for (auto& channel : set.scalarChannels) visit(channel.values);
}

// The common first step of every prepare: the size check and the world positions.
template <typename Set>
void placeVertices(Set& set, const Matrix4f& matrix) {
  size_t smallest = std::numeric_limits<size_t>::max(), largest = 0;
  forEachChannel(set, [&](const auto& values) {
    if (values.empty()) return;
    smallest = std::min(smallest, values.size());
    largest = std::max(largest, values.size());
  });
  if (largest != 0 && largest != smallest) printError("object - different size of per vertex data array");
  const std::vector<Vec3f>& positions = set.vectorChannels[0].values;
  set.worldPositions.resize(positions.size());
  for (size_t i = 0; i < positions.size(); ++i) set.worldPositions[i] = transformPoint(matrix, positions[i]);
  // Everything read per vertex gets exactly one value a vertex, so that channels
  // of the wrong length, a missing radius or stray indices cannot reach past an array.
  const size_t vertices = positions.size();
  forEachChannel(set, [&](auto& values) {
    if (!values.empty()) values.resize(vertices);
  });
  for (std::vector<uint32_t>* packed : {&set.normals, &set.tangents})
    if (!packed->empty()) packed->resize(vertices);
}

// A still set lives on in its world positions alone.
template <typename Set>
void scanMotion(Set& set) {
  set.hasMotion = 0;
  for (const VertexChannel<Vec3f>& channel : set.vectorChannels)
    if (channel.name == "motion") set.hasMotion = 1;
  if (!set.hasMotion) set.vectorChannels[0].values.clear();
}

Shader* shaderAt(uint32_t shader) { return shader < shaders.size() ? &shaders[shader] : nullptr; }

float binomial(int n, int k) {
  float c = 1;
  for (int i = 1; i <= k; ++i) c = c * float(n - k + i) / float(i);
  return c;
}

// Motion channels hold the control points of a Bezier curve of offsets about the base position.
template <typename Set>
void poseSet(Set& set, const Matrix4f& matrix) {
  if (!set.hasMotion) return;
  const float t = poseTime();
  std::vector<Vec3f> positions = set.vectorChannels[0].values;
  int n = -1;
  for (const VertexChannel<Vec3f>& channel : set.vectorChannels) n += channel.name == "motion";
  int k = 0;
  for (const VertexChannel<Vec3f>& channel : set.vectorChannels) {
    if (channel.name != "motion") continue;
    const float weight = binomial(n, k) * std::pow(t, float(k)) * std::pow(1 - t, float(n - k));
    ++k;
    const size_t count = std::min(channel.values.size(), positions.size());
    for (size_t i = 0; i < count; ++i) positions[i] += channel.values[i] * weight;
  }
  set.worldPositions.resize(positions.size());
  for (size_t i = 0; i < positions.size(); ++i) set.worldPositions[i] = transformPoint(matrix, positions[i]);
}

void computeBounds(Object& object) {
  Box box;
  for (uint32_t i = 0; i < object.particles.indices.size(); ++i) growBox(box, particleBox(object.particles, i));
  for (uint32_t i = 0; i < object.cylinders.indices.size(); ++i) growBox(box, cylinderBox(object.cylinders, i));
  for (Vec3f p : object.mesh.worldPositions) growBox(box, p, p);
  for (Instance& instance : object.instances) {
    instance.inverse = inverse(instance.matrix);
    for (int row = 0; row < 3; ++row)
      for (int col = 0; col < 3; ++col) {
        instance.inverse3[row * 3 + col] = instance.inverse(row, col);
        instance.normalMatrix[col * 3 + row] = instance.inverse(row, col);
      }
    growBox(box, instanceBox(instance));
  }
  object.boundsMin = box.min;
  object.boundsMax = box.max;
}

}  // namespace

void prepareParticles(ParticleSet& set, const Matrix4f& matrix) {
  placeVertices(set, matrix);
  const size_t vertices = set.worldPositions.size();
  std::erase_if(set.indices, [&](uint32_t v) { return v >= vertices; });
  if (!set.indices.empty()) set.scalarChannels[0].values.resize(vertices);
  scanMotion(set);
}

void prepareCylinders(CylinderSet& set, const Matrix4f& matrix) {
  placeVertices(set, matrix);
  const size_t vertices = set.worldPositions.size();
  std::erase_if(set.indices, [&](const Cylinder& c) { return uint64_t(c.first) + 1 >= vertices; });
  if (!set.indices.empty()) {
    set.scalarChannels[0].values.resize(vertices);
    if (Shader* shader = shaderAt(uint32_t(set.shader))) shader->used_by_hair = 1;
    std::vector<float>& parameter = set.scalarChannels[1].values;
    parameter.resize(vertices, 0.0f);
    // A strand is a run of segments whose vertices follow each other.
    std::vector<uint32_t> starts;
    set.strandRoots.clear();
    for (size_t i = 0; i < set.indices.size(); ++i) {
      Cylinder& c = set.indices[i];
      if (i == 0 || c.first != set.indices[i - 1].first + 1) {
        starts.push_back(c.first);
        set.strandRoots.push_back(set.worldPositions[c.first]);
      }
      c.strand = uint32_t(starts.size() - 1);
    }
    starts.push_back(uint32_t(vertices));
    // The last write of a strand lands on the next strand's root, which that
    // strand then overwrites with 0; the last strand's falls past the end and is dropped.
    for (size_t s = 0; s + 1 < starts.size(); ++s) {
      const uint32_t a = starts[s], b = starts[s + 1];
      for (uint64_t j = a; j <= b && j < vertices; ++j) parameter[j] = float(j - a) / float(b - a);
    }
    std::vector<Vec3f> directions(vertices);
    for (const Cylinder& c : set.indices) {
      Vec3f d = normalize(set.worldPositions[c.first + 1] - set.worldPositions[c.first]);
      directions[c.first] += d;
      directions[c.first + 1] += d;
    }
    set.tangents.resize(vertices);
    for (size_t i = 0; i < vertices; ++i) set.tangents[i] = packUnitVector(directions[i]);
  }
  scanMotion(set);
}

void prepareMesh(Mesh& mesh, const Matrix4f& matrix) {
  placeVertices(mesh, matrix);
  const size_t vertices = mesh.worldPositions.size();
  std::erase_if(mesh.triangles, [&](const Triangle& t) { return std::max({t.i0, t.i1, t.i2}) >= vertices; });
  std::erase_if(mesh.tetragons, [&](const Tetragon& t) { return std::max({t.i0, t.i1, t.i2, t.i3}) >= vertices; });
  // Faces naming a shader that nothing defined render with the fallback.
  auto undefinedToFallback = [](uint32_t& shader) {
    if (shader < shaders.size() && !shaders[shader].enabled) shader = 0;
  };
  for (Triangle& t : mesh.triangles) undefinedToFallback(t.shader);
  for (Tetragon& t : mesh.tetragons) undefinedToFallback(t.shader);
  clearWeldTable();
  scanMotion(mesh);
  auto flipped = [](uint32_t shader) { return shader < shaders.size() && shaders[shader].geometry.flip_face; };
  for (Triangle& t : mesh.triangles)
    if (flipped(t.shader)) std::swap(t.i0, t.i1);
  for (Tetragon& t : mesh.tetragons)
    if (flipped(t.shader)) std::swap(t.i0, t.i2);
  displaceMesh(mesh);
  smoothMesh(mesh);
}

float poseTime() {
  // Without a camera the frame counts as one sample.
  const int samples = renderer.camera < int(cameras.size()) ? std::max(1, cameras[renderer.camera].sample) : 1;
  return (float(renderer.pass) + 0.5f) / float(samples);
}

void poseParticles(ParticleSet& set, const Matrix4f& matrix) { poseSet(set, matrix); }
void poseCylinders(CylinderSet& set, const Matrix4f& matrix) { poseSet(set, matrix); }
void poseMesh(Mesh& mesh, const Matrix4f& matrix) {
  poseSet(mesh, matrix);
  if (mesh.hasMotion) refreshFrames(mesh);
}

void prepareObject(Object& object) {
  if (isEmptyObject(object)) return;
  prepareParticles(object.particles, object.matrix);
  prepareCylinders(object.cylinders, object.matrix);
  prepareMesh(object.mesh, object.matrix);
  object.hasMotion = object.particles.hasMotion | object.cylinders.hasMotion | object.mesh.hasMotion;
  buildBinaryTree(object);
  buildObject(object);
  if (!object.hasMotion) std::vector<BuildRecord>().swap(object.buildRecords);
  assignHairUv(object);
  reportObject(object);
}

void buildObject(Object& object) {
  if (isEmptyObject(object)) return;
  poseParticles(object.particles, object.matrix);
  poseCylinders(object.cylinders, object.matrix);
  poseMesh(object.mesh, object.matrix);
  computeBounds(object);
  // A still object has given its binary tree up after the first build.
  if (!object.buildRecords.empty()) {
    refitBinaryTree(object, 0);
    restructureTree(object);
    collapseTree(object);
  }
  buildEmitterTables(object);
}

void reportObject(const Object& object) {
  const ParticleSet& p = object.particles;
  const CylinderSet& c = object.cylinders;
  const Mesh& m = object.mesh;
  const int64_t positions = int64_t(channelValues(p.vectorChannels) + channelValues(c.vectorChannels) +
                                    channelValues(m.vectorChannels) + p.worldPositions.size() +
                                    c.worldPositions.size() + m.worldPositions.size());
  const int64_t pairs =
      int64_t(channelValues(p.pairChannels) + channelValues(c.pairChannels) + channelValues(m.pairChannels));
  const int64_t packed = int64_t(p.normals.size() + p.tangents.size() + c.normals.size() + c.tangents.size() +
                                 m.normals.size() + m.tangents.size());
  const int64_t scalars =
      int64_t(channelValues(p.scalarChannels) + channelValues(c.scalarChannels) + channelValues(m.scalarChannels));
  printArrayRow("positions", 12, positions, "M bytes");
  printArrayRow("uv coords", 8, pairs, "M bytes");
  printArrayRow("unit vecs", 4, packed, "M bytes");
  printArrayRow("user data", 4, scalars, "M bytes");
  printArrayRow("tetragons", 20, int64_t(m.tetragons.size()), "M bytes");
  printArrayRow("triangles", 16, int64_t(m.triangles.size()), "M bytes");
  printArrayRow("cylinders", 8, int64_t(c.indices.size()), "M bytes");
  printArrayRow("particles", 4, int64_t(p.indices.size()), "M bytes");
  printArrayRow("instances", 256, int64_t(object.instances.size()), "M bytes");
  printArrayRow("bvh nodes", 256, int64_t(object.bvhNodes.size()), "M bytes");
  printRow("simd occupancy", simdOccupancy(object), "%", 3);
}
