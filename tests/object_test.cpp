#include <gtest/gtest.h>

#include <cmath>

#include "geometry/object.h"
#include "qz.h"
#include "shading/shader.h"
#include "tests/scene_fixture.h"
#include "tests/test_util.h"

namespace {

using ObjectTest = SceneTest;

std::string prepared(Object& object) {
  return captureOutput([&] { prepareObject(object); });
}

const float square[12] = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0};
const float squareUv[8] = {0, 0, 1, 0, 1, 1, 0, 1};

}  // namespace

TEST_F(ObjectTest, NamesCountInFourDigitsAndWiden) {
  EXPECT_EQ(qzAddObject(), 0);
  EXPECT_EQ(objects[0].name, "object0000");
  objects.resize(10000);
  EXPECT_EQ(qzAddObject(), 10000);
  EXPECT_EQ(objects[10000].name, "object10000");
}

TEST_F(ObjectTest, VertexDataGoesToReservedOrNewChannels) {
  int o = qzAddObject();
  const float data[6] = {1, 2, 3, 4, 5, 6};
  std::string out = captureOutput([&] { EXPECT_EQ(qzAddVertexData(o, 3, "weird", 1, 4, data), -1); });
  EXPECT_EQ(out, "error :( qzAddVertexData() - currently per vertex data support up to 4 dimensions\n");
  // A negative dim compares as a huge unsigned one.
  EXPECT_EQ(captureOutput([&] { EXPECT_EQ(qzAddVertexData(o, 3, "x", 1, -1, data), -1); }), out);
  EXPECT_EQ(qzAddVertexData(o, 3, "x", 1, 0, data), -1);
  EXPECT_EQ(qzAddVertexData(o, 7, "x", 1, 3, data), -1);

  // Reserved names append to their channel, other names make a channel on every call.
  Mesh& mesh = objects[o].mesh;
  EXPECT_EQ(qzAddVertexData(o, 3, "position", 1, 3, data), 0);
  EXPECT_EQ(qzAddVertexData(o, 4, "position", 1, 3, data + 3), 0);
  EXPECT_EQ(mesh.vectorChannels[0].values.size(), 2u);
  EXPECT_EQ(mesh.vectorChannels[0].values[1], Vec3f(4, 5, 6));
  EXPECT_EQ(qzAddVertexData(o, 3, "motion", 2, 3, data), 1);
  EXPECT_EQ(qzAddVertexData(o, 3, "motion", 0, 3, data), 2);
  EXPECT_EQ(mesh.vectorChannels[2].name, "motion");
  EXPECT_TRUE(mesh.vectorChannels[2].values.empty());
  EXPECT_EQ(qzAddVertexData(o, 3, "uv", 3, 2, data), 0);
  EXPECT_EQ(qzAddVertexData(o, 3, "uv2", 3, 2, data), 1);
  EXPECT_FLOAT_EQ(mesh.pairChannels[1].values[2].v, 6);
  // The mesh has no radius: any name in one dimension is a new channel.
  EXPECT_EQ(qzAddVertexData(o, 3, "radius", 2, 1, data), 0);
  EXPECT_EQ(qzAddVertexData(o, 3, "radius", 2, 1, data), 1);
  // Normals are packed as they arrive and the call answers -1 all the same.
  EXPECT_EQ(qzAddVertexData(o, 3, "normal", 2, 3, data), -1);
  EXPECT_EQ(qzAddVertexData(o, 3, "tangent", 1, 3, data), -1);
  EXPECT_EQ(mesh.normals.size(), 2u);
  EXPECT_EQ(mesh.tangents.size(), 1u);
  EXPECT_EQ(mesh.normals[0], packUnitVector({1, 2, 3}));

  ParticleSet& particles = objects[o].particles;
  EXPECT_EQ(qzAddVertexData(o, 1, "radius", 2, 1, data), 0);
  EXPECT_EQ(qzAddVertexData(o, 1, "radius", 1, 1, data), 0);
  EXPECT_EQ(particles.scalarChannels[0].values.size(), 3u);
  EXPECT_EQ(qzAddVertexData(o, 1, "normal", 1, 3, data), 1);  // only a mesh packs normals
  EXPECT_EQ(qzAddVertexData(o, 2, "age", 1, 1, data), 2);     // after "radius" and "parameter"
}

TEST_F(ObjectTest, PackedUnitVectors) {
  EXPECT_EQ(packUnitVector({0, 0, 0}), 0x20080200u);
  EXPECT_EQ(packUnitVector({2, 0, 0}), 1023u | 512u << 10 | 512u << 20);
  EXPECT_EQ(packUnitVector({0, -1, 0}), 512u | 1u << 10 | 512u << 20);
  Vec3f v = unpackUnitVector(packUnitVector({1, 2, -2}));
  expectVecNear(v, Vec3f(1.0f / 3, 2.0f / 3, -2.0f / 3), 2e-3f);
  EXPECT_EQ(unpackUnitVector(0x20080200u), Vec3f(0, 0, 0));
  // The word 0 marks "no vector", although it decodes to one.
  EXPECT_GT(length(unpackUnitVector(0)), 0.99f);
  EXPECT_EQ(packUnitVector({std::nanf(""), 0, 0}) & 1023u, 512u);
}

