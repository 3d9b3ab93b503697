// The rays that leave a hit: how a child is made from its parent, how deep
// the tree may grow, and how many samples a lobe takes.
#pragma once

#include <cstdint>

#include "accel/ray.h"
#include "frame/renderer.h"
#include "lights/light.h"
#include "shading/surface.h"

// A ray or a colour counts as dark when no channel is above 1e-6; a NaN is not dark.
inline bool isDark(Color3f c) { return c.r <= 1e-6f && c.g <= 1e-6f && c.b <= 1e-6f; }
// Direct light and the diffuse, glossy and volume lobes stop at the `bounce` setting.
inline bool belowBounceLimit(const Ray& ray) { return int64_t(bounceIndex(ray)) < renderer.bounce; }

// The sample indices one lobe takes at a hit: first, first + step, ... below
// end. Each child stands for k samples of its pixel.
struct LobeSamples {
  uint32_t first = 0, step = 1, end = 1;
  uint32_t k = 1;
};

// At bounce index 0 the share of this pass of a budget that grows with the
// colour T (dealt round the passes, or in the sobol sampler the pass's own run
// of k indices); above it one sample with the ray's own index.
LobeSamples lobeSamples(const Ray& ray, Color3f T);

// A child leaving `surface` by `event`, as sample `index` standing for k
// samples: position, path state, counters, dimension, transmissions and
// index of refraction as the event asks. Direction and throughput are the caller's.
Ray childRay(const Ray& parent, const Surface& surface, uint8_t event, uint32_t index, uint32_t k);
// The primitive that a child leaves, so that it does not hit it again at once.
void leavePrimitive(Ray& child, const Hit& hit);
// The child's radiance, or black when it would lie beyond the depth limit.
Color3f traceChild(const Ray& parent, Ray& child);
// The sample cursor of sample `index` of the lobe that leaves by `event`.
inline SampleCursor lobeCursor(const Ray& ray, uint32_t index, uint8_t event) {
  return decisionCursor(ray, index, event);
}
