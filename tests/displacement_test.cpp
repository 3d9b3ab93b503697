#include "geometry/displacement.h"

#include <gtest/gtest.h>

#include <regex>

#include "qz.h"
#include "shading/image.h"
#include "shading/shader.h"
#include "tests/scene_fixture.h"

namespace {

class DisplacementTest : public SceneTest {
 protected:
  // A shader with one displacement layer of the given level and image.
  int displacing(float angle, int level, const char* image = "") {
    const int s = qzAddShader();
    qzSetShaderSmoothAngle(s, angle);
    TextureNode& layer = shaders[s].geometry.vector.emplace_back();
    layer.level = level;
    layer.color = white;
    layer.imageName = image;
    return s;
  }

  // A 2 by 2 square at z = 0 facing +z, as one tetragon of each shader given, side by side along x.
  int squares(std::initializer_list<int> faceShaders) {
    const int o = qzAddObject();
    float x = 0;
    unsigned first = 0;
    for (int s : faceShaders) {
      const float p[12] = {x, 0, 0, x + 2, 0, 0, x + 2, 2, 0, x, 2, 0};
      const float uv[8] = {0, 0, 1, 0, 1, 1, 0, 1};
      const unsigned corners[4] = {first, first + 1, first + 2, first + 3};
      qzAddVertexData(o, 3, "position", 4, 3, p);
      qzAddVertexData(o, 3, "uv", 4, 2, uv);
      qzSetObjectShader(o, 4, s);
      qzAddPrimitives(o, 4, 1, corners);
      x += 3;
      first += 4;
    }
    return o;
  }

  std::string prepare(int o) {
    return captureOutput([&] { prepareObject(objects[o]); });
  }
};

float signedArea(const std::array<float, 3>& a, const std::array<float, 3>& b, const std::array<float, 3>& c) {
  return (b[1] - a[1]) * (c[2] - a[2]) - (b[2] - a[2]) * (c[1] - a[1]);
}

}  // namespace

TEST(Tessellation, GridCoversTheTriangleOnce) {
  const TriangleGrid one = tessellateTriangle(1);
  ASSERT_EQ(one.weights.size(), 3u);
  EXPECT_EQ(std::tuple(one.weights[0], one.weights[1]),
            std::tuple((std::array<float, 3>{1, 0, 0}), (std::array<float, 3>{0, 1, 0})));
  EXPECT_EQ(std::tuple(one.weights[2], one.triangles),
            std::tuple((std::array<float, 3>{0, 0, 1}), (std::vector<std::array<uint32_t, 3>>{{0, 1, 2}})));
  for (int level : {2, 3, 7}) {
    const TriangleGrid grid = tessellateTriangle(level);
    ASSERT_EQ(grid.weights.size(), size_t((level + 1) * (level + 2) / 2));
    ASSERT_EQ(grid.triangles.size(), size_t(level * level));
    // Equal areas, all wound as the input: together they tile it without overlap.
    float total = 0;
    for (const auto& t : grid.triangles) {
      const float area = signedArea(grid.weights[t[0]], grid.weights[t[1]], grid.weights[t[2]]);
      EXPECT_NEAR(area, 1.0f / float(level * level), 1e-5f);
      total += area;
    }
    EXPECT_NEAR(total, 1.0f, 1e-5f);
    for (const auto& w : grid.weights) EXPECT_NEAR(w[0] + w[1] + w[2], 1.0f, 1e-6f);
  }
}

