// The fur ball of the hair example: the load time of its hair file, the
// build of its hierarchy, and the closest-hit rate of camera rays and of
// rays crossing the fur in random directions, on one thread and on all.
//
//   cmake -S . -B build -G Ninja -DQZ_BENCH=ON && ninja -C build hair_bench
//   build/bench/hair_bench [runs]
#include <omp.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <sstream>
#include <vector>

#include "accel/ray.h"
#include "frame/report.h"
#include "geometry/hair_reader.h"
#include "geometry/object.h"
#include "geometry/scene_assembly.h"
#include "qz.h"

namespace {
const std::string hairPath =
    (std::filesystem::path(QZ_BENCH_DATA) / "../../scenes/hair/geometry/furball.hair").lexically_normal().string();

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

int64_t threadClock() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

struct Rays {
  const char* name;
  std::vector<Vec3f> origins, directions;
};

// A pinhole view of the ball from the front, one ray a pixel.
Rays cameraRays(int width) {
  Rays rays{"camera", {}, {}};
  const Vec3f eye{0, 0, 4};
  for (int y = 0; y < width; ++y)
    for (int x = 0; x < width; ++x) {
      const Vec3f target{1.6f * (2 * (x + 0.5f) / width - 1), 1.6f * (1 - 2 * (y + 0.5f) / width), 0};
      rays.origins.push_back(eye);
      rays.directions.push_back(normalize(target - eye));
    }
  return rays;
}

// Rays from random points in the fur's shell in random directions: the
// secondary rays of a render, which start among the strands.
Rays shellRays(int count) {
  Rays rays{"in fur", {}, {}};
  std::mt19937 random(14);
  std::normal_distribution<float> g(0, 1);
  std::uniform_real_distribution<float> u(1.05f, 1.4f);
  for (int i = 0; i < count; ++i) {
    rays.origins.push_back(u(random) * normalize(Vec3f{g(random), g(random), g(random)}));
    rays.directions.push_back(normalize(Vec3f{g(random), g(random), g(random)}));
  }
  return rays;
}

// Median M rays/s of closest-hit queries over the set; one thread is timed
// by its own processor clock, all threads by the wall clock.
double closestRate(const Rays& rays, int threads, int runs, size_t& hits) {
  std::vector<double> rates;
  const long n = long(rays.origins.size());
  for (int r = 0; r < runs; ++r) {
    size_t found = 0;
    const bool one = threads == 1;
    const int64_t start = one ? threadClock() : clockNanoseconds();
#pragma omp parallel for num_threads(threads) schedule(dynamic, 256) reduction(+ : found)
    for (long i = 0; i < n; ++i) {
      Ray ray;
      ray.origin = rays.origins[size_t(i)];
      ray.direction = rays.directions[size_t(i)];
      ray.thread = uint32_t(omp_get_thread_num());
      ray.bounces = 1;
      found += traceClosest(ray);
    }
    const int64_t elapsed = (one ? threadClock() : clockNanoseconds()) - start;
    rates.push_back(double(n) / double(elapsed) * 1e3);
    hits = found;
  }
  return median(rates);
}
}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  std::ostringstream sink;
  std::streambuf* console = std::cout.rdbuf(sink.rdbuf());
  qzStartup();
  std::cout.rdbuf(console);

  std::vector<double> loads;
  size_t points = 0, cylinders = 0;
  for (int r = 0; r < runs; ++r) {
    CylinderSet set;
    const int64_t start = clockNanoseconds();
    if (readHairFile(set, hairPath) < 0) return 1;
    loads.push_back(double(clockNanoseconds() - start) * 1e-6);
    points = set.vectorChannels[0].values.size();
    cylinders = set.indices.size();
  }
  std::printf("%s\n%zu points, %zu cylinders\n", hairPath.c_str(), points, cylinders);
  std::printf("load, median of %d runs: %.2f ms\n", runs, median(loads));

  const int o = qzAddObject();
  readHairFile(objects[size_t(o)].cylinders, hairPath);
  std::cout.rdbuf(sink.rdbuf());
  const int64_t start = clockNanoseconds();
  qzInitializeAccelerator();
  const double build = double(clockNanoseconds() - start) * 1e-6;
  std::cout.rdbuf(console);
  std::printf("hierarchy build with the hair uv, all threads: %.1f ms\n\n", build);

  std::printf("closest hits, median of %d runs; one thread: per processor second, all: per second\n", runs);
  std::printf("%-8s %7s %12s %9s\n", "rays", "threads", "M rays/s", "hits");
  for (const Rays& rays : {cameraRays(512), shellRays(262144)})
    for (int threads : {1, omp_get_num_procs()}) {
      size_t hits = 0;
      const double rate = closestRate(rays, threads, runs, hits);
      std::printf("%-8s %7d %12.3f %9zu\n", rays.name, threads, rate, hits);
    }
  qzFinalizeAccelerator();
  return 0;
}
