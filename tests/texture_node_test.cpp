// Texture nodes: the node block, preparation against a real image file, and
// the colour, vector and normal evaluations.
#include "shading/texture_node.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <sstream>

#include "frame/report.h"
#include "qz.h"
#include "shading/image.h"
#include "tests/test_util.h"

namespace {
Color3f pow(Color3f c, float g) { return {std::pow(c.r, g), std::pow(c.g, g), std::pow(c.b, g)}; }

TextureNode readNode(const std::string& text) {
  std::istringstream file(text);
  TextureNode node;
  readNodeBlock(node, file);
  return node;
}

Surface surfaceWithUv(float u, float v) {
  Surface s;
  s.uv[0] = u, s.uv[1] = v;
  s.tangent = {1, 0, 0}, s.bitangent = {0, 1, 0}, s.normal = s.geometric_normal = {0, 0, 1};
  s.view = {0, 0, 1};
  return s;
}

// A 4 by 4 PNG with a distinct colour in every texel, written to disk and
// dropped from memory, so that nodes really load it.
class TextureNodeImage : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    quietStartup();
    path = scratchFolder("texture-node-" + std::to_string(getpid())) + "/checker.png";
    const int id = qzAddImage();
    qzSetImageName(id, path.c_str());
    qzCreateImage(id, 4, 4);
    for (int y = 0; y < 4; ++y)
      for (int x = 0; x < 4; ++x)
        qzSetImageColor(id, x, y, (x * 60 + 10) / 255.0f, (y * 70 + 5) / 255.0f, (x + y) * 30 / 255.0f);
    ASSERT_TRUE(qzSaveImage(id));
    freeImages();
  }
  void SetUp() override {
    node = TextureNode{};
    node.imageName = path;
    node.color = white;
    node.pixel_sampler = PixelSampler::nearest;
  }
  void prepare() {
    std::string out = captureOutput([&] { prepareNode(node); });
    ASSERT_EQ(out, "");
    ASSERT_GE(node.image, 0);
  }
  Color3f texel(int x, int y) { return readPixel(images[node.image], int64_t(y) * 4 + x); }
  Color3f at(float u, float v) { return evaluateColor(node, surfaceWithUv(u, v)); }

  static inline std::string path;
  TextureNode node;
};
}  // namespace

TEST(TextureNodeBlock, ReadsKeysSamplerAndLayers) {
  const TextureNode node = readNode(
      "color 0.5 0.25 2\n"
      "level 3\n"
      "image \"wood grain.png\"\n"
      "sampler\n"
      "  pixel_sampler \"bilinear\"\n"
      "  gamma 2.2\n"
      "  uv_matrix 2 0 0  0 2 0  0 0 1\n"
      "end\n"
      "flake\n  color 1 1 0\n  density 0.3\n  scale 0.01\n  depth 0.02\nend\n"
      "stone\n  weathering 0.7\n  density 0.4\n  scale 3\n  level 5\n  image \"dropped.png\"\nend\n"
      "side \"inner\"\n"
      "end\n"
      "color 9 9 9\n");
  EXPECT_EQ(std::tuple(node.color, node.level, node.imageName, node.pixel_sampler),
            std::tuple(Color3f(0.5f, 0.25f, 2), 3, "wood grain.png", PixelSampler::bilinear));
  EXPECT_FLOAT_EQ(node.gamma, 2.2f);
  EXPECT_EQ(std::tuple(node.uvIdentity, node.colorIdentity, node.uv_matrix[0], node.uv_matrix[4], node.flake.color),
            std::tuple(0, 1, 2, 2, Color3f(1, 1, 0)));
  EXPECT_FLOAT_EQ(node.flake.density, 0.3f);
  EXPECT_FLOAT_EQ(node.flake.scale, 0.01f);
  EXPECT_FLOAT_EQ(node.flake.depth, 0.02f);
  EXPECT_FLOAT_EQ(node.stone.weathering, 0.7f);
  EXPECT_FLOAT_EQ(node.stone.density, 0.4f);
  EXPECT_FLOAT_EQ(node.stone.scale, 3);
  EXPECT_EQ(node.stone.level, 5u);
  EXPECT_EQ(node.side, 2);
}

