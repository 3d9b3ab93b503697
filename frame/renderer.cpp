#include "frame/renderer.h"

#include <algorithm>

#include "frame/report.h"
#include "qz.h"
#include "transport/density_estimator.h"
#include "transport/photon.h"

Renderer renderer;
RayCounters threadRayCounters[maxThreads];

namespace {
uint64_t sum(std::atomic<uint64_t> RayCounters::*counter) {
  uint64_t total = 0;
  for (const RayCounters& c : threadRayCounters) total += (c.*counter).load(std::memory_order_relaxed);
  return total;
}
}  // namespace

void resetRayCounters() {
  for (RayCounters& c : threadRayCounters) c.closest = c.shadow = c.probe = 0;
}

uint64_t closestRays() { return sum(&RayCounters::closest); }
uint64_t shadowRays() { return sum(&RayCounters::shadow); }
uint64_t probeRays() { return sum(&RayCounters::probe); }
uint64_t totalRays() { return closestRays() + shadowRays() + probeRays(); }

void restoreRendererDefaults() {
  renderer.photon_depth = 16;
  renderer.ray_depth = 8;
  renderer.sample = 64;
  renderer.bounce = 1;
  renderer.radius = 0;
  renderer.resolution = 0;
  renderer.elapsed = 0;
  renderer.final_gather = false;
  renderer.sampler = 0;
  renderer.seed = 0;
  renderer.noise_threshold = 0;
  renderer.min_passes = 16;
}

void qzSetRendererBounce(int bounce) { renderer.bounce = bounce; }
void qzSetRendererResolution(float resolution) { renderer.resolution = resolution; }
void qzSetRendererRadius(float radius) { renderer.radius = radius; }
void qzSetRendererSample(int sample) { renderer.sample = sample; }
void qzSetRendererRayDepth(int depth) { renderer.ray_depth = depth; }
void qzSetRendererPhotonDepth(int depth) { renderer.photon_depth = depth; }
void qzSetRendererClamp(float r, float g, float b) { renderer.clamp = {r, g, b}; }
void qzSetRendererError(float r, float g, float b) { renderer.error = {r, g, b}; }
void qzSetRendererSampler(int sampler) { renderer.sampler = uint8_t(sampler == 1); }
void qzSetRendererSeed(unsigned seed) { renderer.seed = seed; }
void qzSetRendererNoiseThreshold(float threshold) { renderer.noise_threshold = threshold; }
void qzSetRendererMinPasses(int passes) { renderer.min_passes = passes; }
void qzSetRendererTimeLimit(double seconds) { renderer.time_limit = seconds; }
void qzSetDisplayGamma(float gamma) { renderer.display_gamma = gamma; }
void qzSetPreviewWindow(bool preview) { renderer.preview = preview; }

void qzInitializeRenderer() {
  for (int c = 0; c < 3; ++c) renderer.clamp[c] = std::max(renderer.clamp[c], 0.0f);
  renderer.camera = 0;
  resetRayCounters();
  renderer.ray_depth = std::max(renderer.ray_depth, 1);
  renderer.photon_depth = std::max(renderer.photon_depth, 1);
  if (renderer.resolution > 0) renderer.final_gather = true;
  if (renderer.final_gather || renderer.radius > 0) {
    prepareDensityEstimator();
    castPhotons();
    printRule();
  }
  resetRayCounters();
  renderer.geometry_light_sample = renderer.sample;
  renderer.sky_light_sample = renderer.sample;
  printIntegerRow("renderer sample", renderer.sample, "n/a");
  printRule();
}

void qzFinalizeRenderer() {
  finalizeDensityEstimator();
  clearPhotons();
  restoreRendererDefaults();
}
