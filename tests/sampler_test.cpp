// The sobol sampler: its sequence keeps the strata it promises, its renders
// come out the same for the same seed on any thread count and in any tile,
// and renders that end early (noise threshold, time limit) finish their outputs.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "frame/renderer.h"
#include "frame/sequence.h"
#include "lights/gaffer.h"
#include "output/adaptive_sampling.h"
#include "output/camera.h"
#include "shading/shader.h"
#include "qz.h"
#include "tests/path_fixture.h"
#include "tests/test_util.h"

namespace {

std::vector<std::string> matchingLines(const std::string& text, const std::string& part) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = std::min(text.find('\n', start), text.size());
    const std::string line = text.substr(start, end - start);
    if (line.find(part) != std::string::npos) lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

// Every elementary box of area 2^-m (2^a by 2^(m-a) cells) holds exactly one
// of the first 2^m points.
bool isNet(const std::vector<float>& x, const std::vector<float>& y, int m) {
  for (int a = 0; a <= m; ++a) {
    std::vector<int> cells(size_t(1) << m, 0);
    for (size_t i = 0; i < x.size(); ++i) {
      const int cx = int(x[i] * float(1 << a)), cy = int(y[i] * float(1 << (m - a)));
      if (++cells[size_t(cx * (1 << (m - a)) + cy)] > 1) return false;
    }
  }
  return true;
}

TEST(SobolSequence, PowerOfTwoPrefixesAreStratifiedAndPixelsAreIndependent) {
  for (uint32_t scramble : {0u, 1u, 0xdeadbeefu, pixelScramble(5, 1234)})
    for (uint32_t dimension : {0u, 1u, 9u, 12u, 70u}) {
      for (int m : {2, 5, 8}) {
        std::vector<float> x, y, z;
        for (uint32_t i = 0; i < (1u << m); ++i) {
          float u1, u2;
          sobolPair({i, dimension, scramble}, u1, u2);
          ASSERT_TRUE(u1 >= 0 && u1 < 1 && u2 >= 0 && u2 < 1);
          x.push_back(u1), y.push_back(u2), z.push_back(sobolNumber({i, dimension, scramble}));
        }
        // The light's pair shares a Sobol point with the pixel position: strata
        // in each of its coordinates, not a net of the pair.
        if (dimension != decideLightPoint) {
          EXPECT_TRUE(isNet(x, y, m)) << "scramble " << scramble << " dimension " << dimension << " m " << m;
        }
        // One dimension alone: one point in each 2^-m stratum.
        for (const std::vector<float>* coordinate : {&x, &y, &z}) {
          std::vector<int> strata(size_t(1) << m, 0);
          for (float v : *coordinate) ++strata[size_t(v * float(1 << m))];
          EXPECT_EQ(*std::max_element(strata.begin(), strata.end()), 1);
        }
      }
    }
  // Across pixels the first points are uniform and two dimensions uncorrelated.
  const int n = 1 << 14;
  double mean = 0, product = 0;
  for (int p = 0; p < n; ++p) {
    const uint32_t scramble = pixelScramble(7, uint32_t(p));
    const float a = sobolNumber({0, decideVolumeDistance, scramble}), b = sobolNumber({0, 40, scramble});
    mean += a, product += (a - 0.5) * (b - 0.5);
  }
  EXPECT_NEAR(mean / n, 0.5, 4 * std::sqrt(1.0 / 12 / n));
  EXPECT_NEAR(product / n, 0.0, 4 * (1.0 / 12) / std::sqrt(double(n)));
  // Seeds change the numbers.
  EXPECT_NE(sobolNumber({0, 3, pixelScramble(1, 0)}), sobolNumber({0, 3, pixelScramble(2, 0)}));
}

// The example with glass, photons through it and a geometry light, small.
class SeededRender : public testing::Test {
 protected:
  struct Frame {
    std::vector<float> pixels;
    std::string report;
  };
  static Frame render(int threads, int y0, int y1) {
    Frame frame;
    const int previous = omp_get_max_threads();
    omp_set_num_threads(threads);
    const char* source = std::getenv("QZ_SOURCE_DIR");
    const std::string directory = std::string(source ? source : "../..") + "/scenes/materials/";
    frame.report = captureOutput([&] {
      qzStartup();
      qzLoadScene(directory.c_str());
      qzSetRendererSampler(1);
      qzSetRendererSeed(99);
      for (size_t i = 0; i < pointLights.size(); ++i) qzSetPointLightPhoton(int(i), 20000);
      qzSetCameraResolution(0, 40, 30);
      qzSetCameraRegion(0, 0, y0, 40, y1);
      qzSetCameraSample(0, 3);
      qzSetCameraAOVName(0, 0, "");
      qzInitialize();
      qzRender();
      if (!cameras.empty()) frame.pixels = cameras[0].aovs[0].image.floats;
      qzFinalize();
      qzShutdown();
    });
    omp_set_num_threads(previous);
    return frame;
  }
};

TEST_F(SeededRender, SameSeedSameBitsOnOneAndTwoThreadsAndATileIsItsBand) {
  const Frame one = render(1, 0, 30), two = render(2, 0, 30), tile = render(2, 11, 19);
  ASSERT_EQ(one.pixels.size(), size_t(40 * 30 * 3));
  ASSERT_NE(one.report.find("photon sotred"), std::string::npos);
  EXPECT_EQ(std::memcmp(one.pixels.data(), two.pixels.data(), one.pixels.size() * sizeof(float)), 0);
  const size_t row = 40 * 3;
  ASSERT_EQ(tile.pixels.size(), one.pixels.size());
  EXPECT_EQ(std::memcmp(tile.pixels.data() + 11 * row, one.pixels.data() + 11 * row, 8 * row * sizeof(float)), 0);
  double lit = 0;
  for (float v : one.pixels) lit += v;
  EXPECT_GT(lit, 0);
}

// Left half: an emitter seen directly, with no noise at all. Right half: a
// floor under a blurred point light, noisy. Every pixel also writes its normal.
class EarlyEnd : public PathTest {
 protected:
  void SetUp() override {
    PathTest::SetUp();
    qzSetRendererSampler(1);
    const int glow = addShader(emissionChannel, {0.5f, 0.5f, 0.5f});
    const int floor = addShader(diffuseChannel, {0.8f, 0.8f, 0.8f});
    // Both reach past the view, so that no pixel sees an edge.
    addQuad(glow, {-1.5f, 0, 0}, {1.5f, 0, 0}, {0, 0, -3});
    addQuad(floor, {1.5f, 0, 0}, {1.5f, 0, 0}, {0, 0, -3});
    const int light = qzAddPointLight();
    qzSetPointLightPosition(light, 1, 1, 0);
    qzSetPointLightColor(light, 1, 1, 1);
    qzSetPointLightBlur(light, 0.9f);
    addCamera(16, 64, {0, 3, 0}, {0, 0, 0}, 60, {0, 0, -1});
    normals = addAOV(0, 0x10000);
  }
  // Mean of the normal output, whose every pixel faces straight up: (0.5, 1, 0.5).
  Color3f meanNormal() const { return meanPixel(normals); }
  int normals = 0;
};

TEST_F(EarlyEnd, NoiseThresholdStopsTheQuietHalfFirstAndCompletesTheOutputs) {
  qzSetRendererNoiseThreshold(0.02f);
  qzSetRendererMinPasses(8);
  const std::string report = render();
  // The emitter's pixels stop after the minimum; the floor's take more passes.
  const size_t first = report.find("[active pixels]");
  ASSERT_NE(first, std::string::npos) << report;
  const std::vector<std::string> lines = matchingLines(report, "[active pixels]");
  ASSERT_GE(lines.size(), 9u);
  const auto active = [](const std::string& line) {
    return std::atoi(line.substr(line.find("[M rays/s]") + 10).c_str());
  };
  EXPECT_EQ(active(lines[6]), active(lines[0]));
  EXPECT_LT(active(lines[7]), active(lines[6]));
  EXPECT_GT(active(lines[7]), 0);
  // The last pass traced the floor's active pixels alone: three rays each (camera ray and children);
  // the emitter's 128 stopped pixels would add one each.
  EXPECT_LE(closestRays(), 3u * uint64_t(active(lines.back())));
  expectColorNear(meanNormal(), {0.5f, 1, 0.5f}, 1e-4f);
}

// A pixel stops only with its neighbours; neighbours outside the region are
// not asked.
TEST(PixelNoise, APixelStopsWhenItAndItsNeighboursHaveConverged) {
  pixelNoise.converged = {1, 1, 1, 1,  //
                          1, 1, 1, 0,  //
                          1, 1, 1, 1};
  pixelNoise.stopped = {0, 0, 0, 0,  //
                        0, 0, 0, 0,  //
                        0, 0, 0, 1};
  EXPECT_EQ(settlePixelNoise({.min_x = 0, .max_x = 4, .max_y = 3, .min_y = 0}, 4), 5);
  EXPECT_EQ(pixelNoise.stopped, (std::vector<uint8_t>{1, 1, 0, 0, 1, 1, 0, 0, 1, 1, 0, 1}));
  // The column beside the unsettled pixel, cut off by the region, stops.
  pixelNoise.stopped.assign(12, 0);
  EXPECT_EQ(settlePixelNoise({.min_x = 0, .max_x = 2, .max_y = 3, .min_y = 0}, 4), 0);
  EXPECT_EQ(pixelNoise.stopped[1], 1);
  freePixelNoise();
}

TEST_F(EarlyEnd, TimeLimitEndsAfterAWholePassWithFinishedOutputs) {
  qzSetRendererTimeLimit(1e-6);
  const std::string report = render();
  EXPECT_NE(report.find("rendering passes"), std::string::npos) << report;
  EXPECT_EQ(matchingLines(report, "[M rays/s]").size(), 1u);
  expectColorNear(meanNormal(), {0.5f, 1, 0.5f}, 1e-4f);
}

}  // namespace
