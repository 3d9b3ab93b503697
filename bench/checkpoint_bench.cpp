// What a checkpoint costs a render of each example scene: the time to write
// one (the median of several writes, after a pass has filled the framebuffers)
// against the interval between them. A render that checkpoints every 10 s
// spends write / 10 s of its time on it; whole renders with and without
// checkpoints are compared by bench/checkpoint_cost.sh.
//
//   cmake -S . -B build -G Ninja -DQZ_BENCH=ON && ninja -C build checkpoint_bench
//   build/bench/checkpoint_bench [writes] [scene...]   scenes by name under scenes/, or scene folders
//
// The checkpoints are written to $TMPDIR (/tmp by default), as a render writes
// them beside its images.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "frame/renderer.h"
#include "output/camera.h"
#include "output/checkpoint.h"
#include "qz.h"

namespace {
double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}
}  // namespace

int main(int argc, char** argv) {
  const int writes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 9;
  std::vector<std::string> scenes;
  for (int i = 2; i < argc; ++i) scenes.push_back(argv[i]);
  if (scenes.empty()) scenes = {"first", "cornell-box", "bunny", "spot", "hair", "materials"};
  const char* tmp = std::getenv("TMPDIR");
  const std::string path = std::string(tmp ? tmp : "/tmp") + "/checkpoint-bench-" + std::to_string(getpid());
  std::printf("medians of %d checkpoint writes after one pass; cost: one write every 10 s\n\n", writes);
  std::printf("%-12s %10s %12s %12s %8s\n", "scene", "MB", "write ms", "pass s", "cost");
  // The library's report goes nowhere; only this table is printed.
  std::ostringstream sink;
  std::streambuf* console = std::cout.rdbuf(sink.rdbuf());
  qzStartup();
  for (const std::string& scene : scenes) {
    const std::string folder = scene.starts_with("/") ? scene : std::string(QZ_SCENE_DIR) + "/" + scene;
    qzLoadScene((folder + "/").c_str());
    qzInitialize();
    Camera& camera = cameras[size_t(renderer.camera)];
    // Nothing is saved: the images would only litter the working folder.
    for (CameraAOV& aov : camera.aovs) aov.image.name.clear();
    const Region r = camera.region;
    std::vector<float> pixels(size_t(std::max(r.max_x - r.min_x, 0) * std::max(r.max_y - r.min_y, 0)) * 3);
    auto start = std::chrono::steady_clock::now();
    qzRenderPixels(int(pixels.size() / 3), pixels.data(), 0);
    const double pass = secondsSince(start);
    std::vector<double> seconds;
    std::string problem;
    for (int i = 0; i < writes && problem.empty(); ++i) {
      start = std::chrono::steady_clock::now();
      problem = writeCheckpoint(path);
      seconds.push_back(secondsSince(start));
    }
    std::error_code error;
    const double megabytes = double(std::filesystem::file_size(path, error)) * 1e-6;
    std::filesystem::remove(path, error);
    std::cout.rdbuf(console);
    const std::string name = std::filesystem::path(folder).filename().string();
    if (!problem.empty())
      std::printf("%-12s the checkpoint cannot be written: %s\n", name.c_str(), problem.c_str());
    else
      std::printf("%-12s %10.2f %12.2f %12.3f %7.3f%%\n", name.c_str(), megabytes, median(seconds) * 1e3, pass,
                  median(seconds) / 10 * 100);
    std::cout.rdbuf(sink.rdbuf());
    qzFinalize();
    sink.str("");
  }
  std::cout.rdbuf(console);
  return 0;
}
