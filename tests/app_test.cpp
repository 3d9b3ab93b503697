// The quazel command, run as a separate process in a scratch folder.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "tests/command_fixture.h"
#include "tests/regex.h"
#include "tests/scene_writer.h"

namespace fs = std::filesystem;

namespace {
struct Outcome {
  int status;
  std::string out, err;
};

// Runs the command with its working directory in `folder`.
Outcome quazel(const std::string& folder, const std::string& arguments) {
  const ShellOutcome run = shell("cd '" + folder + "' && '" + quazelBinary() + "' " + arguments + " 2>err.txt");
  return {run.status, run.out, readFile(folder + "/err.txt")};
}

std::vector<std::string> beautyFiles(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder))
    if (std::regex_match(entry.path().filename().string(), std::regex(R"(beauty-\d{8}-\d{6}\.hdr)")))
      names.push_back(entry.path().string());
  return names;
}

}  // namespace

TEST(QuazelCommand, RendersASceneDirectoryWithItsReportAndImages) {
  const std::string work = scratchFolder("app-render");
  const std::string scene = work + "/scene";
  writeSceneFile(scene + "/camera", "camera.qz",
                 stillCamera("  resolution 64 32\n  sample 4\n  aov\n    type \"depth\"\n"
                             "    image \"depth.pfm\"\n  end\n"));
  // No trailing separator: the command adds it.
  const Outcome run = quazel(work, "scene");
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  const std::string rule = std::string(80, '_') + "\n\n";
  const std::string rate = R"(\[%\]  +\d+\.\d\d\[M rays/s\] \n)";
  const std::string row = R"( +\d+\.\d{3}  +\d+\.\d{3}  +\d+\.\d{3} )";
  const std::regex closing(" 25" + rate + " 50" + rate + " 75" + rate + "100" + rate + rule +
                           "avgerage" + row + R"(\[beauty-\d{8}-\d{6}\.hdr\]\n)" + "variance" + row +
                           R"(\[beauty-\d{8}-\d{6}\.hdr\]\n)" + "avgerage" + row + R"(\[depth\.pfm\]\n)" +
                           "variance" + row + R"(\[depth\.pfm\]\n)" + rule + R"(rendering time +\d+\.\d{3} \[seconds\]\n)" +
                           rule);
  std::smatch match;
  EXPECT_TRUE(std::regex_search(run.out, match, closing)) << run.out;
  EXPECT_NE(run.out.find("framebuffers      0.047 [M bytes]"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("quazel: images are in "), std::string::npos) << run.out;

  const std::vector<std::string> beauty = beautyFiles(work);
  ASSERT_EQ(beauty.size(), 1u);
  for (const std::string& name : {beauty[0], work + "/depth.pfm"}) {
    quietStartup();
    const Image image = loadStoredImage(name);
    EXPECT_EQ(image.width, 64) << name;
    EXPECT_EQ(image.height, 32) << name;
  }
}

TEST(QuazelCommand, WithoutArgumentRendersTheExampleAndSaysWhere) {
  const std::string work = scratchFolder("app-example");
  const Outcome run = quazel(work, "");
  ASSERT_EQ(run.status, 0) << run.out << run.err;
  EXPECT_NE(run.out.find("rendering the example scene"), std::string::npos) << run.out;
  const std::vector<std::string> beauty = beautyFiles(work);
  ASSERT_EQ(beauty.size(), 1u);
  EXPECT_NE(run.out.find("quazel: images are in " + fs::canonical(work).string() + "/\n"), std::string::npos)
      << run.out;
  EXPECT_NE(run.out.find("  " + fs::path(beauty[0]).filename().string() + "\n"), std::string::npos) << run.out;
}

TEST(QuazelCommand, HelpMissingDirectoryAndStrayArguments) {
  const std::string work = scratchFolder("app-arguments");
  Outcome run = quazel(work, "--help");
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(run.out.starts_with("usage: quazel [OPTIONS] [SCENE_DIR | MODEL_FILE]")) << run.out;
  run = quazel(work, "no-such-scene");
  EXPECT_NE(run.status, 0);
  EXPECT_NE(run.err.find("no-such-scene"), std::string::npos) << run.err;
  EXPECT_EQ(run.out, "");
  // A preview without a display is refused before any work.
  unsetenv("DISPLAY");
  run = quazel(work, "--preview");
  EXPECT_NE(run.status, 0);
  EXPECT_NE(run.err.find("DISPLAY"), std::string::npos) << run.err;
  EXPECT_EQ(run.out, "");
  run = quazel(work, "--fast");
  EXPECT_NE(run.status, 0);
  EXPECT_NE(run.err.find("--fast"), std::string::npos) << run.err;
  EXPECT_TRUE(beautyFiles(work).empty());
}

TEST(QuazelCommand, FarmOptionsRefuseBadValuesBeforeAnythingRenders) {
  const std::string work = scratchFolder("app-farm-refusals");
  writeSceneFile(work + "/scene/camera", "camera.qz", stillCamera("  resolution 64 32\n  sample 2\n"));
  std::ofstream(work + "/blocker") << "a file where a folder should be";
  const std::pair<std::string, std::string> cases[] = {
      {"--tile 5/4 scene", "quazel: --tile 5/4: the tile index must be 1 to 4"},
      {"--tile 1/0 scene", "quazel: --tile 1/0: the number of tiles must be at least 1"},
      {"--region 0 0 65 10 scene", "quazel: --region 0 0 65 10 lies outside the 64x32 image"},
      {"--resolution 8 8 --region 0 0 8 9 scene", "quazel: --region 0 0 8 9 lies outside the 8x8 image"},
      {"--tile 1/33 scene", "quazel: --tile 1/33: the region has only 32 rows"},
      {"-o blocker/out scene", "quazel: -o blocker/out: the folder cannot be made"},
      {"--samples 0 scene", "quazel: --samples must be at least 1"},
  };
  for (const auto& [arguments, message] : cases) {
    const Outcome run = quazel(work, arguments);
    EXPECT_EQ(run.status, 2) << arguments;
    EXPECT_TRUE(run.err.starts_with(message)) << arguments << "\n" << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_EQ(run.out.find("rendering time"), std::string::npos) << run.out;
  }
  EXPECT_TRUE(beautyFiles(work).empty());
}

TEST(QuazelCommand, TilesRenderTheirBandsIntoFoldersAndMergeIntoTheFrame) {
  const std::string work = scratchFolder("app-farm-tiles");
  // A grey sky everywhere: every rendered pixel is lit, every other one black.
  writeSceneFile(work + "/scene/camera", "camera.qz", stillCamera("  resolution 64 32\n  sample 9\n"));
  writeSceneFile(work + "/scene/light", "sky.qz", "sky_light\n  color 0.5 0.5 0.5\nend\n");
  const int width = 256, height = 128;
  quietStartup();  // for the image reader
  auto lit = [&](const Image& image, int x, int y) { return image.floats[size_t(y * width + x) * 3] > 0; };
  std::string tiles;
  for (int i = 1; i <= 3; ++i) {
    const std::string folder = "out/tile-" + std::to_string(i);
    const Outcome run =
        quazel(work, "--tile " + std::to_string(i) + "/3 --resolution 256 128 --samples 2 -o " + folder + " scene");
    ASSERT_EQ(run.status, 0) << run.out << run.err;
    // Two passes, and framebuffers of the overriding size: 256 x 128 x 12 bytes.
    EXPECT_NE(run.out.find(" 50[%]"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find(" 25[%]"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("framebuffers      0.375 [M bytes]"), std::string::npos) << run.out;
    EXPECT_EQ(readFile(work + "/" + folder + "/quazel-tile.txt"),
              "tile " + std::to_string(i) + " of 3\nframe 256 128\nregion 0 0 256 128\npixels 0 " +
                  std::to_string((i - 1) * 128 / 3) + " 256 " + std::to_string(i * 128 / 3) + "\n");
    // The time-stamped default name would differ from tile to tile.
    const Image beauty = loadStoredImage(work + "/" + folder + "/beauty.hdr");
    ASSERT_EQ(beauty.width, width);
    ASSERT_EQ(beauty.height, height);
    EXPECT_TRUE(fs::exists(work + "/" + folder + "/beauty.png"));
    for (int y = 0; y < height; ++y)
      ASSERT_EQ(lit(beauty, 100, y), y >= (i - 1) * 128 / 3 && y < i * 128 / 3) << "tile " << i << " row " << y;
    tiles += " " + folder;
  }
  EXPECT_TRUE(beautyFiles(work).empty());
  const Outcome merged = quazel(work, "merge -o out/frame" + tiles);
  ASSERT_EQ(merged.status, 0) << merged.err;
  EXPECT_EQ(merged.out, "quazel: merged 3 tiles into " + work + "/out/frame/\n  beauty.hdr\n  beauty.png\n");
  const Image frame = loadStoredImage(work + "/out/frame/beauty.hdr");
  std::vector<Image> parts;
  for (int i = 1; i <= 3; ++i) parts.push_back(loadStoredImage(work + "/out/tile-" + std::to_string(i) + "/beauty.hdr"));
  for (int y = 0; y < height; ++y) {
    const Image& tile = parts[size_t(y < 128 / 3 ? 0 : y < 256 / 3 ? 1 : 2)];
    for (int x = 0; x < width; ++x) {
      ASSERT_TRUE(lit(frame, x, y)) << x << "," << y;
      const size_t p = size_t(y * width + x) * 3;
      ASSERT_EQ(std::memcmp(&frame.floats[p], &tile.floats[p], 12), 0) << x << "," << y;
    }
  }
}