TEST_F(ObjectTest, FacesKeepTheShaderOfTheirTime) {
  int o = qzAddObject();
  const unsigned tri[6] = {0, 1, 2, 0, 2, 3}, quad[4] = {0, 1, 2, 3};
  qzSetObjectShader(o, 3, 5);
  qzAddPrimitives(o, 3, 1, tri);
  qzSetObjectShader(o, 4, 6);
  qzAddPrimitives(o, 3, 1, tri + 3);
  qzAddPrimitives(o, 4, 1, quad);
  qzAddPrimitives(o, 4, 0, quad);
  qzAddPrimitives(o, 9, 1, quad);
  const Mesh& mesh = objects[o].mesh;
  ASSERT_EQ(mesh.triangles.size(), 2u);
  EXPECT_EQ(std::tuple(mesh.triangles[0].shader, mesh.triangles[1].shader, mesh.triangles[1].i2),
            std::tuple(5u, 6u, 3u));
  ASSERT_EQ(mesh.tetragons.size(), 1u);
  EXPECT_EQ(mesh.tetragons[0].shader, 6u);
  qzSetObjectShader(o, 1, 7);
  qzSetObjectShader(o, 2, 8);
  qzSetObjectShader(o, 0, 9);
  EXPECT_EQ(std::tuple(objects[o].particles.shader, objects[o].cylinders.shader, objects[o].mesh.shader),
            std::tuple(7, 8, 6));

  const float matrix[16] = {2, 0, 0, 1, 0, 2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1};
  qzSetObjectMatrix(o, matrix);
  qzSetObjectMatrix(o, nullptr);
  EXPECT_EQ(objects[o].matrix.m[3], 1);
  int i = qzAddInstance(o);
  qzSetInstance(o, i, 3, nullptr);
  EXPECT_EQ(objects[o].instances[i].object, 3);
  EXPECT_EQ(objects[o].instances[i].matrix.m[0], 1);
  qzOverrideShader(o, i, "undefined", "chrome");
  qzOverrideShader(o, i, "undefined", "gold");
  ASSERT_EQ(objects[o].instances[i].overrides.size(), 1u);
  EXPECT_EQ(shaders[objects[o].instances[i].overrides.at(0)].name, "gold");
  // Indices out of range are ignored rather than followed.
  qzAddPrimitives(99, 3, 1, tri);
  qzSetInstance(o, 5, 0, nullptr);
  EXPECT_EQ(qzAddInstance(-1), -1);
}

TEST_F(ObjectTest, PreparedMeshIsPlacedFixedAndForgetsItsStillPositions) {
  int flip = qzAddShader();
  shaders[flip].geometry.flip_face = 1;
  int ghost = findOrAddShader("never defined");
  int o = qzAddObject();
  const float matrix[16] = {2, 0, 0, 1, 0, 2, 0, 0, 0, 0, 2, 0, 0, 0, 0, 1};
  qzSetObjectMatrix(o, matrix);
  qzAddVertexData(o, 3, "position", 4, 3, square);
  qzAddVertexData(o, 3, "uv", 3, 2, squareUv);
  const unsigned faces[9] = {0, 1, 2, 0, 2, 3, 1, 2, 9};
  qzSetObjectShader(o, 3, flip);
  qzAddPrimitives(o, 3, 1, faces);
  qzSetObjectShader(o, 3, ghost);
  qzAddPrimitives(o, 3, 2, faces + 3);
  std::string out = prepared(objects[o]);
  EXPECT_NE(out.find("error :( object - different size of per vertex data array\n"), std::string::npos);
  const Mesh& mesh = objects[o].mesh;
  EXPECT_EQ(mesh.worldPositions[2], Vec3f(3, 2, 0));
  EXPECT_TRUE(mesh.vectorChannels[0].values.empty());
  ASSERT_EQ(mesh.triangles.size(), 2u);  // the face with vertex 9 cannot be kept
  for (const Triangle& t : mesh.triangles) {
    if (t.shader == uint32_t(flip)) EXPECT_EQ(t.i0, 1u);
    else EXPECT_EQ(t.shader, 0u);
  }
  EXPECT_EQ(objects[o].boundsMin, Vec3f(1, 0, 0));
  EXPECT_EQ(objects[o].boundsMax, Vec3f(3, 2, 0));
  EXPECT_TRUE(objects[o].buildRecords.empty());
  EXPECT_NE(out.find("accel built "), std::string::npos);
  EXPECT_NE(out.find("positions         12 [bytes]         4      0.000 [M bytes]\n"), std::string::npos);
  EXPECT_NE(out.find("triangles         16 [bytes]         2      0.000 [M bytes]\n"), std::string::npos);
  EXPECT_NE(out.find("bvh nodes        256 [bytes]         1      0.000 [M bytes]\n"), std::string::npos);
  EXPECT_EQ(out.find("particles"), std::string::npos);
}