TEST(TextureNodeBlock, SideWordsAndSamplerWords) {
  const std::pair<const char*, int> words[] = {{"both", 3},  {"face", 1}, {"back", 2}, {"outer", 1},
                                               {"inner", 2}, {"tip", 1},  {"root", 2}};
  for (auto [word, side] : words) {
    EXPECT_EQ(readNode(std::string("side \"") + word + "\"\n").side, side) << word;
    EXPECT_EQ(readNode(std::string("sideness \"") + word + "\"\n").side, side) << word;
  }
  EXPECT_EQ(readNode("side \"back\"\nside \"sideways\"\n").side, 2);  // unknown word leaves it
  EXPECT_EQ(readNode("sampler\npixel_sampler \"nearest\"\nend\n").pixel_sampler, PixelSampler::nearest);
  EXPECT_EQ(readNode("sampler\npixel_sampler \"nearest\"\npixel_sampler \"box\"\nend\n").pixel_sampler,
            PixelSampler::nearest);
  // An identity matrix given as a key still clears the flag.
  const TextureNode m = readNode("sampler\ncolor_matrix 1 0 0 0 0 1 0 0 0 0 1 0 0 0 0 1\nend\n");
  EXPECT_EQ(m.colorIdentity, 0);
  EXPECT_EQ(m.color_matrix.m[15], 1);
}

TEST(TextureNodeBlock, DefaultsAndReset) {
  TextureNode node;
  EXPECT_EQ(std::tuple(node.pixel_sampler, node.level, node.image), std::tuple(PixelSampler::stochastic, 1, -1));
  node = readNode(
      "color 1 2 3\nlevel 4\nimage \"a.png\"\nside \"both\"\nflake\ndensity 1\nend\n"
      "sampler\nuv_matrix 3 0 0 0 3 0 0 0 1\nend\n");
  node.shift[1][2] = 0.5f;
  resetNode(node);
  EXPECT_EQ(std::tuple(node.color, node.level, node.side, node.imageName, node.flake.density, node.shift[1][2]),
            std::tuple(black, 1, 1, "", 0, 0));
  EXPECT_EQ(node.uv_matrix[0], 3);  // the matrices are left alone
}

TEST_F(TextureNodeImage, NearestReadsTheTexel) {
  prepare();
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 4; ++x) expectColorNear(at((x + 0.5f) / 4, (y + 0.5f) / 4), texel(x, y));
  // Repeat addressing wraps outside [0, 1).
  expectColorNear(at(-0.125f, 1.125f), texel(3, 0));
  node.color = {2, 0.5f, 1};
  expectColorNear(at(0.375f, 0.125f), texel(1, 0) * node.color);
}

TEST_F(TextureNodeImage, BilinearBlendsFourStochasticConvergesToItAndGammaComesFirst) {
  node.pixel_sampler = PixelSampler::bilinear;
  prepare();
  // fx = 1.25, fy = 2.75: texels (1, 2), (2, 2), (1, 3), (2, 3).
  const Color3f want =
      (texel(1, 2) * 0.75f + texel(2, 2) * 0.25f) * 0.25f + (texel(1, 3) * 0.75f + texel(2, 3) * 0.25f) * 0.75f;
  expectColorNear(at(1.25f / 4, 2.75f / 4), want, 1e-5f);

  node.pixel_sampler = PixelSampler::stochastic;
  Color3f sum;
  const int n = 40000;
  for (int i = 0; i < n; ++i) sum += at(1.25f / 4, 2.75f / 4);
  expectColorNear(sum / float(n), want, 0.006f);

  // Gamma applies per texel before the blend. fx = 3, fy = 1.5: the blend runs down column 3 alone.
  node.gamma = 2;
  node.pixel_sampler = PixelSampler::bilinear;
  expectColorNear(at(3.0f / 4, 1.5f / 4), (pow(texel(3, 1), 2) + pow(texel(3, 2), 2)) * 0.5f, 1e-5f);
}

