// The render farm on a real Slurm cluster: one node on this machine, started by
// scripts/farm/local-cluster.sh for the suite and stopped after it, by the suite
// or, should the process be killed, by the cluster's own watchdog. Where Slurm
// cannot start (not root, no packages to be had), the tests say why and skip.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "app/tiling.h"
#include "tests/command_fixture.h"

namespace fs = std::filesystem;

namespace {
using Outcome = ShellOutcome;

std::string quote(const std::string& text) { return "'" + text + "'"; }

const std::string source = std::getenv("QZ_SOURCE_DIR") ? std::getenv("QZ_SOURCE_DIR") : ".";
const std::string binary = quazelBinary();
const std::string scene = source + "/scenes/first";
// Small and short: the point is that the pieces fit, not the picture.
const std::string renderOptions = "--resolution 96 54 --samples 4";

struct LocalCluster {
  std::string folder, reason;

  void start() {
    const std::string log = scratchFolder("farm-cluster-start") + "/stderr";
    const Outcome run = shell("bash " + quote(source + "/scripts/farm/local-cluster.sh") + " start --owner " +
                              std::to_string(getpid()) + " 2>" + quote(log));
    const std::string errors = readFile(log);
    if (run.status == 0)
      folder = run.out.substr(0, run.out.find('\n'));
    else
      reason = errors.empty() ? "local-cluster.sh failed" : errors;
  }
  void stop() {
    if (!folder.empty()) shell("bash " + quote(source + "/scripts/farm/local-cluster.sh") + " stop " + quote(folder));
    folder.clear();
  }
  // A Slurm command line aimed at this cluster.
  Outcome slurm(const std::string& command) const {
    return shell("SLURM_CONF=" + quote(folder + "/slurm.conf") + " " + command);
  }
};

LocalCluster cluster;

// Submits the frame (or some of its tiles again) as `count` tiles, with sbatch's
// own variables in `environment`; returns the array's and the merge's job ids.
std::pair<std::string, std::string> submit(const std::string& out, const std::string& tiles = "",
                                           const std::string& options = renderOptions, int count = 4,
                                           const std::string& environment = "") {
  const Outcome run = cluster.slurm(environment + " QUAZEL=" + quote(binary) + " bash " +
                                    quote(source + "/scripts/farm/submit.sh") +
                                    (tiles.empty() ? "" : " --tiles " + tiles) + " " + quote(scene) + " " +
                                    quote(out) + " " + std::to_string(count) + " " + options);
  std::istringstream ids(run.out);
  std::pair<std::string, std::string> jobs;
  ids >> jobs.first >> jobs.second;
  return jobs;
}

// Waits, through the scheduler, until no job of the list is queued or running.
bool waitForJobs(const std::string& ids, int seconds) {
  for (int i = 0; i < seconds * 4; ++i) {
    const Outcome queue = cluster.slurm("squeue -h -o %i -j " + ids + " 2>/dev/null");
    if (queue.status == 0 && queue.out.empty()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
  }
  return false;
}

// A field of each job, or of each task of an array, by task number ("" for a plain job).
std::map<std::string, std::string> jobField(const std::string& id, const std::string& key) {
  std::map<std::string, std::string> values;
  std::istringstream lines(cluster.slurm("scontrol -o show job " + id).out);
  for (std::string line; std::getline(lines, line);) {
    auto field = [&](const std::string& name) {
      const size_t at = line.find(" " + name + "=");
      if (at == std::string::npos) return std::string();
      const size_t begin = at + name.size() + 2;
      return line.substr(begin, line.find(' ', begin) - begin);
    };
    values[field("ArrayTaskId")] = field(key);
  }
  return values;
}

std::map<std::string, std::string> jobStates(const std::string& id) { return jobField(id, "JobState"); }

// Every pixel of the merged images is its tile's, bit for bit.
void expectTilesInFrame(const std::string& out, int count = 4) {
  for (const std::string name : {"beauty.hdr", "depth.pfm"}) {
    const Image frame = loadStoredImage(out + "/frame/" + name);
    ASSERT_EQ(frame.width, 96) << name;
    ASSERT_EQ(frame.height, 54) << name;
    EXPECT_TRUE(fs::exists(out + "/frame/" + name.substr(0, name.find('.')) + ".png")) << name;
    for (int i = 1; i <= count; ++i) {
      const Image tile = loadStoredImage(out + "/tile-" + std::to_string(i) + "/" + name);
      ASSERT_EQ(tile.floats.size(), frame.floats.size()) << name;
      const PixelRect band = tileBand({0, 0, 96, 54}, i, count);
      for (int y = band.y0; y < band.y1; ++y) {
        const size_t row = size_t(y) * 96 * 3;
        ASSERT_EQ(std::memcmp(&frame.floats[row], &tile.floats[row], 96 * 3 * sizeof(float)), 0)
            << name << " row " << y << " differs from tile " << i;
      }
    }
  }
}

// A pixel's brightness as the sum of its channels.
double brightness(const Image& image, int x, int y) {
  const float* p = &image.floats[(size_t(y) * size_t(image.width) + size_t(x)) * 3];
  return double(p[0]) + p[1] + p[2];
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

class FarmCluster : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (geteuid() != 0)
      cluster.reason = "the local cluster's daemons need root";
    else
      cluster.start();
  }
  static void TearDownTestSuite() { cluster.stop(); }
  void SetUp() override {
    if (cluster.folder.empty()) GTEST_SKIP() << "Slurm cannot start on this machine: " << cluster.reason;
    quietStartup();
  }
};
}  // namespace

