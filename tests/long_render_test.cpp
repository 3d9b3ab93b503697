// Long renders: float EXR files and their merge, checkpoints, stopping and
// resuming, the status line, the processor check and honest saving.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <random>
#include <tuple>

#include "app/display_png.h"
#include "app/merge_exr.h"
#include "app/options.h"
#include "app/resume.h"
#include "output/aov.h"
#include "output/exr_file.h"
#include "output/progress.h"
#include "tests/command_fixture.h"
#include "tests/scene_writer.h"

namespace fs = std::filesystem;

namespace {
// A frame of floats of every kind a render makes: negative, tiny, huge, NaN's neighbours.
std::vector<float> awkwardFloats(size_t count, unsigned seed) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<uint32_t> bits;
  std::vector<float> values(count);
  const float special[] = {-0.0f, -1.5f, 1e-40f, -3.4e38f, 3.4e38f, 1e-8f, -7.25f};
  for (size_t i = 0; i < count; ++i) {
    uint32_t word = bits(random);
    // Finite values only: the exponent is kept below all ones.
    if ((word & 0x7f800000u) == 0x7f800000u) word &= 0xff7fffffu;
    std::memcpy(&values[i], &word, sizeof word);
    if (i % 5 == 0) values[i] = special[(i / 5) % 7];
  }
  return values;
}

bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// A camera with a beauty and a depth output of a lit square, whose edges the
// pixel samples make noisy.
void writeScene(const std::string& scene, int samples, const std::string& extraCameraKeys = "") {
  writeSceneFile(scene + "/camera", "camera.qz",
                 stillCamera("  resolution 48 32\n  sample " + std::to_string(samples) + "\n" + extraCameraKeys +
                             "  aov\n    type \"depth\"\n    image \"depth.exr\"\n  end\n"));
  writeSceneFile(scene + "/light", "light.qz", "sky_light\n  color 1 1 1\nend\n");
  writeSceneFile(scene + "/geometry", "plane.obj", "v -1 -1 0\nv 1 -1 0\nv 1 1 0\nv -1 1 0\nf 1 2 3 4\n");
  writeSceneFile(scene + "/geometry", "geometry.qz", "object\n  obj \"geometry/plane.obj\"\nend\n");
}

struct Outcome {
  int status;
  std::string out, err;
};

Outcome quazel(const std::string& folder, const std::string& arguments, const std::string& environment = "") {
  const ShellOutcome run =
      shell("cd '" + folder + "' && " + environment + " '" + quazelBinary() + "' " + arguments + " 2>err.txt");
  return {run.status, run.out, readFile(folder + "/err.txt")};
}