TEST_F(TextureNodeImage, UvMatrixDividesByWAndColorMatrixByGreenTwice) {
  prepare();
  // u' = (0.5 u + 0.25) / 2, v' = (v + 1) / 2 after the divide by w = 2.
  const float m[9] = {0.5f, 0, 0.25f, 0, 1, 1, 0, 0, 2};
  std::copy(m, m + 9, node.uv_matrix);
  expectColorNear(at(0.9f, 0.9f), texel(3, 3));  // without the flag the matrix is skipped
  node.uvIdentity = 0;
  // u = 0.9: (0.45 + 0.25) / 2 = 0.35 -> x 1; v = 0.9: 1.9 / 2 = 0.95 -> y 3.
  expectColorNear(at(0.9f, 0.9f), texel(1, 3));

  node.uvIdentity = 1;
  Matrix4f c;
  c(0, 1) = 1;  // red gains green
  c(3, 2) = 1;  // the divisor's "blue" term, which reads green
  node.color_matrix = c;
  node.colorIdentity = 0;
  const Color3f t = texel(3, 2);
  ASSERT_NE(t.g, t.b);
  const float w = t.g + t.g * 0 + 1;  // g M31 + r M30 + g M32 + M33
  expectColorNear(at(3.5f / 4, 2.5f / 4), Color3f{t.r + t.g, t.g, t.b} / w, 1e-6f);
}

TEST_F(TextureNodeImage, VectorAndNormalFromTheImage) {
  node.color = {2, 2, 1};
  prepare();
  const Color3f c = texel(0, 3);
  const Vec3f d{(c.r - 0.5f) * 2, (c.g - 0.5f) * 2, c.b - 0.5f};
  const Vec3f v = evaluateVector(node, surfaceWithUv(0.125f, 0.875f));
  expectVecNear(v, d, 1e-6);

  Surface s = surfaceWithUv(0.125f, 0.875f);
  applyNormalNode(node, s);
  const Vec3f n = normalize(d);
  expectVecNear(s.normal, n, 1e-6);
  EXPECT_NEAR(dot(s.tangent, s.normal), 0, 1e-6);
  EXPECT_NEAR(dot(s.bitangent, s.normal), 0, 1e-6);
  EXPECT_NEAR(length(s.tangent), 1, 1e-6);
  EXPECT_NEAR(dot(cross(s.tangent, s.bitangent), s.normal), 1, 1e-5);
}

TEST_F(TextureNodeImage, StoneReplacesTheTextureCoordinates) {
  node.color = {1, 0.5f, 0.25f};
  node.stone.density = 2, node.stone.scale = 1, node.stone.level = 2;
  prepare();
  Surface s = surfaceWithUv(0.9f, 0.9f);
  s.smooth_position = {0.3f, 0.7f, 1.1f};
  const Vec3f stone = evaluateStone(node.stone, s);
  ASSERT_FALSE(stone == zeroVector);
  expectColorNear(evaluateColor(node, s), sampleImage(images[node.image], stone.x, stone.y, node) * node.color);
}

TEST(TextureNode, MissingImageFallsBackToTheColour) {
  quietStartup();
  TextureNode node;
  node.imageName = "no such texture.png";
  node.color = {0.2f, 0.4f, 0.6f};
  const std::string out = captureOutput([&] { prepareNode(node); });
  EXPECT_EQ(out, "error :( image - no such texture.png\tcannot be found\n" + std::string(80, '_') + "\n\n");
  EXPECT_EQ(node.image, -1);
  const Surface s = surfaceWithUv(0.5f, 0.5f);
  EXPECT_EQ(evaluateColor(node, s), node.color);
  EXPECT_EQ(evaluateVector(node, s), Vec3f(0, 0, 1));
  Surface n = s;
  applyNormalNode(node, n);
  EXPECT_EQ(n.normal, Vec3f(0, 0, 1));
}

TEST(TextureNode, FlakeOverridesColourAndTiltsTheNormal) {
  TextureNode node;
  node.color = {0.1f, 0.1f, 0.1f};
  node.flake.color = {1, 1, 1};
  node.flake.density = 2, node.flake.scale = 0.05f;
  prepareNode(node);
  Surface s = surfaceWithUv(0, 0);
  s.position = {0.12f, 0.34f, 0.56f};
  EXPECT_EQ(evaluateColor(node, s), node.flake.color);
  const Vec3f f = evaluateFlake(node.flake, s);
  Vec3f want = normalize(Vec3f{f.x, f.y, f.z + 1});
  if (want.z < 0) want = -want;
  applyNormalNode(node, s);
  expectVecNear(s.normal, want, 1e-6);
  EXPECT_GE(dot(s.normal, s.geometric_normal), 0);
}
