#include <gtest/gtest.h>

#include <omp.h>

#include <regex>

#include "frame/renderer.h"
#include "frame/sampling.h"
#include "qz.h"
#include "tests/test_util.h"

namespace {
const std::string rule = std::string(80, '_') + "\n\n";
}

TEST(Lifecycle, StartupAndShutdownPrintTheBannerAndThreadRows) {
  std::string text = captureOutput([] {
    qzStartup();
    qzShutdown();
  });
  const std::string threads = std::to_string(omp_get_max_threads());
  const std::string processors = std::to_string(omp_get_num_procs());
  const std::string expected = rule + "            quazel " + __DATE__ + " - physically based rendering\n" + rule +
                               "number of threads " + std::string(10 - threads.size(), ' ') + threads + " [n/a]\n" +
                               "number of processors " + std::string(10 - processors.size(), ' ') + processors +
                               " [n/a]\n" + rule;
  EXPECT_EQ(text, expected);
  EXPECT_FALSE(numberTablesBuilt());
}

TEST(Lifecycle, RendererPreparationClampsAndReportsAndStartupRestoresTheDefaults) {
  quietStartup();
  qzSetRendererClamp(-1, 5, -2);
  qzSetRendererRayDepth(0);
  qzSetRendererPhotonDepth(-3);
  qzSetRendererSample(12);
  std::string text = captureOutput([] { qzInitializeRenderer(); });
  EXPECT_EQ(std::tuple(renderer.clamp, renderer.ray_depth, renderer.photon_depth, renderer.sky_light_sample),
            std::tuple((Color3f{0, 5, 0}), 1, 1, 12));
  EXPECT_EQ(std::tuple(renderer.geometry_light_sample, text),
            std::tuple(12, "renderer sample         12 [n/a]\n" + rule));
  // A final gather switched on stays on until finalisation clears it.
  qzSetRendererResolution(0.5f);
  captureOutput([] { qzInitializeRenderer(); });
  EXPECT_TRUE(renderer.final_gather);
  qzSetRendererResolution(0);
  captureOutput([] { qzInitializeRenderer(); });
  EXPECT_TRUE(renderer.final_gather);
  qzFinalizeRenderer();
  EXPECT_FALSE(renderer.final_gather);
  EXPECT_EQ(renderer.sample, 64);
  // Clamp, error and gamma survive finalisation.
  EXPECT_EQ(renderer.clamp, (Color3f{0, 5, 0}));

  // Startup restores the defaults.
  qzSetRendererSample(3);
  qzSetRendererBounce(9);
  qzSetRendererRadius(2);
  qzSetRendererRayDepth(30);
  quietStartup();
  EXPECT_EQ(std::tuple(renderer.sample, renderer.bounce, renderer.radius, renderer.ray_depth, renderer.photon_depth),
            std::tuple(64, 1, 0, 8, 16));
  EXPECT_TRUE(numberTablesBuilt());
}

TEST(Lifecycle, IgnoredExportsChangeNothing) {
  quietStartup();
  std::string text = captureOutput([] {
    qzLoadFile(nullptr);
    qzLoadFile("anything");
    qzSaveBeauty(nullptr);
    qzSetCameraName(3, nullptr);
  });
  EXPECT_EQ(text, "");
}
