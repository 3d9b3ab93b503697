// The quazel command, run as a separate process in a scratch folder.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "shading/image.h"
#include "tests/scene_writer.h"
#include "tests/regex.h"
#include "tests/test_util.h"

namespace fs = std::filesystem;

namespace {
struct Outcome {
  int status;
  std::string out, err;
};

std::string slurp(const fs::path& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

// Runs the command with its working directory in `folder`.
Outcome quazel(const std::string& folder, const std::string& arguments) {
  const fs::path binary = fs::read_symlink("/proc/self/exe").parent_path().parent_path() / "quazel";
  const std::string command = "cd '" + folder + "' && '" + binary.string() + "' " + arguments + " >out.txt 2>err.txt";
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(folder + "/out.txt"), slurp(folder + "/err.txt")};
}

std::vector<std::string> beautyFiles(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder))
    if (std::regex_match(entry.path().filename().string(), std::regex(R"(beauty-\d{8}-\d{6}\.hdr)")))
      names.push_back(entry.path().string());
  return names;
}

Image load(const std::string& name) {
  Image image;
  image.name = name;
  quietStartup();
  captureOutput([&] { loadImage(image); });
  return image;
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
    const Image image = load(name);
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
  EXPECT_TRUE(run.out.starts_with("usage: quazel [--preview] [SCENE_DIR]")) << run.out;
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
