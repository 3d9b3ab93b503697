// How fast each sampler converges: RMSE against a high-sample reference and
// the processor time of the passes, each the mean of three runs, at 4, 16, 64 and 256 passes, runs of the
// two samplers interleaved, on one thread; then the slope of log RMSE against
// log time, the time each needs to reach the random sampler's RMSE at 256
// passes, and the same for a noise threshold against plain passes.
// The reference is the mean of two sobol renders with other seeds, rendered
// once and cached in the working folder. Its own noise, measured from the
// difference of the two, is taken out of each RMSE; otherwise it would set a
// floor that the better sampler meets first. Preparation (hierarchy, photons)
// is the same whatever the pass count and is printed apart.
//
//   cmake -S . -B build -G Ninja -DQZ_BENCH=ON && ninja -C build convergence_bench
//   build/bench/convergence_bench [width] [reference passes] [scene name...]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <omp.h>

#include "frame/report.h"
#include "output/camera.h"
#include "qz.h"

namespace {
struct Setup {
  const char* name;
  const char* scene;
  int rayDepth;  // 0: the scene's own; 1: direct light only
  int bounce;    // 0: the scene's own
};

struct Render {
  std::vector<float> pixels;
  double preparation = 0, seconds = 0;  // processor time of qzInitialize and of the passes
};

Render render(const Setup& setup, int width, int passes, int sampler, unsigned seed, float threshold = 0) {
  std::ostringstream quiet;
  std::streambuf* out = std::cout.rdbuf(quiet.rdbuf());
  qzStartup();
  qzLoadScene((std::string(QZ_SCENE_DIR) + "/" + setup.scene + "/").c_str());
  if (setup.rayDepth) qzSetRendererRayDepth(setup.rayDepth);
  if (setup.bounce) {
    // The noise compared is that of traced bounces, not of the patches.
    qzSetRendererResolution(0);
    qzSetRendererBounce(setup.bounce);
  }
  int w = 0, h = 0;
  qzGetCameraResolution(0, &w, &h);
  qzSetCameraResolution(0, width, std::max(1, int(std::lround(double(width) * h / std::max(w, 1)))));
  qzSetCameraSample(0, passes);
  qzSetCameraAOVName(0, 0, "");  // kept in memory
  qzSetRendererSampler(sampler);
  qzSetRendererSeed(seed);
  qzSetRendererNoiseThreshold(threshold);
  Render r;
  const int64_t start = processorMilliseconds();
  qzInitialize();
  const int64_t prepared = processorMilliseconds();
  qzRender();
  r.preparation = double(prepared - start) * 1e-3;
  r.seconds = double(processorMilliseconds() - prepared) * 1e-3;
  r.pixels = cameras[0].aovs[0].image.floats;
  qzFinalize();
  qzShutdown();
  std::cout.rdbuf(out);
  return r;
}

std::vector<float> cachedRender(const Setup& setup, int width, int passes, unsigned seed) {
  const std::filesystem::path cache = std::filesystem::path("convergence-cache") /
                                      (std::string(setup.name) + "-" + std::to_string(width) + "-" +
                                       std::to_string(passes) + "-" + std::to_string(seed) + ".f32");
  std::vector<float> pixels;
  if (std::ifstream in{cache, std::ios::binary}) {
    in.seekg(0, std::ios::end);
    pixels.resize(size_t(in.tellg()) / sizeof(float));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(pixels.data()), std::streamsize(pixels.size() * sizeof(float)));
    return pixels;
  }
  const Render r = render(setup, width, passes, 1, seed);
  std::filesystem::create_directories(cache.parent_path());
  std::ofstream(cache, std::ios::binary)
      .write(reinterpret_cast<const char*>(r.pixels.data()), std::streamsize(r.pixels.size() * sizeof(float)));
  std::printf("  reference half rendered in %.0f s, cached as %s\n", r.seconds, cache.c_str());
  return r.pixels;
}

// Values as a display shows them, clipped at 1, so that lamps seen directly
// do not outweigh the lit scene.
double shown(float v) { return std::clamp(double(v), 0.0, 1.0); }

double squaredError(const std::vector<float>& a, const std::vector<float>& b) {
  double sum = 0;
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) sum += (shown(a[i]) - shown(b[i])) * (shown(a[i]) - shown(b[i]));
  return sum / double(std::max<size_t>(a.size(), 1));
}

// The mean of two independent renders, and its own mean squared error:
// a quarter of the two halves' mean squared difference.
struct Reference {
  std::vector<float> pixels;
  double noise = 0;
};

Reference reference(const Setup& setup, int width, int passes) {
  const std::vector<float> a = cachedRender(setup, width, passes, 987654321), b = cachedRender(setup, width, passes, 123456789);
  Reference r{a, squaredError(a, b) / 4};
  for (size_t i = 0; i < r.pixels.size() && i < b.size(); ++i) r.pixels[i] = (a[i] + b[i]) / 2;
  std::printf("  reference: %d passes twice; its own rmse %.5f is taken out\n", passes, std::sqrt(r.noise));
  return r;
}

