#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <sstream>

#include "frame/renderer.h"
#include "geometry/object.h"
#include "lights/gaffer.h"
#include "lights/sky.h"
#include "output/camera.h"
#include "output/render_loop.h"
#include "qz.h"
#include "tests/regex.h"
#include "tests/test_util.h"

namespace {
const float notANumber = std::numeric_limits<float>::quiet_NaN();
const float inf = std::numeric_limits<float>::infinity();

class RenderLoop : public testing::Test {
 protected:
  void SetUp() override {
    quietStartup();
    qzSetSkyLightColor(0, 0, 0);
    cameras.clear();
    // Each test its own folder: ctest runs them side by side.
    const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    folder = scratchFolder("render-loop-" + name);
  }
  void TearDown() override {
    cameras.clear();
    renderer.preview = false;
    qzSetRendererClamp(3.4e38f, 3.4e38f, 3.4e38f);
    qzSetRendererError(0, 0, 0);
  }

  // A camera whose files go to the scratch folder, prepared quietly.
  int addCamera(int width, int height, int sample) {
    const int c = qzAddCamera();
    qzSetCameraResolution(c, width, height);
    qzSetCameraSample(c, sample);
    qzSetCameraAOVName(c, 0, (folder + "/beauty" + std::to_string(c) + ".pfm").c_str());
    return c;
  }
  void prepare() {
    captureOutput([] { qzInitializeCameras(); });
    renderer.camera = 0;
  }

  std::string folder;
};

// Every sample is black in a world of no objects under a black sky; an upper
// clamp below zero is the one way the loop itself can mark the pixels it touched.
void markRenderedPixels() { qzSetRendererClamp(-1, -2, 0.5f); }
const Color3f marked{-1, -2, 0};
}  // namespace

TEST(RenderSample, NaNAndInfinityBecomeTheErrorColourTheClampLimitsFromAboveAndTheMeanRecovers) {
  renderer.error = {0.25f, 0.5f, 1};
  renderer.clamp = {1, 2, 3};
  EXPECT_EQ(acceptSample({notANumber, 0, 0}), renderer.error);
  EXPECT_EQ(acceptSample({0, inf, 0}), renderer.error);
  EXPECT_EQ(acceptSample({0, 0, -inf}), renderer.error);
  EXPECT_EQ(acceptSample({5, 5, 5}), Color3f(1, 2, 3));
  // No lower limit: negative values pass.
  EXPECT_EQ(acceptSample({-4, 1.5f, 2.5f}), Color3f(-4, 1.5f, 2.5f));

  // In a running mean the error colour, black, pulls by 1/4 in pass 3; later passes pull the mean back.
  renderer.error = black;
  Color3f pixel = black;
  for (int pass = 0; pass < 10; ++pass) {
    pixel = runningMean(pixel, pass == 3 ? acceptSample({notANumber, notANumber, notANumber}) : white, pass);
    if (pass == 3) {
      EXPECT_FLOAT_EQ(pixel.r, 0.75f);
    }
  }
  EXPECT_NEAR(pixel.g, 0.9f, 1e-6);
  renderer.clamp = {infinity, infinity, infinity};
}

