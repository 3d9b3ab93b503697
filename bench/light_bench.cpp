// Costs of the lights: building the sky's tables from an environment image on
// one thread and on all, and one call of direct lighting at a first hit for
// the sky and for a point light, in an empty world (shadow rays end at once).
//
//   cmake -S . -B build -G Ninja -DQZ_BENCH=ON && ninja -C build light_bench
//   build/bench/light_bench [image width]
#include <omp.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "frame/renderer.h"
#include "frame/report.h"
#include "lights/gaffer.h"
#include "lights/sky.h"
#include "qz.h"

namespace {
// A smooth environment of the given width, twice as wide as high, in memory.
void environment(int width) {
  const int height = width / 2;
  allocateImage(sky.image, width, height, 3, 32, 0);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const float s = 1 + 3 * std::pow(std::sin(3.14159265f * float(x) / float(width)), 4.0f);
      writePixel(sky.image, {s, 0.5f * s, 1}, int64_t(y) * width + x);
    }
  sky.image.loaded = 1;
  sky.image.name = "bench sky";
}

// Milliseconds of one preparation of the sky with the given thread count.
double tableMilliseconds(int width, int threads) {
  omp_set_num_threads(threads);
  environment(width);
  std::ostringstream quiet;
  std::streambuf* out = std::cout.rdbuf(quiet.rdbuf());
  const int64_t start = clockNanoseconds();
  prepareSky();
  const int64_t end = clockNanoseconds();
  std::cout.rdbuf(out);
  return double(end - start) * 1e-6;
}

Surface floorPoint() {
  Surface s;
  s.tangent = {1, 0, 0};
  s.bitangent = {0, 0, -1};
  s.normal = s.geometric_normal = s.view = {0, 1, 0};
  s.cos_view = 1;
  s.diffuse[0] = {0.5f, 0.5f, 0.5f};
  s.diffuse_on[0] = 1;
  return s;
}

template <class Shade>
double nanosecondsPerCall(int calls, Shade shade) {
  const Surface s = floorPoint();
  Ray ray;
  ray.hit.event = 1;
  LobeRadiance lobes;
  const int64_t start = clockNanoseconds();
  for (int i = 0; i < calls; ++i) {
    ray.cursor.scramble = uint32_t(i) * 2654435761u;
    shade(lobes, ray, s);
  }
  const int64_t end = clockNanoseconds();
  if (lobes.diffuse[0].r < 0) std::puts("");  // keeps the work
  return double(end - start) / calls;
}
}  // namespace

int main(int argc, char** argv) {
  const int width = argc > 1 ? std::max(std::atoi(argv[1]), 16) : 2048;
  std::ostringstream quiet;
  std::streambuf* out = std::cout.rdbuf(quiet.rdbuf());
  qzStartup();
  std::cout.rdbuf(out);
  const int all = omp_get_num_procs();
  std::printf("sky tables, %d x %d image, 393216 cells x 9 lookups\n", width, width / 2);
  std::printf("  1 thread:   %8.1f ms\n", tableMilliseconds(width, 1));
  std::printf("  %d threads: %8.1f ms\n", all, tableMilliseconds(width, all));

  renderer.sky_light_sample = 64;
  std::printf("sky direct light at a first hit, %d samples: %8.0f ns a call\n", sky.sample,
              nanosecondsPerCall(20000, [](LobeRadiance& l, const Ray& r, const Surface& s) { shadeSkySurface(l, r, s); }));
  PointLight& light = pointLights[size_t(qzAddPointLight())];
  light.position = {0, 2, 0};
  light.direction = {0, -1, 0};
  std::ostringstream rows;
  out = std::cout.rdbuf(rows.rdbuf());
  prepareGaffer();
  std::cout.rdbuf(out);
  std::printf("point light at a first hit, one sample:        %8.0f ns a call\n",
              nanosecondsPerCall(200000, [&](LobeRadiance& l, const Ray& r, const Surface& s) { shadeSurface(light, l, r, s); }));
  return 0;
}
