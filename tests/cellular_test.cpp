// The cellular noise and the flake and stone layers, pinned against
// data/cellular_reference.txt. That file is the output of
// data/cellular_reference.py, which computes the hash, the distances (with the
// running sum of the outer ring), the spiral and the stone sums from the
// formulas alone, in Python integers and doubles.
#include "shading/cellular.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "shading/flake_stone.h"

namespace {
std::vector<std::string> referenceLines(const std::string& kind) {
  std::ifstream file("data/cellular_reference.txt");
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(file, line))
    if (line.rfind(kind + " ", 0) == 0) lines.push_back(line.substr(kind.size() + 1));
  return lines;
}

Surface surfaceAt(Vec3f position, uint32_t seed) {
  Surface s;
  s.position = s.smooth_position = position;
  s.view = {0, 0, 1};
  s.instance_id = seed;
  return s;
}
}  // namespace

TEST(CellHash, MatchesTheReferenceWords) {
  const auto lines = referenceLines("hash");
  ASSERT_EQ(lines.size(), 5u);
  for (const std::string& line : lines) {
    std::istringstream in(line);
    int64_t x, y, z;
    uint32_t seed, expected[4], words[4];
    in >> x >> y >> z >> seed >> expected[0] >> expected[1] >> expected[2] >> expected[3];
    cellHashWords(uint32_t(x), uint32_t(y), uint32_t(z), seed, words);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(words[i], expected[i]) << line;
    float scaled[4];
    cellHash(uint32_t(x), uint32_t(y), uint32_t(z), seed, scaled);
    for (int i = 0; i < 4; ++i) EXPECT_FLOAT_EQ(scaled[i], float(expected[i]) * 2.3283064e-10f);
  }
}

TEST(Cellular, MatchesTheReferenceDistancesAndFeatures) {
  const auto lines = referenceLines("cell");
  ASSERT_EQ(lines.size(), 20u);
  int outerWins = 0, outerSearches = 0;
  CellNoise shared;  // reused across points, as a render thread does
  for (const std::string& line : lines) {
    std::istringstream in(line);
    Vec3f p;
    uint32_t seed;
    float d, feature[4];
    int outer;
    in >> p.x >> p.y >> p.z >> seed >> d >> feature[0] >> feature[1] >> feature[2] >> feature[3] >> outer;
    outerWins += outer;
    outerSearches += outer || d == 1.0f;
    for (int pass = 0; pass < 2; ++pass) {
      CellNoise fresh;
      float got[4];
      const float distance = cellular(pass == 0 ? fresh : shared, p, seed, got);
      EXPECT_NEAR(distance, d, 2e-5) << line;
      for (int i = 0; i < 4; ++i) EXPECT_NEAR(got[i], feature[i], 1e-6) << line;
    }
  }
  // The reference covers both rare branches of the outer ring.
  EXPECT_EQ(outerWins, 2);
  EXPECT_EQ(outerSearches, 5);
}

TEST(Cellular, CachedCellServesTheSameAnswer) {
  CellNoise noise;
  float a[4], b[4];
  const Vec3f p{3.2f, -1.7f, 0.4f};
  const float first = cellular(noise, p, 5, a);
  cellular(noise, {3.9f, -1.1f, 0.9f}, 5, b);  // same cell, other point
  EXPECT_EQ(cellular(noise, p, 5, b), first);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(a[i], b[i]);
  // Another seed in the same cell gets its own points.
  CellNoise other;
  float c[4];
  EXPECT_EQ(cellular(noise, p, 6, b), cellular(other, p, 6, c));
}

TEST(GoldenDirection, FollowsTheSpiral) {
  for (const std::string& line : referenceLines("golden")) {
    std::istringstream in(line);
    float t, x, y, z;
    in >> t >> x >> y >> z;
    const Vec3f v = goldenDirection(t);
    EXPECT_NEAR(v.x, x, 1e-5) << line;
    EXPECT_NEAR(v.y, y, 1e-5) << line;
    EXPECT_NEAR(v.z, z, 1e-6) << line;
  }
}

TEST(Stone, SumsTheLevelsAsTheReference) {
  const auto lines = referenceLines("stone");
  ASSERT_EQ(lines.size(), 2u);
  for (const std::string& line : lines) {
    std::istringstream in(line);
    Vec3f p, expected;
    uint32_t seed;
    StoneLayer stone;
    in >> p.x >> p.y >> p.z >> seed >> stone.weathering >> stone.density >> stone.scale >> stone.level >> expected.x >>
        expected.y >> expected.z;
    prepareLayer(stone);
    const Vec3f got = evaluateStone(stone, surfaceAt(p, seed));
    EXPECT_NEAR(got.x, expected.x, 1e-5) << line;
    EXPECT_NEAR(got.y, expected.y, 1e-5) << line;
    EXPECT_EQ(got.z, got.y);
  }
  StoneLayer off;
  off.level = 3, off.scale = 1;
  EXPECT_EQ(evaluateStone(off, surfaceAt({0.5f, 0.5f, 0.5f}, 0)), zeroVector);
}

TEST(Flake, DenseLayersGiveUnitDirectionsLookupsAreCachedAndIdsHashTheValues) {
  FlakeLayer dense;
  dense.density = 2, dense.scale = 0.25f;
  prepareLayer(dense);
  for (int i = 0; i < 50; ++i)
    EXPECT_NEAR(length(evaluateFlake(dense, surfaceAt({i * 0.37f, -i * 0.11f, 1.5f}, 3))), 1.0f, 1e-5);
  dense.density = 0;
  EXPECT_EQ(evaluateFlake(dense, surfaceAt({1, 2, 3}, 0)), zeroVector);

  FlakeLayer flake;
  flake.density = 2, flake.scale = 0.5f, flake.depth = 0;
  prepareLayer(flake);
  const Surface at = surfaceAt({0.3f, 0.6f, 0.9f}, 11);
  const Vec3f first = evaluateFlake(flake, at);
  ASSERT_FALSE(first == zeroVector);
  // Changing the layer without preparing it again keeps its id: the cached
  // result comes back although a fresh lookup would now find nothing.
  flake.density = 1e-9f;
  EXPECT_EQ(evaluateFlake(flake, at), first);
  EXPECT_EQ(evaluateFlake(flake, surfaceAt({0.31f, 0.6f, 0.9f}, 11)), zeroVector);

  FlakeLayer a, b, c;
  a.density = b.density = c.density = 0.4f;
  a.scale = b.scale = c.scale = 0.1f;
  c.depth = 0.2f;
  prepareLayer(a), prepareLayer(b), prepareLayer(c);
  EXPECT_EQ(a.id, b.id);
  EXPECT_NE(a.id, c.id);
  FlakeLayer off;
  off.id = 77, off.scale = 0.1f;
  prepareLayer(off);
  EXPECT_EQ(off.id, 77);  // a switched-off layer keeps its id
}
