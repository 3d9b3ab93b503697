#include "geometry/smooth_mesh.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <set>

#include "qz.h"
#include "shading/shader.h"
#include "tests/test_util.h"

namespace {

class SmoothMeshTest : public testing::Test {
 protected:
  void SetUp() override { quietStartup(); }
  void TearDown() override { qzFinalizeShaders(); }

  int shaderWithAngle(float angle) {
    const int s = qzAddShader();
    qzSetShaderSmoothAngle(s, angle);
    return s;
  }
};

// A unit cube of six outward-facing tetragons; vertex x + 2y + 4z sits at (x, y, z).
Mesh cube(uint32_t shader) {
  Mesh mesh;
  for (int v = 0; v < 8; ++v) mesh.worldPositions.push_back(Vec3f(float(v & 1), float(v >> 1 & 1), float(v >> 2)));
  const uint32_t faces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
  for (const auto& f : faces) mesh.tetragons.push_back({f[0], f[1], f[2], f[3], shader});
  return mesh;
}

std::set<uint32_t> distinct(const std::vector<uint32_t>& words) { return {words.begin(), words.end()}; }

bool axisAligned(Vec3f n) { return std::fabs(n.x) + std::fabs(n.y) + std::fabs(n.z) == 1.0f; }

}  // namespace

TEST_F(SmoothMeshTest, WeldIsExactComparisonInOrderOfFirstAppearance) {
  // Whole numbers (all low mantissa bits zero), fractions, both zeros, NaN and
  // denormals, each position several times in a shuffled order.
  std::vector<Vec3f> positions;
  for (int x = 0; x < 30; ++x)
    for (int y = 0; y < 30; ++y) positions.push_back({float(x), float(y), float((x * y) % 4)});
  for (int i = 0; i < 200; ++i) positions.push_back({i * 0.37f + 0.013f, -i * 1.1f, 1e-40f * float(i % 5)});
  const float nan = std::nanf("");
  for (Vec3f p : {Vec3f{0, 0, 0}, Vec3f{-0.0f, 0, -0.0f}, Vec3f{nan, 0, 0}, Vec3f{nan, 0, 0}, Vec3f{1, 2, 3}})
    positions.push_back(p);
  const std::vector<Vec3f> once = positions;
  for (int copy = 0; copy < 2; ++copy) positions.insert(positions.end(), once.begin(), once.end());
  std::shuffle(positions.begin(), positions.end(), std::mt19937(5));

  std::vector<Vec3f> firsts;
  std::vector<uint32_t> expected;
  for (Vec3f p : positions) {
    auto found = std::find_if(firsts.begin(), firsts.end(), [&](Vec3f q) { return q == p; });
    expected.push_back(uint32_t(found - firsts.begin()));
    if (found == firsts.end()) firsts.push_back(p);
  }
  uint32_t count = 0;
  EXPECT_EQ(weldPositions(positions, count), expected);
  EXPECT_EQ(count, firsts.size());
  EXPECT_TRUE(weldPositions({}, count).empty());
  EXPECT_EQ(count, 0u);
}

TEST_F(SmoothMeshTest, TheAngleFreesKeepsSplitsOrSharesTheCubesCorners) {
  // 0 frees the normals and leaves the rest.
  Mesh flat = cube(uint32_t(shaderWithAngle(0)));
  flat.normals.assign(8, 77);
  flat.tangents.assign(8, 99);
  smoothMesh(flat);
  EXPECT_TRUE(flat.normals.empty());
  EXPECT_EQ(flat.tangents, std::vector<uint32_t>(8, 99));
  EXPECT_EQ(flat.worldPositions.size(), 8u);

  // A negative angle keeps the given frames exactly.
  Mesh given = cube(uint32_t(shaderWithAngle(-1)));
  for (uint32_t v = 0; v < 8; ++v) {
    given.normals.push_back(1000 + v);
    given.tangents.push_back(v);
  }
  const Mesh before = given;
  smoothMesh(given);
  EXPECT_EQ(std::tuple(given.normals, given.tangents, given.tetragons[3].i2),
            std::tuple(before.normals, before.tangents, before.tetragons[3].i2));

  // A small angle splits the corners: each face has its four vertices, all
  // with the face's own normal.
  Mesh split = cube(uint32_t(shaderWithAngle(30)));
  split.worldPositions.push_back({5, 5, 5});  // used by no face: dropped
  smoothMesh(split);
  ASSERT_EQ(split.worldPositions.size(), 24u);
  ASSERT_EQ(split.normals.size(), 24u);
  ASSERT_EQ(split.tangents.size(), 24u);
  for (const Tetragon& t : split.tetragons) {
    EXPECT_EQ(distinct({t.i0, t.i1, t.i2, t.i3}).size(), 4u);
    const uint32_t word = split.normals[t.i0];
    EXPECT_TRUE(axisAligned(unpackUnitVector(word)));
    for (uint32_t v : {t.i1, t.i2, t.i3}) EXPECT_EQ(split.normals[v], word);
  }
  EXPECT_EQ(distinct(split.normals).size(), 6u);

  // A half turn shares them: the sum of three unit face normals points away
  // from the centre along the diagonal.
  Mesh shared = cube(uint32_t(shaderWithAngle(180)));
  smoothMesh(shared);
  ASSERT_EQ(shared.worldPositions.size(), 8u);
  for (uint32_t v = 0; v < 8; ++v)
    EXPECT_EQ(shared.normals[v], packUnitVector(shared.worldPositions[v] * 2 - Vec3f(1, 1, 1)));
}