// Starts the command and sends it SIGTERM once its status line says `pass`
// passes are done; returns its exit status.
int quazelStoppedAfter(const std::string& folder, const std::vector<std::string>& arguments, int pass) {
  int pipeEnds[2];
  if (pipe(pipeEnds) != 0) return -1;
  const std::string binary = quazelBinary();
  const pid_t child = fork();
  if (child == 0) {
    if (chdir(folder.c_str()) != 0) _exit(127);
    dup2(pipeEnds[1], STDERR_FILENO);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    std::vector<char*> argv{const_cast<char*>(binary.c_str())};
    for (const std::string& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(binary.c_str(), argv.data());
    _exit(127);
  }
  close(pipeEnds[1]);
  const std::string mark = "quazel-progress pass=" + std::to_string(pass) + " ";
  std::string seen;
  char buffer[512];
  bool sent = false;
  for (ssize_t n; (n = read(pipeEnds[0], buffer, sizeof buffer)) > 0;) {
    seen.append(buffer, size_t(n));
    if (!sent && seen.find(mark) != std::string::npos) sent = kill(child, SIGTERM) == 0;
  }
  close(pipeEnds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ExrImage readWhole(const std::string& path) {
  ExrImage image;
  EXPECT_EQ(readExr(path, image), "") << path;
  return image;
}
}  // namespace

TEST(ExrFile, EveryLayerRoundTripsBitForBitWithItsHeaderAndDataWindow) {
  const std::string work = scratchFolder("exr-round-trip");
  ExrImage image;
  image.width = 13, image.height = 7;
  image.x0 = 2, image.y0 = 1, image.x1 = 11, image.y1 = 6;
  image.info = {64, "sobol", 4000000000LL, 12.5f, 3, 8};
  unsigned seed = 1;
  for (const char* name : {"beauty", "normal+depth", "diffuse", "position", "uv"}) {
    std::vector<float> rgb = awkwardFloats(13 * 7 * 3, seed++);
    // Outside the data window nothing is stored, and a read gives 0 there.
    for (int y = 0; y < 7; ++y)
      for (int x = 0; x < 13; ++x)
        if (x < 2 || x >= 11 || y < 1 || y >= 6)
          for (int c = 0; c < 3; ++c) rgb[(size_t(y) * 13 + size_t(x)) * 3 + size_t(c)] = 0;
    image.layers.push_back({name, rgb});
  }
  ASSERT_EQ(writeExr(work + "/all.exr", image), "");
  const ExrImage back = readWhole(work + "/all.exr");
  EXPECT_EQ(back.width, 13);
  EXPECT_EQ(back.height, 7);
  EXPECT_EQ(std::vector<int>({back.x0, back.y0, back.x1, back.y1}), std::vector<int>({2, 1, 11, 6}));
  EXPECT_EQ(back.info.passes, 64);
  EXPECT_EQ(back.info.sampler, "sobol");
  EXPECT_EQ(back.info.seed, 4000000000LL);
  EXPECT_EQ(back.info.render_seconds, 12.5f);
  EXPECT_EQ(back.info.tile_index, 3);
  EXPECT_EQ(back.info.tile_count, 8);
  ASSERT_EQ(back.layers.size(), image.layers.size());
  for (const ExrLayer& layer : image.layers) {
    const auto it = std::find_if(back.layers.begin(), back.layers.end(), [&](auto& l) { return l.name == layer.name; });
    ASSERT_NE(it, back.layers.end()) << layer.name;
    EXPECT_TRUE(sameBits(it->rgb, layer.rgb)) << layer.name;
  }

  // The standard tool sees one FLOAT channel per component of every layer.
  const ShellOutcome header = shell("exrheader '" + work + "/all.exr' 2>&1");
  if (header.status != 0) GTEST_SKIP() << "exrheader (Debian openexr) is not installed";
  for (const char* name : {"beauty", "normal+depth", "diffuse", "position", "uv"})
    for (const char* c : {".R", ".G", ".B"})
      EXPECT_NE(header.out.find(std::string(name) + c + ", 32-bit floating-point"), std::string::npos) << header.out;
}

TEST(ExrFile, DamagedAndForeignFilesAreErrorsNotCrashes) {
  const std::string work = scratchFolder("exr-damaged");
  ExrImage image;
  image.width = image.x1 = 64, image.height = image.y1 = 64;
  image.layers.push_back({"", awkwardFloats(64 * 64 * 3, 9)});
  ASSERT_EQ(writeExr(work + "/whole.exr", image), "");
  const std::string bytes = readFile(work + "/whole.exr");
  ExrImage back;
  for (size_t cut : {size_t(0), size_t(8), size_t(300), bytes.size() / 2, bytes.size() - 1}) {
    std::ofstream(work + "/cut.exr", std::ios::binary) << bytes.substr(0, cut);
    EXPECT_NE(readExr(work + "/cut.exr", back), "") << cut;
  }
  // Flipped bytes in the pixel data either read or are refused; neither crashes.
  std::string flipped = bytes;
  for (size_t i = 400; i < flipped.size(); i += 97) flipped[i] = char(~flipped[i]);
  std::ofstream(work + "/flipped.exr", std::ios::binary) << flipped;
  readExr(work + "/flipped.exr", back);
  EXPECT_NE(readExr(work + "/missing.exr", back), "");
  EXPECT_NE(writeExr(work + "/no-such-folder/x.exr", image), "");
}

TEST(ExrFile, SavedAovImagesAreFullFloatsAndLayerNamesFollowTheType) {
  const std::string work = scratchFolder("exr-save");
  Image image;
  image.name = work + "/depth.exr";
  allocateImage(image, 5, 3, 3, 32, 0);
  image.floats = awkwardFloats(5 * 3 * 3, 4);
  ASSERT_TRUE(saveImage(image));
  const ExrImage back = readWhole(image.name);
  ASSERT_EQ(back.layers.size(), 1u);
  EXPECT_EQ(back.layers[0].name, "");
  EXPECT_TRUE(sameBits(back.layers[0].rgb, image.floats));

  CameraAOV aov;
  aov.channel = beautyChannel;
  EXPECT_EQ(aovLayerName(aov), "beauty");
  aov.channel = aovTypeBits("diffuse") | aovTypeBits("normal") | 0x10;
  EXPECT_EQ(aovLayerName(aov), "diffuse+normal+0x10");
  aov.channel = userDataChannel;
  aov.user_data_name = "temperature";
  EXPECT_EQ(aovLayerName(aov), "temperature");
}

TEST(ExrMerge, TilesJoinIntoTheWholeFrameBitForBit) {
  const std::string work = scratchFolder("exr-merge");
  const int width = 11, height = 9;
  const PixelRect region{1, 1, 10, 9};
  ExrImage whole;
  whole.width = width, whole.height = height;
  whole.x0 = region.x0, whole.y0 = region.y0, whole.x1 = region.x1, whole.y1 = region.y1;
  for (const char* name : {"beauty", "depth"}) {
    std::vector<float> rgb = awkwardFloats(size_t(width * height * 3), unsigned(std::strlen(name)));
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x)
        if (!inside({x, y, x + 1, y + 1}, region))
          for (int c = 0; c < 3; ++c) rgb[(size_t(y) * width + size_t(x)) * 3 + size_t(c)] = 0;
    whole.layers.push_back({name, rgb});
  }
  // Each tile holds its own band as its data window, as a tile render writes it.
  std::vector<ExrTile> tiles;
  for (int i = 1; i <= 3; ++i) {
    ExrImage tile = whole;
    const PixelRect band = tileBand(region, i, 3);
    tile.x0 = band.x0, tile.y0 = band.y0, tile.x1 = band.x1, tile.y1 = band.y1;
    tile.info.tile_index = i, tile.info.tile_count = 3;
    tiles.push_back({work + "/tile-" + std::to_string(i) + ".exr", band});
    ASSERT_EQ(writeExr(tiles.back().path, tile), "");
  }
  EXPECT_EQ(checkExrTile(tiles[2].path, tiles[0].path, width, height), "");
  EXPECT_NE(checkExrTile(tiles[2].path, tiles[0].path, width + 1, height), "");
  ASSERT_EQ(mergeExrTiles(tiles, work + "/frame.exr"), "");
  const ExrImage merged = readWhole(work + "/frame.exr");
  EXPECT_EQ(std::vector<int>({merged.x0, merged.y0, merged.x1, merged.y1}),
            std::vector<int>({region.x0, region.y0, region.x1, region.y1}));
  EXPECT_EQ(merged.info.tile_count, 0);
  ASSERT_EQ(merged.layers.size(), 2u);
  for (size_t l = 0; l < 2; ++l) EXPECT_TRUE(sameBits(merged.layers[l].rgb, whole.layers[l].rgb)) << l;

  // A tile whose layers differ is named, and nothing is merged from it.
  ExrImage other = whole;
  other.layers.pop_back();
  ASSERT_EQ(writeExr(work + "/other.exr", other), "");
  EXPECT_NE(checkExrTile(work + "/other.exr", tiles[0].path, width, height).find("other layers"), std::string::npos);
}

TEST(Progress, TimeLeftComesFromThisRunsPassesAndLinesKeepTheirForm) {
  // Passes of 2 s each on a controlled clock; a resumed run begins at pass 20 of 100.
  const int64_t second = 1000000000;
  for (int first : {0, 20}) {
    startProgress(first, 5 * second);
    for (int pass = first + 1; pass <= 100; ++pass) {
      // Some jitter, as a real machine gives.
      const int64_t now = 5 * second + int64_t(pass - first) * 2 * second + (pass % 3 - 1) * second / 5;
      const PassStatus status = passStatus(pass, 100, 1.5e6, now);
      const double trueLeft = double(100 - pass) * 2;
      if (pass - first >= (100 - first) / 10) {
        EXPECT_NEAR(status.left, trueLeft, 0.2 * trueLeft + 1e-9) << first << " " << pass;
      }
    }
  }
  startProgress(0, 0);
  EXPECT_LT(passStatus(0, 10, 0, second).left, 0);  // nothing done yet: not known
  PassStatus s = passStatus(12, 64, 1234567, 3723 * second);
  EXPECT_EQ(terminalLine(s), "pass 12 of 64  1.23 M rays/s  elapsed 1:02:03  left 4:28:53");
  EXPECT_EQ(farmLine(s),
            "quazel-progress pass=12 passes=64 elapsed=3723.0 left=16133.0 rays_per_second=1234567 active=-1");
  s.active_pixels = 420;
  EXPECT_EQ(terminalLine(s), "pass 12 of 64  1.23 M rays/s  elapsed 1:02:03  left 4:28:53  active pixels 420");
}

TEST(DisplayPng, UsesTheSrgbCurve) {
  EXPECT_EQ(srgbByte(0), 0);
  EXPECT_EQ(srgbByte(-1), 0);
  EXPECT_EQ(srgbByte(NAN), 0);
  EXPECT_EQ(srgbByte(1), 255);
  EXPECT_EQ(srgbByte(7), 255);
  EXPECT_EQ(srgbByte(0.0031308f), 10);  // the end of the linear toe: 12.92 x 0.0031308 x 255
  EXPECT_EQ(srgbByte(0.001f), 3);
  EXPECT_EQ(srgbByte(0.5f), 188);  // a plain 2.2 power would give 186
  EXPECT_EQ(srgbByte(0.18f), 118);
}

TEST(LongRenderOptions, AStoppedRenderIsResumedWithEveryOptionThatDecidesWhatItMakes) {
  // Numbers exactly, paths made absolute.
  const CommandLine given = parseCommandLine({"--region", "1", "2", "30", "20", "--tile", "2/3", "--samples", "9",
                                              "--resolution", "40", "30", "--exr", "all.exr", "--checkpoint", "0.1",
                                              "--camera", "Cam", "--sky", "sky.hdr", "--sampler", "sobol", "--seed",
                                              "4294967295", "--noise-threshold", "1e-7", "--time-limit", "0.3",
                                              "--threads", "2", "--log", "l.txt", "scene"});
  ASSERT_EQ(given.error, "");
  const CommandLine back = parseCommandLine(settingArguments(given.render_options));
  ASSERT_EQ(back.error, "");
  const RenderOptions &a = given.render_options, &b = back.render_options;
  EXPECT_EQ(b.region, a.region);
  EXPECT_EQ(std::tie(b.tile_index, b.tile_count, b.samples, b.width, b.height),
            std::tie(a.tile_index, a.tile_count, a.samples, a.width, a.height));
  EXPECT_EQ(std::tie(b.exr, b.camera, b.sampler, b.has_seed, b.seed), std::tie(a.exr, a.camera, a.sampler, a.has_seed, a.seed));
  EXPECT_EQ(std::tie(b.checkpoint_seconds, b.noise_threshold, b.time_limit),
            std::tie(a.checkpoint_seconds, a.noise_threshold, a.time_limit));
  EXPECT_EQ(b.sky, fs::absolute("sky.hdr").string());
  EXPECT_EQ(b.scene, fs::absolute("scene").string());
  EXPECT_EQ(b.threads, 0);  // how it runs is the resumed run's own choice
  EXPECT_EQ(b.log, "");
}

TEST(QuazelStartup, AMissingInstructionIsNamedBeforeAnythingRuns) {
  const std::string work = scratchFolder("cpu-check");
  for (const char* feature : {"AVX2", "FMA", "RDRAND", "AVX state"}) {
    const Outcome run = quazel(work, "--help", std::string("QUAZEL_TEST_MISSING_CPU_FEATURE='") + feature + "'");
    EXPECT_EQ(run.status, 2) << feature;
    EXPECT_EQ(run.out, "") << feature;
    EXPECT_EQ(run.err.find(std::string("quazel: this processor lacks ") + feature + ", which quazel needs"), 0u)
        << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  }
  const Outcome fine = quazel(work, "--help");
  EXPECT_EQ(fine.status, 0) << fine.err;
  EXPECT_NE(fine.out.find("--threads N"), std::string::npos);
}

TEST(QuazelSaving, AnImageThatCannotBeWrittenIsNamedAndTheStatusSaysSo) {
  const std::string work = scratchFolder("honest-saving");
  writeScene(work + "/scene", 2, "  aov\n    type \"normal\"\n    image \"no-such-folder/normal.exr\"\n  end\n");
  const Outcome run = quazel(work, "scene");
  EXPECT_EQ(run.status, 4) << run.out << run.err;
  EXPECT_NE(run.out.find("error :( image - no-such-folder/normal.exr\tcannot be written"), std::string::npos) << run.out;
  EXPECT_NE(run.err.find("image was not written"), std::string::npos) << run.err;
  EXPECT_TRUE(fs::exists(work + "/depth.exr"));  // the others are still written
}

// Against a render never stopped: with a seeded sampler (chosen on the command
// line, which the resumed run must keep) bit for bit, otherwise within noise.
TEST(QuazelCheckpoint, AStoppedRenderResumesToThePlannedPassesAndEqualsOneNeverStopped) {
  for (const bool seeded : {false, true}) {
    const std::string work = scratchFolder(seeded ? "stop-resume-seeded" : "stop-resume");
    writeScene(work + "/scene", 12);
    const std::string out = work + "/out";
    fs::create_directories(out);
    std::vector<std::string> options{"--exr", "all.exr"};
    if (seeded) options.insert(options.end(), {"--sampler", "sobol", "--seed", "7"});
    std::vector<std::string> stopped = options;
    stopped.insert(stopped.end(), {"--tile", "1/1", "--threads", "2", "-o", out, "scene"});
    ASSERT_EQ(quazelStoppedAfter(work, stopped, 3), 3) << seeded;
    EXPECT_TRUE(fs::exists(out + "/quazel.checkpoint"));
    EXPECT_TRUE(fs::exists(out + "/quazel-resume.txt"));
    EXPECT_FALSE(fs::exists(out + "/quazel-tile.txt"));  // not a finished tile
    // The images as far as they got: the pass count is in the EXR's header.
    const ExrImage partial = readWhole(out + "/all.exr");
    EXPECT_GE(partial.info.passes, 3);
    EXPECT_LT(partial.info.passes, 12);

    const Outcome resumed = quazel(work, "--resume out --log resumed.log");
    ASSERT_EQ(resumed.status, 0) << resumed.err;
    EXPECT_EQ(resumed.out, "");  // the report went to the log
    const std::string log = readFile(work + "/resumed.log");
    EXPECT_NE(log.find("100[%]"), std::string::npos) << log;
    // The resumed run renders only the passes that were left.
    EXPECT_EQ(log.find(" 8[%]"), std::string::npos) << log;
    EXPECT_NE(resumed.err.find("quazel-progress pass=12 passes=12 "), std::string::npos) << resumed.err;
    EXPECT_EQ(resumed.err.find("quazel-progress pass=" + std::to_string(partial.info.passes) + " "), std::string::npos);
    EXPECT_FALSE(fs::exists(out + "/quazel.checkpoint"));
    EXPECT_TRUE(fs::exists(out + "/quazel-tile.txt"));

    std::string straight;
    for (const std::string& option : options) straight += option + " ";
    ASSERT_EQ(quazel(work, straight + "-o straight scene").status, 0);
    const ExrImage a = readWhole(out + "/all.exr"), b = readWhole(work + "/straight/all.exr");
    EXPECT_EQ(a.info.passes, 12);
    EXPECT_EQ(a.info.sampler, seeded ? "sobol" : b.info.sampler);
    ASSERT_EQ(a.layers.size(), b.layers.size());
    for (size_t l = 0; l < a.layers.size(); ++l) {
      if (seeded) {
        EXPECT_TRUE(sameBits(a.layers[l].rgb, b.layers[l].rgb)) << a.layers[l].name;
        continue;
      }
      double sumA = 0, sumB = 0;
      for (size_t i = 0; i < a.layers[l].rgb.size(); ++i) sumA += a.layers[l].rgb[i], sumB += b.layers[l].rgb[i];
      EXPECT_NEAR(sumA, sumB, 0.02 * std::abs(sumB) + 1e-6) << a.layers[l].name;
    }
  }
}

TEST(QuazelCheckpoint, AStoppedRenderOfAModelFileImportsItAgainAndGoesOn) {
  const char* source = std::getenv("QZ_SOURCE_DIR");
  if (!source) GTEST_SKIP() << "QZ_SOURCE_DIR names no checkout";
  const std::string work = scratchFolder("stop-resume-model");
  fs::create_directories(work + "/out");
  ASSERT_EQ(quazelStoppedAfter(work,
                               {"--resolution", "32", "24", "--samples", "8", "-o", work + "/out",
                                std::string(source) + "/scenes/gltf/still-life.gltf"},
                               2),
            3);
  const Outcome resumed = quazel(work, "--resume out");
  ASSERT_EQ(resumed.status, 0) << resumed.err;
  EXPECT_EQ(resumed.err.find("quazel-progress pass=1 "), std::string::npos) << resumed.err;
  EXPECT_NE(resumed.err.find("quazel-progress pass=8 passes=8 "), std::string::npos) << resumed.err;
  EXPECT_FALSE(fs::exists(work + "/out/quazel.checkpoint"));
}

TEST(QuazelExr, MergedSeededTilesEqualTheWholeFrameBitForBit) {
  const std::string work = scratchFolder("exr-tiles-seeded");
  writeScene(work + "/scene", 3);
  const std::string seeded = "--sampler sobol --seed 11 --exr all.exr ";
  ASSERT_EQ(quazel(work, seeded + "-o whole scene").status, 0);
  std::string tiles;
  for (int i = 1; i <= 3; ++i) {
    const std::string folder = "tile-" + std::to_string(i);
    ASSERT_EQ(quazel(work, seeded + "--tile " + std::to_string(i) + "/3 -o " + folder + " scene").status, 0);
    tiles += " " + folder;
  }
  const Outcome merged = quazel(work, "merge -o frame" + tiles);
  ASSERT_EQ(merged.status, 0) << merged.err;
  const ExrImage whole = readWhole(work + "/whole/all.exr"), frame = readWhole(work + "/frame/all.exr");
  ASSERT_EQ(frame.layers.size(), 2u);
  ASSERT_EQ(whole.layers.size(), 2u);
  for (size_t l = 0; l < 2; ++l) {
    EXPECT_EQ(frame.layers[l].name, whole.layers[l].name);
    EXPECT_TRUE(sameBits(frame.layers[l].rgb, whole.layers[l].rgb)) << whole.layers[l].name;
  }
  EXPECT_TRUE(sameBits(readWhole(work + "/frame/depth.exr").layers[0].rgb, readWhole(work + "/whole/depth.exr").layers[0].rgb));
}
