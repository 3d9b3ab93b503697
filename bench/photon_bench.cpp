// Costs of the photon stores on the `materials` example: the casting rate
// (the "photon   cast" rows, by the wall clock), one caustic gather on the
// ground under the glass sphere, walked like a camera's row and at random
// points, and one patch read at a ground hit, in this thread's processor time.
//
//   cmake -S . -B build -G Ninja -DQZ_BENCH=ON && ninja -C build photon_bench
//   build/bench/photon_bench [scene directory]
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "accel/fill.h"
#include "frame/renderer.h"
#include "frame/report.h"
#include "qz.h"
#include "shading/shader.h"
#include "transport/density_estimator.h"
#include "transport/photon.h"

namespace {
struct GroundHit {
  Ray ray;
  Surface surface;
};

// Hits on the ground from straight above, over the square [x0, x0 + size] x [z0, z0 + size].
std::vector<GroundHit> groundHits(int count, float x0, float z0, float size, bool shuffled) {
  std::mt19937 random(1);
  std::uniform_real_distribution<float> unit(0, 1);
  std::vector<GroundHit> hits;
  for (int i = 0; hits.size() < size_t(count) && i < 4 * count; ++i) {
    // In order, a camera row; shuffled, points with no neighbour before them.
    const float u = shuffled ? unit(random) : float(i % 100) / 100, v = shuffled ? unit(random) : float(i / 100) / 100;
    GroundHit h;
    h.ray.origin = {x0 + u * size, 0.01f, z0 + v * size};
    h.ray.direction = {0, -1, 0};
    updateInverseDirection(h.ray);
    if (!traceClosest(h.ray) || h.ray.hit.depth != 0) continue;
    fillSurface(h.ray, shaders[h.ray.hit.shader], h.surface);
    hits.push_back(h);
  }
  return hits;
}

// Processor time of this thread: on a shared machine the wall clock counts other processes' turns.
int64_t threadNanoseconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

template <typename Lookup>
double nanosecondsPerLookup(const std::vector<GroundHit>& hits, int rounds, Lookup lookup) {
  Color3f sink;
  const int64_t start = threadNanoseconds();
  for (int r = 0; r < rounds; ++r)
    for (const GroundHit& h : hits) sink += lookup(h);
  const int64_t end = threadNanoseconds();
  if (sink.r < 0) std::puts("");  // keeps the work
  return double(end - start) / double(rounds * hits.size());
}
}  // namespace

int main(int argc, char** argv) {
  const std::string scene = argc > 1 ? argv[1] : QZ_BENCH_DATA "/../../scenes/materials";
  std::ostringstream report;
  std::streambuf* out = std::cout.rdbuf(report.rdbuf());
  qzStartup();
  qzLoadScene(scene.c_str());
  // Patches on the ground as well as the caustics that the scene asks for.
  qzSetRendererResolution(0.01f);
  qzInitialize();
  std::cout.rdbuf(out);

  // The rows only: a progress line shares its start, and the per-photon lines start with a blank.
  std::istringstream lines(report.str());
  for (std::string line; std::getline(lines, line);) {
    const size_t back = line.find_last_of('\r');
    const std::string row = back == std::string::npos ? line : line.substr(back + 1);
    if (row.rfind("photon ", 0) == 0 || row.rfind("density", 0) == 0) std::cout << row << "\n";
  }
  uint32_t leaves = 0, largest = 0;
  for (const PhotonNode& node : photonStore.nodes)
    if (node.children == 0) ++leaves, largest = std::max(largest, node.count);
  std::printf("photons stored   %zu in %u leaves, the largest of %u\n", photonStore.photons.size(), leaves, largest);

  // The square under and beside the glass sphere, which stands at x = -2.
  const std::vector<GroundHit> row = groundHits(10000, -3.5f, -1.5f, 3, false);
  const std::vector<GroundHit> scattered = groundHits(10000, -3.5f, -1.5f, 3, true);
  std::printf("caustic gather, camera order  %8.1f ns\n",
              nanosecondsPerLookup(row, 20, [](const GroundHit& h) { return gatherCaustics(h.ray, h.surface); }));
  std::printf("caustic gather, random order  %8.1f ns\n",
              nanosecondsPerLookup(scattered, 20, [](const GroundHit& h) { return gatherCaustics(h.ray, h.surface); }));
  std::printf("patch read                    %8.1f ns\n",
              nanosecondsPerLookup(scattered, 200, [](const GroundHit& h) { return readPatch(h.ray); }));

  std::cout.rdbuf(report.rdbuf());
  qzFinalize();
  qzShutdown();
  std::cout.rdbuf(out);
  return 0;
}
