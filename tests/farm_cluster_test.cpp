// The render farm on a real Slurm cluster: one node on this machine, started by
// scripts/farm/local-cluster.sh for the suite and stopped after it, by the suite
// or, should the process be killed, by the cluster's own watchdog. Where Slurm
// cannot start (not root, no packages to be had), the tests say why and skip.
#include <gtest/gtest.h>
#include <unistd.h>

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

// Submits the frame (or some of its tiles again); returns the array's and the merge's job ids.
std::pair<std::string, std::string> submit(const std::string& out, const std::string& tiles = "",
                                           const std::string& options = renderOptions) {
  const Outcome run = cluster.slurm("QUAZEL=" + quote(binary) + " bash " + quote(source + "/scripts/farm/submit.sh") +
                                    (tiles.empty() ? "" : " --tiles " + tiles) + " " + quote(scene) + " " + quote(out) +
                                    " 4 " + options);
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

// The state of each job, or of each task of an array, by task number ("" for a plain job).
std::map<std::string, std::string> jobStates(const std::string& id) {
  std::map<std::string, std::string> states;
  std::istringstream lines(cluster.slurm("scontrol -o show job " + id).out);
  for (std::string line; std::getline(lines, line);) {
    auto field = [&](const std::string& key) {
      const size_t at = line.find(" " + key + "=");
      return at == std::string::npos ? std::string()
                                     : line.substr(at + key.size() + 2, line.find(' ', at + 1) - at - key.size() - 2);
    };
    states[field("ArrayTaskId")] = field("JobState");
  }
  return states;
}

// Every pixel of the merged images is its tile's, bit for bit.
void expectTilesInFrame(const std::string& out) {
  for (const std::string name : {"beauty.hdr", "depth.pfm"}) {
    const Image frame = loadStoredImage(out + "/frame/" + name);
    ASSERT_EQ(frame.width, 96) << name;
    ASSERT_EQ(frame.height, 54) << name;
    EXPECT_TRUE(fs::exists(out + "/frame/" + name.substr(0, name.find('.')) + ".png")) << name;
    for (int i = 1; i <= 4; ++i) {
      const Image tile = loadStoredImage(out + "/tile-" + std::to_string(i) + "/" + name);
      ASSERT_EQ(tile.floats.size(), frame.floats.size()) << name;
      const PixelRect band = tileBand({0, 0, 96, 54}, i, 4);
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

// Disabled: on the one-node test cluster `scancel --batch --signal` is at times
// refused for a minute and more ("Job can not be altered now"), so the warning
// does not always arrive; run it by hand with --gtest_also_run_disabled_tests.
TEST_F(FarmCluster, DISABLED_ATileWarnedOfItsTimeLimitIsRequeuedResumesAndTheMergeWaitsForIt) {
  const std::string work = scratchFolder("farm-cluster-time-limit");
  const std::string out = work + "/farm";
  // Long enough a tile for the warning to come while it renders.
  const auto [array, merge] = submit(out, "", "--resolution 96 54 --samples 2000");
  ASSERT_FALSE(merge.empty()) << "submission failed";
  // The warning the time limit gives (--signal=B:USR1@120), sent once the
  // tile is under way; Slurm's own timer sends it only to the minute.
  const std::string log = out + "/logs/tile-1.out";
  bool warned = false;
  for (int i = 0; i < 960 && !warned; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    if (readFile(log).find("quazel-progress pass=2 ") != std::string::npos)
      warned = cluster.slurm("scancel --batch --signal=USR1 " + array + "_1").status == 0;
  }
  ASSERT_TRUE(warned) << readFile(log);
  // A requeued job waits about two minutes before it may start again.
  ASSERT_TRUE(waitForJobs(array + "," + merge, 420)) << "the jobs did not end in time";
  for (const auto& [task, state] : jobStates(array)) EXPECT_EQ(state, "COMPLETED") << "tile " << task;
  EXPECT_EQ(jobStates(merge)[""], "COMPLETED");
  const std::string job = cluster.slurm("scontrol -o show job " + array + "_1").out;
  const size_t restarts = job.find(" Restarts=");
  ASSERT_NE(restarts, std::string::npos) << job;
  // Slurm may refuse the first warning while the job starts ("try again later")
  // and take a repeated one: at least one stop, each resumed.
  EXPECT_GE(std::atoi(job.c_str() + restarts + 10), 1) << job;
  EXPECT_FALSE(fs::exists(out + "/tile-1/quazel.checkpoint"));
  expectTilesInFrame(out);
}