TEST_F(ObjectTest, StrandsGetParametersDirectionsAndTheUvBelowTheirRoots) {
  int o = qzAddObject();
  // The surface: a unit square with uv, in the plane z = 0.
  qzAddVertexData(o, 4, "position", 4, 3, square);
  qzAddVertexData(o, 4, "uv", 4, 2, squareUv);
  const unsigned quad[4] = {0, 1, 2, 3};
  qzAddPrimitives(o, 4, 1, quad);
  // Two strands: four vertices from (0.25, 0.5), two from (3, 3) outside the square.
  const float hair[18] = {0.25f, 0.5f, 0, 0.25f, 0.5f, 1, 0.25f, 0.5f, 2, 0.25f, 0.5f, 3, 3, 3, 0, 3, 3, 1};
  const float radius[6] = {0.1f, 0.1f, 0.1f, 0.1f, 0.1f, 0.1f};
  qzAddVertexData(o, 2, "position", 6, 3, hair);
  qzAddVertexData(o, 2, "radius", 6, 1, radius);
  const unsigned segments[4] = {0, 1, 2, 4};
  qzAddPrimitives(o, 2, 4, segments);
  int hairShader = qzAddShader();
  qzSetObjectShader(o, 2, hairShader);
  prepared(objects[o]);

  const CylinderSet& set = objects[o].cylinders;
  const std::vector<float>& parameter = set.scalarChannels[1].values;
  ASSERT_EQ(parameter.size(), 6u);
  const float expected[6] = {0, 0.25f, 0.5f, 0.75f, 0, 0.5f};
  for (int i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(parameter[i], expected[i]) << i;
  EXPECT_EQ(shaders[hairShader].used_by_hair, 1);
  EXPECT_EQ(unpackUnitVector(set.tangents[1]), Vec3f(0, 0, 1));
  EXPECT_TRUE(set.strandRoots.empty());
  const std::vector<FloatPair>& uv = set.pairChannels[0].values;
  ASSERT_EQ(uv.size(), 6u);
  for (int i = 0; i < 4; ++i) {
    EXPECT_NEAR(uv[i].u, 0.25f, 1e-6f);
    EXPECT_NEAR(uv[i].v, 0.5f, 1e-6f);
  }
  EXPECT_EQ(uv[5].u, 0);
  EXPECT_EQ(uv[5].v, 0);
  // The strand number follows the cylinders after their reordering by the build.
  for (const Cylinder& c : set.indices) EXPECT_EQ(c.strand, c.first < 4 ? 0u : 1u);
}

TEST_F(ObjectTest, EmitterTablesWeighFacesSidesAndPlacements) {
  int glow = qzAddShader();
  qzSetShaderColor(glow, 3, 0, 1, 1, 1);  // emits on both sides
  qzSetShaderGeometryLight(glow, 2, true);
  int child = qzAddObject();
  qzAddVertexData(child, 1, "position", 1, 3, square);
  const float r = 0.5f;
  qzAddVertexData(child, 1, "radius", 1, 1, &r);
  qzSetObjectShader(child, 1, glow);
  const unsigned zero = 0;
  qzAddPrimitives(child, 1, 1, &zero);
  prepared(objects[child]);
  EXPECT_FLOAT_EQ(objects[child].emitterArea, 12.566371f * 0.25f);
  EXPECT_FLOAT_EQ(objects[child].lightArea, 0);  // a particle has no back

  int o = qzAddObject();
  qzAddVertexData(o, 3, "position", 4, 3, square);
  const unsigned faces[7] = {0, 1, 2, 0, 1, 2, 3};
  qzAddPrimitives(o, 3, 1, faces);
  qzSetObjectShader(o, 4, glow);
  qzAddPrimitives(o, 4, 1, faces + 3);
  qzSetInstance(o, qzAddInstance(o), child, nullptr);
  prepared(objects[o]);
  const EmitterTable& e = objects[o].emitters;
  ASSERT_EQ(e.count, 3);
  EXPECT_EQ(std::tuple(e.entries[0].kind, e.entries[0].front, e.entries[1].front, e.entries[2].kind),
            std::tuple(kindTetragon, 1, 0, kindInstance));
  EXPECT_EQ(e.entries[0].object, &objects[o]);
  const float total = 1 + 1 + 12.566371f * 0.25f;
  EXPECT_NEAR(e.total, total, 1e-5);
  EXPECT_FLOAT_EQ(e.cdf[0], 1 / total);
  EXPECT_FLOAT_EQ(e.cdf[2], 1);
  const EmitterTable& l = objects[o].lightFaces;
  ASSERT_EQ(l.count, 2);  // the back of the tetragon and the instance with no light area
  EXPECT_EQ(l.entries[0].front, 0);
  EXPECT_EQ(l.entries[1].weight, 0);
  EXPECT_FLOAT_EQ(objects[o].lightArea, 1);
  EXPECT_EQ(shaders[glow].prepared, 1);
}