TEST_F(FarmCluster, FourTilesMergeIntoTheFrameOfASingleRender) {
  const std::string work = scratchFolder("farm-cluster-frame");
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(
      shell(quote(binary) + " " + renderOptions + " -o " + quote(work + "/single") + " " + quote(scene) + " >/dev/null")
          .status,
      0);
  const double single = secondsSince(start);

  start = std::chrono::steady_clock::now();
  const auto [array, merge] = submit(work + "/farm");
  ASSERT_FALSE(merge.empty()) << "submission failed";
  ASSERT_TRUE(waitForJobs(array + "," + merge, 240)) << "the jobs did not end in time";
  const double farm = secondsSince(start);
  std::cout << "wall time: single render " << single << " s, 4 tiles and the merge through Slurm " << farm << " s"
            << std::endl;
  const auto tiles = jobStates(array);
  ASSERT_EQ(tiles.size(), 4u);
  for (const auto& [task, state] : tiles) EXPECT_EQ(state, "COMPLETED") << "tile " << task;
  EXPECT_EQ(jobStates(merge)[""], "COMPLETED");
  expectTilesInFrame(work + "/farm");

  // No two renders are equal, but the merged frame and the single render must
  // agree within their noise, band by band: the mean difference of brightness
  // over a band against its standard error.
  const Image merged = loadStoredImage(work + "/farm/frame/beauty.hdr");
  Image reference;
  for (const auto& entry : fs::directory_iterator(work + "/single"))
    if (entry.path().extension() == ".hdr") reference = loadStoredImage(entry.path());
  ASSERT_EQ(reference.floats.size(), merged.floats.size());
  for (int i = 1; i <= 4; ++i) {
    const PixelRect band = tileBand({0, 0, 96, 54}, i, 4);
    double sum = 0, squares = 0, level = 0;
    const double n = double(area(band));
    for (int y = band.y0; y < band.y1; ++y)
      for (int x = 0; x < 96; ++x) {
        const double d = brightness(merged, x, y) - brightness(reference, x, y);
        sum += d, squares += d * d, level += brightness(reference, x, y);
      }
    const double mean = sum / n, error = std::sqrt(std::max(squares / n - mean * mean, 1e-12) / n);
    EXPECT_GT(level / n, 0.01) << "band " << i << " of the single render is black";
    EXPECT_LT(std::abs(mean) / error, 5.0) << "band " << i << ": mean difference " << mean << ", error " << error;
  }
}

TEST_F(FarmCluster, AFailedTileStopsTheMergeUntilItIsRenderedAgain) {
  const std::string work = scratchFolder("farm-cluster-failure");
  const std::string out = work + "/farm";
  // A file where tile 3's folder goes makes that tile fail as a bad -o does.
  fs::create_directories(out);
  std::ofstream(out + "/tile-3") << "in the way";
  const auto [array, merge] = submit(out);
  ASSERT_FALSE(merge.empty()) << "submission failed";
  ASSERT_TRUE(waitForJobs(array, 240)) << "the tiles did not end in time";
  auto tiles = jobStates(array);
  EXPECT_EQ(tiles["3"], "FAILED");
  for (const char* task : {"1", "2", "4"}) EXPECT_EQ(tiles[task], "COMPLETED") << "tile " << task;
  // The merge waits on a dependency that can no longer be met, as the
  // scheduler says on its next pass.
  std::string reason;
  for (int i = 0; i < 120 && reason != "DependencyNeverSatisfied\n"; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    reason = cluster.slurm("squeue -h -o %r -j " + merge).out;
  }
  EXPECT_EQ(reason, "DependencyNeverSatisfied\n");
  cluster.slurm("scancel " + merge);
  EXPECT_FALSE(fs::exists(out + "/frame"));

  // Merged by hand, the three tiles are refused, with the missing one named.
  const Outcome refused =
      shell(quote(binary) + " merge -o " + quote(out + "/frame") + " " + quote(out + "/tile-1") + " " +
            quote(out + "/tile-2") + " " + quote(out + "/tile-3") + " " + quote(out + "/tile-4") + " 2>&1");
  EXPECT_EQ(refused.status, 2);
  EXPECT_NE(refused.out.find(out + "/tile-3: no such tile folder"), std::string::npos) << refused.out;
  EXPECT_NE(refused.out.find("tile 3 of 4 is missing"), std::string::npos) << refused.out;

  // Tile 3 again, with a merge of its own: the frame is whole.
  fs::remove(out + "/tile-3");
  const auto [again, remerge] = submit(out, "3");
  ASSERT_FALSE(remerge.empty()) << "resubmission failed";
  ASSERT_TRUE(waitForJobs(again + "," + remerge, 240)) << "the jobs did not end in time";
  EXPECT_EQ(jobStates(again)["3"], "COMPLETED");
  EXPECT_EQ(jobStates(remerge)[""], "COMPLETED");
  expectTilesInFrame(out);
}

