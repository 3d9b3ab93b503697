#include "tests/light_fixture.h"
#include "tests/scene_writer.h"

TEST_F(LightTest, LightsArePreparedInTheirPlaceAndFreedByFinalisation) {
  const std::string d = scratchFolder("light-lifecycle") + "/";
  writeSceneFile(d + "light", "lights.qz",
                 "sky_light\n color 0.1 0.2 0.3\n sample 5\nend\n"
                 "point_light\n position 0 3 0\n link\n  shader \"nothing\"\n end\nend\n"
                 "parallel_light\n direction 0 -1 0\nend\n"
                 "parallel_light\n direction 1 -1 0\nend\n");
  writeSceneFile(d + "camera", "camera.qz", stillCamera("  resolution 4 2\n  sample 1\n"));
  captureOutput([&] { qzLoadScene(d.c_str()); });
  ASSERT_EQ(pointLights.size(), 1u);
  ASSERT_EQ(parallelLights.size(), 2u);
  EXPECT_EQ(sky.sample, 5);

  const std::string out = captureOutput([] { qzInitialize(); });
  const size_t skyRows = out.find("sky light  width"), parallelRow = out.find("parallel lights");
  const size_t pointRow = out.find("point    lights"), rendererRow = out.find("renderer sample");
  ASSERT_NE(skyRows, std::string::npos) << out;
  EXPECT_LT(out.find("framebuffers"), skyRows);
  EXPECT_LT(skyRows, parallelRow);
  EXPECT_LT(parallelRow, pointRow);
  EXPECT_LT(pointRow, rendererRow);
  EXPECT_EQ(pointLights[0].link.shaders, std::vector<int>{0});
  EXPECT_NEAR(parallelLights[1].frame.normal.x, std::sqrt(0.5f), 1e-6);

  captureOutput([] { qzFinalize(); });
  EXPECT_TRUE(pointLights.empty());
  EXPECT_TRUE(parallelLights.empty());
  EXPECT_FALSE(sky.image.loaded);
  // The sky keeps its settings until the next startup restores them.
  EXPECT_EQ(sky.color, Color3f(0.1f, 0.2f, 0.3f));
  quietStartup();
  EXPECT_EQ(sky.color, Color3f(0.75f, 0.75f, 0.75f));
}