TEST(Tessellation, CurvedSurfaceFollowsTheNormals) {
  const Vec3f P[3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  // Through the corners in any case.
  EXPECT_EQ(curvedPoint(1, 0, 0, P, P), P[0]);
  EXPECT_EQ(curvedPoint(0, 0, 1, P, P), P[2]);
  // Normals of a sphere lift the middle from the flat 0.577 close to the unit sphere.
  const float third = 1.0f / 3;
  const float middle = length(curvedPoint(third, third, third, P, P));
  EXPECT_GT(middle, 0.9f);
  EXPECT_LT(middle, 1.0f);
  EXPECT_NEAR(length(curvedPoint(0.5f, 0.5f, 0, P, P)), 1.0f, 0.06f);
  // Normals of the plane keep it flat.
  const Vec3f n = normalize({1, 1, 1});
  const Vec3f flat[3] = {n, n, n};
  EXPECT_NEAR(dot(curvedPoint(0.2f, 0.3f, 0.5f, P, flat), n), dot(P[0], n), 1e-6f);
  const SurfacePoint half = edge(0.5f, {P[0], P[0]}, {P[1], P[1]});
  EXPECT_NEAR(length(half.position), 1.0f, 0.06f);
  EXPECT_NEAR(dot(half.normal, normalize(half.position)), 1.0f, 1e-3f);
}

TEST_F(DisplacementTest, NodeWithoutImageMovesOneUnitAlongTheNormal) {
  const int o = squares({displacing(30, 4)});
  const std::string out = prepare(o);
  const size_t row = out.find("displacement ");
  ASSERT_NE(row, std::string::npos);
  // Whole milliseconds shown with three decimals.
  const std::string line = out.substr(row, out.find('\n', row) - row);
  EXPECT_TRUE(std::regex_match(line, std::regex("displacement  +[0-9]+\\.000 \\[m seconds\\]"))) << line;
  const Mesh& mesh = objects[o].mesh;
  EXPECT_TRUE(mesh.tetragons.empty());
  EXPECT_EQ(mesh.triangles.size(), 32u);
  for (const Triangle& t : mesh.triangles)
    for (uint32_t v : {t.i0, t.i1, t.i2}) EXPECT_EQ(mesh.worldPositions[v].z, 1.0f);
  // The final smoothing drops the old corners and welds the grids along the diagonal.
  EXPECT_LE(mesh.worldPositions.size(), 25u + 5u);
  EXPECT_EQ(objects[o].boundsMax.z, 1.0f);
}

TEST_F(DisplacementTest, GreyHalfLeavesTheSurface) {
  const int image = qzAddImage();
  qzSetImageName(image, "grey");
  qzCreateImage(image, 4, 4);
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 4; ++x) qzSetImageColor(image, x, y, 0.5f, 0.5f, 0.5f);
  const int s = displacing(30, 3, "grey");
  const int o = squares({s});
  prepare(o);
  const Mesh& mesh = objects[o].mesh;
  EXPECT_EQ(mesh.triangles.size(), 18u);
  for (Vec3f p : mesh.worldPositions) EXPECT_NEAR(p.z, 0.0f, 1e-6f);
  // The image is freed once used.
  EXPECT_EQ(shaders[s].geometry.vector[0].image, -1);
  EXPECT_FALSE(images[image].loaded);
}

TEST_F(DisplacementTest, FlatShadersHaveNoNormalsToDisplaceAlong) {
  const int o = squares({displacing(0, 4)});
  const std::string out = prepare(o);
  // Smoothing freed the normals, and a mesh from the exports never had tangents: one warning each.
  const std::string warning = "warning :( mesh - missing vertex normals for displacement mapping\n";
  EXPECT_EQ(out.find(warning + warning + std::string(80, '_')), 0u);
  const Mesh& mesh = objects[o].mesh;
  EXPECT_EQ(mesh.triangles.size(), 2u);
  for (Vec3f p : mesh.worldPositions) EXPECT_EQ(p.z, 0.0f);
}

TEST_F(DisplacementTest, LayersStackAndOtherShadersSurviveAsTriangles) {
  const int stacked = displacing(30, 2);
  shaders[stacked].geometry.vector.push_back(shaders[stacked].geometry.vector[0]);
  const int plain = qzAddShader();
  qzSetShaderSmoothAngle(plain, 30);
  const int o = squares({stacked, plain});
  prepare(o);
  const Mesh& mesh = objects[o].mesh;
  EXPECT_TRUE(mesh.tetragons.empty());
  // Two layers of level 2: 2 x 4 x 4 triangles, each layer moving on from the last one's output.
  int plainFaces = 0;
  for (const Triangle& t : mesh.triangles) {
    plainFaces += t.shader == uint32_t(plain);
    for (uint32_t v : {t.i0, t.i1, t.i2}) EXPECT_EQ(mesh.worldPositions[v].z, t.shader == uint32_t(plain) ? 0 : 2);
  }
  EXPECT_EQ(plainFaces, 2);
  EXPECT_EQ(mesh.triangles.size(), 2u + 2u * 4u * 4u);
}

TEST_F(DisplacementTest, LevelsBeyondMemoryAreRefusedAndTheMeshStays) {
  // A plausible typo for 10, and a level whose vertex count passes 32-bit indices.
  for (int level : {100000, 70000}) {
    SCOPED_TRACE(level);
    const int s = displacing(30, 2);
    shaders[s].geometry.vector.push_back(shaders[s].geometry.vector[0]);
    shaders[s].geometry.vector[1].level = level;
    const int o = squares({s});
    const std::string out = prepare(o);
    EXPECT_NE(out.find("error :( mesh - displacement level " + std::to_string(level) +
                       " needs more memory than there is\n" + std::string(80, '_')),
              std::string::npos)
        << out;
    // The first layer stands, the refused one is as if it were not there.
    const Mesh& mesh = objects[o].mesh;
    EXPECT_EQ(mesh.triangles.size(), 2u * 4u);
    for (Vec3f p : mesh.worldPositions) EXPECT_EQ(p.z, 1.0f);
  }
}