TEST_F(FarmCluster, ATileThatRunsIntoItsTimeLimitIsRequeuedResumesAndTheMergeWaitsForIt) {
  const std::string work = scratchFolder("farm-cluster-time-limit");
  const std::string out = work + "/farm";
  // Slurm warns a job once its time left is under the warning time plus the
  // 30 s between the controller's checks of time limits. A limit of a minute
  // with a 25 s warning brings the warning 5 to 35 s into each run: a tile that
  // renders for 40 s or more is warned at least once, wherever the checks fall.
  // Its passes are counted from the speed of a trial tile run as a job: on a
  // shared machine jobs and the test's own processes may run at different speeds.
  std::ofstream(work + "/trial.sh") << "#!/bin/sh\nexec " << quote(binary)
                                    << " --resolution 96 54 --samples 40 --tile 1/2 -o " << quote(work + "/trial") << " "
                                    << quote(scene) << " 2>" << quote(work + "/trial.err") << " >/dev/null\n";
  ASSERT_EQ(cluster.slurm("sbatch --wait --quiet -o /dev/null " + quote(work + "/trial.sh")).status, 0);
  const std::string trial = readFile(work + "/trial.err");
  auto elapsedAt = [&](int pass) {
    const size_t at = trial.find("quazel-progress pass=" + std::to_string(pass) + " ");
    return at == std::string::npos ? -1.0 : std::atof(trial.c_str() + trial.find("elapsed=", at) + 8);
  };
  ASSERT_GE(elapsedAt(40), 0) << trial;
  const double secondsPerPass = std::max((elapsedAt(40) - elapsedAt(10)) / 30, 1e-3);
  const int passes = std::clamp(int(45 / secondsPerPass), 200, 65535);
  std::cout << "tiles of " << passes << " passes at " << secondsPerPass << " s a pass" << std::endl;

  const auto start = std::chrono::steady_clock::now();
  const auto [array, merge] = submit(out, "", "--resolution 96 54 --samples " + std::to_string(passes), 2,
                                     "SBATCH_TIMELIMIT=1 SBATCH_SIGNAL=B:USR1@25");
  ASSERT_FALSE(merge.empty()) << "submission failed";
  ASSERT_TRUE(waitForJobs(array + "," + merge, 420)) << "the jobs did not end in time";
  std::cout << "wall time: 2 tiles and the merge through Slurm " << secondsSince(start) << " s" << std::endl;
  for (const auto& [task, state] : jobStates(array)) EXPECT_EQ(state, "COMPLETED") << "tile " << task;
  EXPECT_EQ(jobStates(merge)[""], "COMPLETED");
  int stops = 0;
  for (const auto& [task, restarts] : jobField(array, "Restarts")) {
    std::cout << "tile " << task << " was requeued " << restarts << " times" << std::endl;
    if (std::atoi(restarts.c_str()) == 0) continue;
    ++stops;
    // The log holds the last run: one that went on from its checkpoint, past the first pass.
    const std::string log = readFile(out + "/logs/tile-" + task + ".out");
    EXPECT_NE(log.find("quazel-tile: tile " + task + " goes on from its checkpoint"), std::string::npos) << log;
    EXPECT_EQ(log.find("quazel-progress pass=1 "), std::string::npos) << log;
    EXPECT_NE(log.find("quazel-progress pass=" + std::to_string(passes) + " "), std::string::npos) << log;
  }
  EXPECT_GE(stops, 1) << "no tile was stopped by its time limit";
  for (const char* tile : {"/tile-1", "/tile-2"}) {
    EXPECT_FALSE(fs::exists(out + tile + "/quazel.checkpoint")) << tile;
    EXPECT_TRUE(fs::exists(out + tile + "/quazel-tile.txt")) << tile;
  }
  expectTilesInFrame(out, 2);
}