TEST_F(SmoothMeshTest, ChannelsAndAnglesSplitPerFace) {
  // Two triangles folded along their shared edge by 90 degrees; the second keeps its given words.
  Mesh mesh;
  mesh.worldPositions = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  mesh.pairChannels[0].values = {{0, 0}, {1, 0}, {0, 1}, {0, -1}};
  mesh.scalarChannels.push_back({"weight", {1, 2, 3, 4}});
  mesh.normals.assign(4, 5);
  mesh.tangents.assign(4, 6);
  const uint32_t smooth = uint32_t(shaderWithAngle(100)), kept = uint32_t(shaderWithAngle(-1));
  mesh.triangles = {{0, 1, 2, smooth}, {0, 3, 1, smooth}, {0, 1, 2, kept}};
  smoothMesh(mesh);
  // Corners 0 and 1 of the smooth faces share one normal between the two planes. Every
  // face at the position counts in the sum, the third too, whatever its own angle; but
  // it keeps the words 5 and 6 itself, and so gets vertices of its own.
  EXPECT_EQ(mesh.triangles[0].i0, mesh.triangles[1].i0);
  EXPECT_EQ(mesh.normals[mesh.triangles[0].i0], packUnitVector({0, 1, 2}));
  EXPECT_NE(mesh.triangles[2].i0, mesh.triangles[0].i0);
  EXPECT_EQ(mesh.normals[mesh.triangles[2].i0], 5u);
  EXPECT_EQ(mesh.tangents[mesh.triangles[2].i1], 6u);
  // The tangent follows u: along +x for both smooth faces.
  EXPECT_EQ(mesh.tangents[mesh.triangles[0].i1], packUnitVector({1, 0, 0}));
  EXPECT_EQ(mesh.scalarChannels[0].values[mesh.triangles[1].i1], 4.0f);
  EXPECT_EQ(mesh.worldPositions.size(), 7u);
  EXPECT_EQ(mesh.scalarChannels[0].values.size(), 7u);
  EXPECT_EQ(mesh.pairChannels[0].values.size(), 7u);
}

TEST_F(SmoothMeshTest, FaceFramesFallBackToABasis) {
  Mesh mesh;
  mesh.worldPositions = {{0, 0, 0}, {2, 0, 0}, {0, 2, 0}};
  const Triangle t{0, 1, 2, 0};
  // No tangents array: the first axis of a basis about the normal.
  FaceFrame frame = triangleFrame(mesh, t);
  Vec3f tangent, bitangent;
  buildOrthonormalBasis({0, 0, 1}, tangent, bitangent);
  EXPECT_EQ(frame.normal, Vec3f(0, 0, 1));
  EXPECT_EQ(frame.tangent, tangent);
  mesh.tangents.assign(3, 0);
  mesh.pairChannels[0].values = {{0, 0}, {0, -1}, {1, 0}};
  EXPECT_EQ(triangleFrame(mesh, t).tangent, Vec3f(0, 1, 0));
  // The formula leaves out the sign of the mapping: a mirrored uv turns the tangent round.
  mesh.pairChannels[0].values = {{0, 0}, {0, 1}, {1, 0}};
  EXPECT_EQ(triangleFrame(mesh, t).tangent, Vec3f(0, -1, 0));
}

TEST_F(SmoothMeshTest, RefreshKeepsAbsentWords) {
  Mesh mesh;
  mesh.worldPositions = {{0, 0, 0}, {1, 0, 0}, {1, 0, 1}, {0, 0, 1}};
  mesh.tetragons = {{0, 1, 2, 3, 0}};
  mesh.normals = {packUnitVector({0, 0, 1}), packUnitVector({0, 0, 1}), packUnitVector({0, 0, 1}), 0};
  refreshFrames(mesh);
  EXPECT_EQ(mesh.normals[0], packUnitVector({0, -1, 0}));
  EXPECT_EQ(mesh.normals[2], packUnitVector({0, -1, 0}));
  EXPECT_EQ(mesh.normals[3], 0u);
  EXPECT_TRUE(mesh.tangents.empty());
}
