// The renderer settings: single module-level values shared by every pass.
#pragma once

#include <atomic>
#include <cstdint>

#include "frame/sampling.h"
#include "frame/vec.h"

struct Renderer {
  int bounce = 1;
  float resolution = 0;  // final-gather patch size; above 0 turns the final gather on
  float radius = 0;      // photon gather radius
  int sample = 64;
  int ray_depth = 8;
  int photon_depth = 16;
  Color3f clamp{infinity, infinity, infinity};
  Color3f error = black;
  float display_gamma = 2.2f;
  float exposure = 0;  // kept for scene files; nothing reads it
  bool final_gather = false;
  bool preview = false;
  uint16_t pass = 0;
  int64_t elapsed = 0;  // microseconds inside the parallel loops of the current pass
  int camera = 0;       // only the first camera is ever rendered
  // The lights keep their own copies of the sample count.
  int geometry_light_sample = 64;
  int sky_light_sample = 64;
  // Where the numbers come from (frame/sequence.h) and how a render may stop early.
  uint8_t sampler = 0;  // 0 random, 1 sobol
  uint32_t seed = 0;
  float noise_threshold = 0;  // relative standard error at which a pixel stops; 0: never
  int min_passes = 16;        // passes every pixel takes before it may stop
  double time_limit = 0;      // seconds; 0: none
};

// The counts of one thread, on a cache line of its own: threads tracing side
// by side would otherwise pass one line back and forth on every ray.
struct alignas(64) RayCounters {
  std::atomic<uint64_t> closest{0};
  std::atomic<uint64_t> shadow{0};
  std::atomic<uint64_t> probe{0};
};

extern Renderer renderer;
extern RayCounters threadRayCounters[maxThreads];

// The counters of the thread numbered `thread`; numbers past the table fold back into it.
inline RayCounters& rayCountersOf(uint32_t thread) { return threadRayCounters[thread % maxThreads]; }
// Only the owning thread adds to its counter, so a plain load and store do,
// without the locked add that would cost more than a short walk; readers see
// whole values. Threads past the table that share a slot may lose a count.
inline void countRay(std::atomic<uint64_t>& counter) {
  counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void resetRayCounters();
// The sums over all threads.
uint64_t closestRays();
uint64_t shadowRays();
uint64_t probeRays();
uint64_t totalRays();
// Restores the settings that a render block or finalisation starts from.
void restoreRendererDefaults();