double rmse(const std::vector<float>& pixels, const Reference& truth) {
  return std::sqrt(std::max(squaredError(pixels, truth.pixels) - truth.noise, 1e-12));
}

struct Point {
  double seconds, error;
};

// Least-squares slope of log error against log time.
double slope(const std::vector<Point>& curve) {
  double sx = 0, sy = 0, sxx = 0, sxy = 0;
  const double n = double(curve.size());
  for (const Point& p : curve) {
    const double x = std::log(p.seconds), y = std::log(p.error);
    sx += x, sy += y, sxx += x * x, sxy += x * y;
  }
  return (n * sxy - sx * sy) / (n * sxx - sx * sx);
}

// The time at which a curve reaches `error`: log-log interpolation between
// the points around it, or the fitted slope past the last one.
double timeToReach(const std::vector<Point>& curve, double error) {
  for (size_t i = 1; i < curve.size(); ++i) {
    const Point& a = curve[i - 1];
    const Point& b = curve[i];
    if (b.error <= error && a.error >= error) {
      const double t = std::log(error / a.error) / std::log(b.error / a.error);
      return a.seconds * std::pow(b.seconds / a.seconds, t);
    }
  }
  if (error < curve.back().error) return curve.back().seconds * std::pow(error / curve.back().error, 1 / slope(curve));
  return curve.front().seconds * std::pow(error / curve.front().error, 1 / slope(curve));
}

void bench(const Setup& setup, int width, int referencePasses) {
  std::printf("%s (%s), %d pixels wide\n", setup.name, setup.scene, width);
  const Reference truth = reference(setup, width, referencePasses);
  const int counts[] = {4, 16, 64, 256};
  std::vector<Point> curves[2];
  std::printf("  %6s  %22s  %22s  %s\n", "passes", "random: s / rmse", "sobol: s / rmse",
              "time per pass sobol/random (preparation s)");
  for (int passes : counts) {
    // Mean squared error and time over a few runs of each, in turn: one run's
    // RMSE moves by 10 to 20 percent from seed to seed.
    constexpr int runs = 3;
    double squared[2] = {0, 0}, seconds[2] = {0, 0}, preparation = 0;
    for (int run = 0; run < runs; ++run)
      for (int sampler : {0, 1}) {
        const Render r = render(setup, width, passes, sampler, unsigned(1 + run));
        squared[sampler] += std::pow(rmse(r.pixels, truth), 2) / runs;
        seconds[sampler] += r.seconds / runs;
        preparation += sampler ? r.preparation / runs : 0;
      }
    for (int sampler : {0, 1}) curves[sampler].push_back({seconds[sampler], std::sqrt(squared[sampler])});
    std::printf("  %6d  %10.2f / %9.5f  %10.2f / %9.5f  %.3f (%.2f)\n", passes, seconds[0], curves[0].back().error,
                seconds[1], curves[1].back().error, seconds[1] / seconds[0], preparation);
  }
  const double target = curves[0].back().error;
  std::printf("  slope of log rmse against log time: random %.2f, sobol %.2f\n", slope(curves[0]), slope(curves[1]));
  std::printf("  time to random's rmse at 256 passes (%.5f): random %.2f s, sobol %.2f s: %.1fx shorter\n", target,
              curves[0].back().seconds, timeToReach(curves[1], target),
              curves[0].back().seconds / timeToReach(curves[1], target));
  // The noise threshold, up to 256 passes, against the plain sobol passes.
  for (float threshold : {0.04f, 0.02f, 0.01f}) {
    double squared = 0, seconds = 0;
    for (int run = 0; run < 3; ++run) {
      const Render a = render(setup, width, 256, 1, unsigned(1 + run), threshold);
      squared += std::pow(rmse(a.pixels, truth), 2) / 3;
      seconds += a.seconds / 3;
    }
    const double e = std::sqrt(squared), plain = timeToReach(curves[1], e);
    std::printf("  noise threshold %.2f: %.2f s, rmse %.5f; plain passes reach it in %.2f s: %.2fx the time\n",
                threshold, seconds, e, plain, plain / seconds);
  }
}
}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);  // each figure as it comes, also into a file
  omp_set_num_threads(1);  // processor time on a shared machine counts no waiting threads
  const int width = argc > 1 ? std::max(std::atoi(argv[1]), 8) : 128;
  const int referencePasses = argc > 2 ? std::max(std::atoi(argv[2]), 256) : 2048;
  const Setup setups[] = {{"cornell-direct", "cornell-box", 1, 1},
                          {"cornell-bounces", "cornell-box", 6, 4},
                          {"cornell-one-bounce", "cornell-box", 2, 1},
                          {"bunny", "bunny", 0, 0},
                          {"materials", "materials", 0, 0},
                          {"hair", "hair", 0, 0}};
  std::printf("RMSE of display values against a %d-pass reference; times are processor seconds\n", referencePasses);
  for (const Setup& setup : setups) {
    bool wanted = argc <= 3;
    for (int i = 3; i < argc; ++i) wanted |= std::string(argv[i]) == setup.name;
    if (wanted) bench(setup, width, referencePasses);
  }
  return 0;
}
