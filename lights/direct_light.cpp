// The pieces of direct lighting that every light kind shares: how many samples
// a first-bounce hit gets, shadow rays, and where the results go.
#include <algorithm>
#include <cmath>

#include "frame/renderer.h"
#include "lights/light.h"
#include "output/camera.h"
#include "shading/jitter_diffuse.h"
#include "transport/child_ray.h"

namespace {
// A probe finds a face of the hit's shader nearly always; this many failures
// mean it never will, and the sample is given up.
constexpr int jitterTries = 64;

float meanComponent(Color3f c) { return (c.r + c.g + c.b) / 3; }

// Accumulator bits of a light AOV: diffuse and glossy, reflection and transmission.
constexpr uint32_t accumulatorBits[4] = {0x8, 0x20, 0x80, 0x200};
}  // namespace

int passCount() {
  const int P = size_t(renderer.camera) < cameras.size() ? cameras[renderer.camera].sample : 1;
  return std::max(P, 1);
}

float lobeAverage(const Surface& surface) {
  float sum = 0;
  int count = 0;
  const Color3f colors[4] = {surface.diffuse[0], surface.diffuse[1], surface.glossy[0], surface.glossy[1]};
  const uint8_t on[4] = {surface.diffuse_on[0], surface.diffuse_on[1], surface.glossy_on[0], surface.glossy_on[1]};
  for (int i = 0; i < 4; ++i) {
    if (!on[i]) continue;
    sum += meanComponent(colors[i]);
    ++count;
  }
  return count > 0 ? sum / float(count) : 0.0f;
}

int firstBounceSampleCount(const Surface& surface, const Ray& ray, int sample) {
  const Color3f& T = ray.throughput;
  const float wanted = lobeAverage(surface) * (T.r + T.g + T.b) / 3 / 3 * 3 * float(sample);
  const int P = passCount();
  // fmin and fmax also turn a NaN or a negative wish into a count in range.
  const int n = std::max(int(std::fmax(std::fmin(wanted, float(sample)), 0.0f)), P);
  return n - n % P;
}

Color3f shadowTransmittance(const Ray& from, const Hit& leaving, Vec3f origin, Vec3f direction, float distance) {
  Ray shadow;
  shadow.origin = origin;
  shadow.direction = direction;
  shadow.t = distance;
  shadow.thread = from.thread;
  // The primitive under the origin must not shadow itself.
  leavePrimitive(shadow, leaving);
  traceShadow(shadow);
  return shadow.throughput;
}

bool jitterInForce(const Ray& ray, const Surface& surface) {
  const Color3f& r = surface.jitter;
  const bool face = ray.hit.kind == 3 || ray.hit.kind == 4;
  return face && surface.jitter_on && std::fmin(r.r, std::fmin(r.g, r.b)) > 0;
}

bool findJitteredSurface(const Ray& ray, const Surface& surface, Surface& jittered, Hit& jitteredHit,
                         Color3f& weight) {
  for (int tries = 0; tries < jitterTries; ++tries)
    if (jitterDiffuse(ray, surface, jittered, jitteredHit, weight)) return true;
  return false;
}

void finishDirectLight(Color3f accumulators[4], const Surface& surface, LobeRadiance& lobes,
                       std::vector<CameraAOV>& aovs, const Ray& ray) {
  const Color3f colors[4] = {surface.diffuse[0], surface.diffuse[1], surface.glossy[0], surface.glossy[1]};
  Color3f* targets[4] = {&lobes.diffuse[0], &lobes.diffuse[1], &lobes.glossy[0], &lobes.glossy[1]};
  for (int i = 0; i < 4; ++i) {
    accumulators[i] *= colors[i];
    *targets[i] += accumulators[i];
    if (!aovs.empty()) addToLightAOVs(aovs, accumulatorBits[i], accumulators[i], ray);
  }
}