TEST_F(RenderLoop, ProgressLinesThenTheClosingReportAndTheFiles) {
  const int c = addCamera(8, 4, 3);
  const int depth = qzAddCameraAOV(c);
  qzSetCameraAOVChannel(c, depth, 0x80000);
  const std::string depthName = folder + "/depth.pfm";
  qzSetCameraAOVName(c, depth, depthName.c_str());
  prepare();
  const std::string text = captureOutput([] { qzRender(); });
  const std::string progress = R"( *(\d+)\[%\]  +\d+\.\d\d\[M rays/s\] \n)";
  const std::string rule = std::string(80, '_') + "\n\n";
  const std::string beauty = folder + "/beauty0.pfm";
  const std::string rows = "avgerage      0.000       0.000       0.000 \\[" + beauty + "\\]\n" +
                           "variance      0.000       0.000       0.000 \\[" + beauty + "\\]\n" +
                           "avgerage      0.000       0.000       0.000 \\[" + depthName + "\\]\n" +
                           "variance      0.000       0.000       0.000 \\[" + depthName + "\\]\n";
  const std::regex report(" 33\\[%\\]  +\\d+\\.\\d\\d\\[M rays/s\\] \n"
                          " 66\\[%\\]  +\\d+\\.\\d\\d\\[M rays/s\\] \n"
                          "100\\[%\\]  +\\d+\\.\\d\\d\\[M rays/s\\] \n" +
                          rule + rows + rule + "rendering time +\\d+\\.\\d{3} \\[seconds\\]\n" + rule);
  EXPECT_TRUE(std::regex_match(text, report)) << text;
  EXPECT_EQ(renderer.pass, 3);
  for (const std::string& name : {beauty, depthName}) {
    Image image;
    image.name = name;
    ASSERT_TRUE(loadImage(image)) << name;
    EXPECT_EQ(image.width, 8);
    EXPECT_EQ(image.height, 4);
  }
}

TEST_F(RenderLoop, NoCameraOrAnEmptyRegionRendersNothing) {
  EXPECT_EQ(captureOutput([] { qzRender(); }), "");
  float pixel[3] = {5, 5, 5};
  qzRenderPixels(1, pixel, 0);
  EXPECT_EQ(pixel[0], 5);

  // An empty region still reports every pass.
  const int c = addCamera(6, 6, 2);
  qzSetCameraRegion(c, 4, 4, 4, 6);
  prepare();
  markRenderedPixels();
  const std::string text = captureOutput([] { qzRender(); });
  EXPECT_EQ(text.substr(0, 50), " 50[%]   0.00[M rays/s] \n100[%]   0.00[M rays/s] \n");
  for (float v : cameras[c].aovs[0].image.floats) EXPECT_EQ(v, 0);
}

TEST_F(RenderLoop, OnlyTheRegionIsRenderedAndRenderPixelsOverAllPassesEqualsIt) {
  const int width = 9, height = 7, sample = 5;
  const int c = addCamera(width, height, sample);
  qzSetCameraRegion(c, 1, 2, 8, 6);
  prepare();
  markRenderedPixels();
  captureOutput([] { qzRender(); });
  const std::vector<float> rendered = cameras[c].aovs[0].image.floats;
  // Only the region is rendered.
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const bool inside = x >= 1 && x < 8 && y >= 2 && y < 6;
      expectColorNear(readPixel(cameras[c].aovs[0].image, y * width + x), inside ? marked : black, 0);
    }

  prepare();
  const int count = 7 * 4;
  std::vector<float> pixels(count * 3, 99);
  for (int pass = sample - 1; pass >= 0; --pass) {
    // Any order of passes: each adds its share.
    EXPECT_EQ(captureOutput([&] { qzRenderPixels(count, pixels.data(), pass); }), "");
    for (int i = 0; i < count; ++i) {
      EXPECT_EQ(pixels[i * 3], marked.r);
      EXPECT_EQ(pixels[i * 3 + 1], marked.g);
      EXPECT_EQ(pixels[i * 3 + 2], marked.b);
    }
  }
  const std::vector<float>& summed = cameras[c].aovs[0].image.floats;
  ASSERT_EQ(summed.size(), rendered.size());
  for (size_t i = 0; i < summed.size(); ++i) EXPECT_NEAR(summed[i], rendered[i], 1e-6) << i;
  // A count that does not match the region copies no more than both hold.
  std::vector<float> few(3 * 3, 7);
  qzRenderPixels(3, few.data(), 0);
  EXPECT_EQ(few[8], marked.b);
}

