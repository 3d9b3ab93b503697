// The pieces of direct lighting that every light kind shares: how many samples
// a first-bounce hit gets, shadow rays, and where the results go.
#include <algorithm>

#include "frame/renderer.h"
#include "lights/light.h"
#include "output/camera.h"

namespace {
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

Color3f shadowTransmittance(const Ray& from, Vec3f origin, Vec3f direction, float distance) {
  Ray shadow;
  shadow.origin = origin;
  shadow.direction = direction;
  shadow.t = distance;
  shadow.thread = from.thread;
  // Leaving the hit's primitive: it must not shadow itself.
  shadow.prev_instance = from.hit.instance;
  shadow.prev_object = from.hit.object;
  shadow.prev_primitive = from.hit.primitive;
  shadow.prev_kind = from.hit.kind;
  shadow.prev_depth = from.hit.depth;
  traceShadow(shadow);
  return shadow.throughput;
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
