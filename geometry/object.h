// Objects: up to three primitive sets with their vertex channels, the
// placements of other objects inside them, their hierarchy and emitter tables.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "accel/bbvh.h"
#include "frame/huge_pages.h"
#include "frame/vec.h"

struct FloatPair {
  float u = 0, v = 0;
};

template <typename T>
struct VertexChannel {
  std::string name;
  std::vector<T> values;
};

struct Triangle {
  uint32_t i0, i1, i2, shader;
};

struct Tetragon {
  uint32_t i0, i1, i2, i3, shader;
};

// A segment of a strand, from vertex `first` to vertex `first + 1`.
struct Cylinder {
  uint32_t first, strand;
};

struct ParticleSet {
  std::vector<uint32_t> indices;
  std::vector<Vec3f> worldPositions;
  std::vector<uint32_t> normals, tangents;  // packed unit vectors
  std::vector<VertexChannel<Vec3f>> vectorChannels{{"position", {}}};
  std::vector<VertexChannel<FloatPair>> pairChannels{{"uv", {}}};
  std::vector<VertexChannel<float>> scalarChannels{{"radius", {}}};
  int32_t shader = 0;
  uint8_t hasMotion = 0;
};

struct CylinderSet {
  std::vector<Cylinder> indices;
  std::vector<Vec3f> worldPositions;
  std::vector<uint32_t> normals, tangents;  // tangents: the direction at each vertex
  std::vector<VertexChannel<Vec3f>> vectorChannels{{"position", {}}};
  std::vector<VertexChannel<FloatPair>> pairChannels{{"uv", {}}};
  std::vector<VertexChannel<float>> scalarChannels{{"radius", {}}, {"parameter", {}}};
  // The root of each strand; assignHairUv leaves the strand's uv in x and y.
  std::vector<Vec3f> strandRoots;
  int32_t shader = 0;
  uint8_t hasMotion = 0;
};

struct Mesh {
  std::vector<Triangle> triangles;
  std::vector<Tetragon> tetragons;
  std::vector<Vec3f> worldPositions;
  std::vector<uint32_t> normals;   // one packed word a vertex, or empty; 0 means absent
  std::vector<uint32_t> tangents;  // likewise
  std::vector<VertexChannel<Vec3f>> vectorChannels{{"position", {}}};
  std::vector<VertexChannel<FloatPair>> pairChannels{{"uv", {}}};
  std::vector<VertexChannel<float>> scalarChannels;
  int32_t shader = 0;  // stamped on faces as they are added
  uint8_t hasMotion = 0;
  // Irradiance patches of the density estimator, filled for the root object only.
  std::vector<Color3f> triangle_front, triangle_back;
  std::vector<Color3f> tetragon_front, tetragon_back;
  std::vector<uint32_t> triangle_offset, tetragon_offset;
  std::vector<uint32_t> triangle_grid, tetragon_grid;
};

struct Instance {
  Matrix4f matrix;
  Matrix4f inverse;
  float inverse3[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  float normalMatrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  int32_t object = -1;
  std::string objectName;
  std::map<int32_t, int32_t> overrides;  // shader substitution of this placement
};

struct Object;

// Objects this many placements below the root or deeper are not walked: each
// level holds a walk's stack on the thread's own, and no honest scene comes
// near it. A cycle must not loop for ever either.
constexpr uint32_t maxPlacementDepth = 64;
// Placements one walk from the root enters at most: a graph whose objects
// place the next twice over holds more copies than any walk can visit.
constexpr uint32_t maxPlacementsPerWalk = 1 << 16;

struct EmitterEntry {
  Object* object = nullptr;
  float weight = 0;
  int32_t index = 0;  // primitive or instance index
  uint8_t kind = 0;   // 1 particle, 3 triangle, 4 tetragon, 5 instance
  uint8_t front = 1;  // 0 for the back side
};

struct EmitterTable {
  std::vector<EmitterEntry> entries;
  int32_t count = 0;
  std::vector<float> cdf;
  double total = 0;
};

struct Object {
  Matrix4f matrix;
  Vec3f boundsMin{infinity, infinity, infinity};
  Vec3f boundsMax{-infinity, -infinity, -infinity};
  float emitterArea = 0;
  float lightArea = 0;
  std::vector<Instance> instances;
  HugePageArray<BvhNode> bvhNodes;
  HugePageArray<TriangleRecord> triangleRecords;  // one a triangle of `mesh`, in the same order
  std::vector<BuildRecord> buildRecords;
  EmitterTable emitters, lightFaces;
  ParticleSet particles;
  CylinderSet cylinders;
  Mesh mesh;
  std::string name;
  uint32_t level = 0;      // longest path below the root object
  uint8_t referenced = 0;  // some instance places this object
  uint8_t hasMotion = 0;
};

extern std::vector<Object> objects;

// Three 10-bit fields, each trunc(c * 511.9999) + 512; the word 0 means "no vector".
uint32_t packUnitVector(Vec3f v);
Vec3f unpackUnitVector(uint32_t word);

// No particles, cylinders, faces or instances.
bool isEmptyObject(const Object& object);

void prepareObject(Object& object);
void buildObject(Object& object);
void prepareParticles(ParticleSet& set, const Matrix4f& matrix);
void prepareCylinders(CylinderSet& set, const Matrix4f& matrix);
void prepareMesh(Mesh& mesh, const Matrix4f& matrix);
// The moment of the frame that the pose stands for: (pass + 0.5) / the camera's samples.
float poseTime();
void poseParticles(ParticleSet& set, const Matrix4f& matrix);
void poseCylinders(CylinderSet& set, const Matrix4f& matrix);
void poseMesh(Mesh& mesh, const Matrix4f& matrix);
void assignHairUv(Object& object);
void reportObject(const Object& object);