TEST_F(RenderLoop, MovingGeometryIsPosedAfterEveryPass) {
  addCamera(4, 4, 4);
  // One triangle whose single motion channel moves it by 4 along x over the exposure.
  const int o = qzAddObject();
  const float positions[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0}, start[9] = {}, end[9] = {4, 0, 0, 4, 0, 0, 4, 0, 0};
  const unsigned face[3] = {0, 1, 2};
  qzAddVertexData(o, 3, "position", 3, 3, positions);
  qzAddVertexData(o, 3, "motion", 3, 3, start);
  qzAddVertexData(o, 3, "motion", 3, 3, end);
  qzAddPrimitives(o, 3, 1, face);
  renderer.pass = 0;
  captureOutput([] { qzInitializeAccelerator(); });
  prepare();
  captureOutput([] { qzRender(); });
  // The last pass, 3, left the geometry at its own moment, (3 + 0.5) / 4.
  EXPECT_FLOAT_EQ(objects[0].mesh.worldPositions[0].x, 3.5f);
  qzFinalizeAccelerator();
}

TEST_F(RenderLoop, TheLastPassWritesTheSkyOutputsAndEndsThePointAndParallelLights) {
  addCamera(4, 4, 2);
  qzAddPointLight();
  qzAddParallelLight();
  const std::string skyName = folder + "/sky.pfm";
  qzSetSkyLightAOVName(qzAddSkyLightAOV(), skyName.c_str());
  captureOutput([] {
    prepareSky();
    prepareGaffer();
  });
  prepare();
  renderer.pass = 0;
  captureOutput([] { progressiveStep(); });
  EXPECT_EQ(pointLights.size(), 1u);
  EXPECT_FALSE(std::filesystem::exists(skyName));
  captureOutput([] { progressiveStep(); });
  EXPECT_TRUE(pointLights.empty());
  EXPECT_TRUE(parallelLights.empty());
  EXPECT_TRUE(std::filesystem::exists(skyName));
  EXPECT_TRUE(sky.aovs.empty());
}

TEST_F(RenderLoop, FinalizingCamerasWritesEveryCameraAgain) {
  const int a = addCamera(4, 4, 1);
  const int b = addCamera(2, 2, 1);
  prepare();
  captureOutput([] { qzRender(); });
  const std::string first = folder + "/beauty" + std::to_string(a) + ".pfm";
  const std::string second = folder + "/beauty" + std::to_string(b) + ".pfm";
  EXPECT_TRUE(std::filesystem::exists(first));
  EXPECT_FALSE(std::filesystem::exists(second));
  std::filesystem::remove(first);
  qzFinalizeCameras();
  EXPECT_TRUE(std::filesystem::exists(first));
  EXPECT_TRUE(std::filesystem::exists(second));
  EXPECT_TRUE(cameras.empty());
}

TEST(RenderBlock, RestoresDefaultsThenReadsItsKeysAndTheFinalGather) {
  renderer.sample = 5;
  renderer.radius = 3;
  renderer.final_gather = true;
  std::istringstream file(
      "clamp 4 5 6\n"
      "error 1 0 1\n"
      "gamma 1.8\n"
      "exposure 2\n"
      "image_path \"textures/\"\n"
      "final_gather\n"
      "  ray_depth 3\n  photon_depth 4\n  bounce 2\n  resolution 0.5\n"
      "end\n"
      "end\n");
  readRenderBlock(file);
  EXPECT_EQ(std::tuple(renderer.clamp, renderer.error, renderer.display_gamma, renderer.exposure, renderer.ray_depth),
            std::tuple(Color3f(4, 5, 6), Color3f(1, 0, 1), 1.8f, 2, 3));
  EXPECT_EQ(std::tuple(renderer.photon_depth, renderer.bounce, renderer.resolution), std::tuple(4, 2, 0.5f));
  // Restored, since no key set them again.
  EXPECT_EQ(renderer.sample, 64);
  EXPECT_EQ(renderer.radius, 0);
  EXPECT_FALSE(renderer.final_gather);
  EXPECT_EQ(imageSearchPaths.back(), "textures/");
  renderer.clamp = {infinity, infinity, infinity};
  renderer.error = black;
  renderer.display_gamma = 2.2f;
  restoreRendererDefaults();
}
