#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "frame/renderer.h"
#include "frame/scene_directory.h"
#include "frame/scene_file.h"
#include "output/camera.h"
#include "qz.h"
#include "tests/scene_writer.h"
#include "tests/test_util.h"

namespace {
class SceneDirectory : public testing::Test {
 protected:
  void SetUp() override {
    quietStartup();
    cameras.clear();
    // Each test its own folder: ctest runs them side by side.
    const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    scene = scratchFolder("scene-directory-" + name) + "/";
  }
  void TearDown() override {
    cameras.clear();
    restoreRendererDefaults();
  }
  std::string load() {
    const std::string d = scene;
    return captureOutput([&] { qzLoadScene(d.c_str()); });
  }
  std::string scene;
};
}  // namespace

TEST_F(SceneDirectory, FoldersAreReadInOrderAndAnyBlockStandsInAnyFolder) {
  // The camera folder is read after the render folder, so its render block wins.
  writeSceneFile(scene + "camera", "b.qz", "render\nclamp 2 2 2\nend\n" + stillCamera("resolution 32 16\n"));
  writeSceneFile(scene + "render", "a.qz", "render\nclamp 1 1 1\nfinal_gather\nsample 12\nend\nend\n");
  writeSceneFile(scene + "shader", "first.qz", stillCamera("resolution 8 8\n"));
  writeSceneFile(scene + "geometry", "not-a-scene.txt", "camera\nend\n");
  const std::string text = load();
  EXPECT_TRUE(text.starts_with("scene loading ")) << text;
  EXPECT_TRUE(text.ends_with(" [seconds]\n" + std::string(80, '_') + "\n\n")) << text;
  ASSERT_EQ(cameras.size(), 2u);
  EXPECT_EQ(std::tuple(cameras[0].width, cameras[1].width, renderer.clamp), std::tuple(8, 32, Color3f(2, 2, 2)));
  // The later render block restored what the earlier one had set.
  EXPECT_EQ(renderer.sample, 64);
  EXPECT_EQ(sceneDirectory, scene);
  ASSERT_GE(imageSearchPaths.size(), 2u);
  EXPECT_EQ(std::tuple(imageSearchPaths[0], imageSearchPaths[1], geometrySearchPaths),
            std::tuple(scene + "image", scene, (std::vector<std::string>{scene + "geometry", scene, ""})));
  renderer.clamp = {infinity, infinity, infinity};
}

TEST_F(SceneDirectory, EmptyOrMissingDirectoryReadsNothing) {
  const std::string text = captureOutput([] { qzLoadScene("/nonexistent/quazel/"); });
  EXPECT_TRUE(text.starts_with("scene loading ")) << text;
  EXPECT_TRUE(cameras.empty());
  // Without a trailing separator the search folders are stuck to the name.
  captureOutput([] { qzLoadScene("/tmp/scene"); });
  EXPECT_EQ(imageSearchPaths[0], "/tmp/sceneimage");
}

TEST_F(SceneDirectory, TopLevelGrammar) {
  writeSceneFile(scene + "camera", "grammar.qz",
                 "# a comment line\n"
                 "\n"
                 "   # after blanks: an unknown word\n"
                 "lens 1 2 3\n"
                 "camera with words after the keyword\n"
                 "  resolution 10 20\n"
                 "  # sample 99\n"
                 "  lens\n"       // an unknown sub-block: its end closes the camera
                 "    sample 5\n"  // read as the camera's own key
                 "  end\n"
                 "  sample 7\n"   // top level again: an unknown word
                 "Camera\n"       // wrong case: unknown, its keys are top-level words
                 "  resolution 99 99\n"
                 "end\n"
                 "camera\n"
                 "  resolution 3 4\n");  // the file ends inside the block
  load();
  ASSERT_EQ(cameras.size(), 2u);
  EXPECT_EQ(std::tuple(cameras[0].width, cameras[0].height, cameras[0].sample, cameras[1].width, cameras[1].height),
            std::tuple(10, 20, 5, 3, 4));
}

TEST_F(SceneDirectory, QuotedStringsAndLongLines) {
  const std::string longName(4095 - 13, 'n');
  const std::string longLine = "  image \"" + longName + "\"";
  ASSERT_EQ(longLine.size(), 4092u);
  writeSceneFile(scene + "camera", "strings.qz",
                 "camera\n"
                 "  aov\n"
                 "    image \"my renders/depth map.pfm\"\n"
                 "    type \"depth\"\n"
                 "  end\n"
                 "  aov\n" +
                     longLine + std::string(3, ' ') + "\n" +  // exactly 4095 characters
                     "    type \"uv\" ignored words\n"
                     "  end\n"
                     "  sample 3\n"
                     "end\n");
  load();
  ASSERT_EQ(cameras.size(), 1u);
  ASSERT_EQ(cameras[0].aovs.size(), 3u);
  EXPECT_EQ(std::tuple(cameras[0].aovs[1].image.name, cameras[0].aovs[2].image.name, cameras[0].aovs[2].user_data_name),
            std::tuple("my renders/depth map.pfm", longName, "uv"));
  EXPECT_EQ(cameras[0].sample, 3);
}

TEST_F(SceneDirectory, NumbersThatDoNotParseStopTheirLine) {
  writeSceneFile(scene + "camera", "numbers.qz",
                 "camera\n"
                 "  resolution abc 12\n"
                 "  region 1 2 x 4\n"
                 "  sample 6.9\n"
                 "  ior\n"
                 "end\n");
  load();
  ASSERT_EQ(cameras.size(), 1u);
  // A failed number reads as 0 and leaves the rest of its line unread.
  EXPECT_EQ(std::tuple(cameras[0].width, cameras[0].height, cameras[0].region.min_x, cameras[0].region.min_y),
            std::tuple(0, 540, 1, 2));
  EXPECT_EQ(std::tuple(cameras[0].region.max_x, cameras[0].region.max_y, cameras[0].sample), std::tuple(0, 1048576, 6));
  // A key with nothing after it leaves its value alone.
  EXPECT_EQ(cameras[0].ior, 1);
}

TEST_F(SceneDirectory, MalformedFilesAreReadWithoutACrash) {
  std::mt19937 random(7);
  std::string garbage(200000, '\0');
  for (char& c : garbage) c = char(random());
  // Binary garbage, sprinkled with block keywords so that readers run over it.
  for (size_t i = 0; i < garbage.size(); i += 997) garbage.replace(i, 12, "\ncamera\naov\n");
  writeSceneFile(scene + "camera", "garbage.qz", garbage);
  writeSceneFile(scene + "camera", "long.qz", "camera\n  resolution 4 4" + std::string(1 << 20, ' ') + "9\n" +
                                                  "  image \"" + std::string(1 << 20, 'x') + "\nend\n");
  writeSceneFile(scene + "render", "unbalanced.qz",
                 "end\nend\nrender\nfinal_gather\nfinal_gather\nend\n\"\"\"\nclamp 1e99 -1e99 nan\n"
                 "gamma inf\nerror 1 2\nend\nend\nend\ncamera\npose\npose\npose\naov\n");
  writeSceneFile(scene + "light", "empty.qz", "");
  load();
  ASSERT_FALSE(cameras.empty());
  // Whatever was read can be prepared and rendered.
  for (Camera& camera : cameras) {
    camera.width = std::min(std::max(camera.width, 0), 16);
    camera.height = std::min(std::max(camera.height, 0), 16);
    camera.sample = 1;
    for (CameraAOV& aov : camera.aovs) aov.image.name.clear();
  }
  captureOutput([] {
    qzInitializeCameras();
    qzRender();
  });
}
