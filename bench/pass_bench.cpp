// Time per pass of whole renders of example scenes, on one thread and on all,
// taken in turn pass by pass so that a load on the shared machine falls on
// both; the gain of all threads over one is taken per round and shown as the
// median with its lowest and highest round.
//
//   cmake -S . -B build -G Ninja -DQZ_BENCH=ON && ninja -C build pass_bench
//   build/bench/pass_bench [rounds] [scene...]     default: 5 rounds of bunny and cornell-box
#include <omp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "frame/renderer.h"
#include "output/camera.h"
#include "qz.h"

namespace {

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

// One pass of the whole region on `threads` threads; seconds of wall time.
double timePass(int threads, int pass, std::vector<float>& pixels) {
  omp_set_num_threads(threads);
  const auto start = std::chrono::steady_clock::now();
  qzRenderPixels(int(pixels.size() / 3), pixels.data(), pass);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  std::vector<std::string> scenes;
  for (int i = 2; i < argc; ++i) scenes.push_back(argv[i]);
  if (scenes.empty()) scenes = {"bunny", "cornell-box"};
  const int all = omp_get_num_procs();
  std::printf("%d rounds of one pass on 1 thread and one on %d, in turn; medians of seconds per pass\n\n", rounds,
              all);
  std::printf("%-12s %10s %10s %8s %15s\n", "scene", "1 thread", "all", "gain", "spread");
  // The report of the library goes nowhere; only this table is printed.
  std::ostringstream sink;
  std::streambuf* console = std::cout.rdbuf(sink.rdbuf());
  qzStartup();
  for (const std::string& scene : scenes) {
    qzLoadScene((std::string(QZ_SCENE_DIR) + "/" + scene + "/").c_str());
    qzInitialize();
    Camera& camera = cameras[size_t(renderer.camera)];
    // Nothing is saved: the images would only litter the working folder.
    for (CameraAOV& aov : camera.aovs) aov.image.name.clear();
    const Region r = camera.region;
    std::vector<float> pixels(size_t(std::max(r.max_x - r.min_x, 0) * std::max(r.max_y - r.min_y, 0)) * 3);
    std::vector<double> seconds[2], gain;
    timePass(1, 0, pixels);  // a first pass fills the caches and the lazy tables
    for (int round = 0; round < rounds; ++round) {
      const int pass = (round + 1) % std::max(camera.sample, 1);
      // Alternating who goes first keeps a slow drift of the load out of the gain.
      for (int k = 0; k < 2; ++k) {
        const bool one = (k == 0) == (round % 2 == 0);
        seconds[one ? 0 : 1].push_back(timePass(one ? 1 : all, pass, pixels));
      }
      gain.push_back(seconds[0].back() / seconds[1].back());
    }
    const auto [low, high] = std::minmax_element(gain.begin(), gain.end());
    std::cout.rdbuf(console);
    std::printf("%-12s %10.3f %10.3f %8.3f  [%5.3f %5.3f]\n", scene.c_str(), median(seconds[0]), median(seconds[1]),
                median(gain), *low, *high);
    std::cout.rdbuf(sink.rdbuf());
    qzFinalize();
    sink.str("");
  }
  std::cout.rdbuf(console);
  return 0;
}
