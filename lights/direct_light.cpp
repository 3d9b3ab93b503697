// The pieces of direct lighting that every light kind shares: how many samples
// a first-bounce hit gets, shadow rays, and where the results go.
#include <algorithm>
#include <cmath>

#include "accel/bbvh.h"
#include "frame/renderer.h"
#include "lights/light.h"
#include "output/camera.h"
#include "shading/hair_scattering.h"
#include "shading/jitter_diffuse.h"
#include "shading/microfacet.h"
#include "transport/child_ray.h"

namespace {
// A probe finds a face of the hit's shader nearly always; this many failures
// mean it never will, and the sample is given up.
constexpr int jitterTries = 64;
constexpr float pi = 3.14159265f;

float meanComponent(Color3f c) { return (c.r + c.g + c.b) / 3; }

// Accumulator bits of a light AOV: diffuse and glossy, reflection and transmission.
constexpr uint32_t accumulatorBits[4] = {0x8, 0x20, 0x80, 0x200};
}  // namespace

int passCount() {
  const int P = size_t(renderer.camera) < cameras.size() ? cameras[renderer.camera].sample : 1;
  return std::max(P, 1);
}

PassShare passShare(int N) {
  const int P = passCount(), pass = renderer.pass;
  const uint32_t count = N > pass ? uint32_t((N - pass + P - 1) / P) : 0;
  if (renderer.sampler == samplerRandom) return {uint32_t(pass), uint32_t(P), count};
  return {uint32_t(pass) * uint32_t((N + P - 1) / P), 1, count};
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

Color3f shadowTransmittance(const Ray& from, const Hit& leaving, Vec3f origin, Vec3f direction, float distance,
                            uint8_t targetKind, uint32_t targetPrimitive) {
  Ray shadow;
  shadow.origin = origin;
  shadow.direction = direction;
  shadow.t = distance;
  shadow.thread = from.thread;
  // The primitive under the origin must not shadow itself.
  leavePrimitive(shadow, leaving);
  shadow.hit.kind = targetKind;
  shadow.hit.primitive = targetPrimitive;
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

int lightSide(const Surface& surface, Vec3f l) {
  const float c = dot(l, surface.normal), cg = dot(l, surface.geometric_normal);
  if ((surface.diffuse_on[0] || surface.glossy_on[0]) && c > 0 && cg > 0) return 1;
  if ((surface.diffuse_on[1] || surface.glossy_on[1]) && c < 0 && cg < 0) return -1;
  return 0;
}

void addBalancedSample(Color3f accumulators[4], const Surface& surface, Vec3f l, int side, Color3f L,
                       Color3f diffuseWeight, float ps, const LightBalance& balance) {
  const float c = dot(l, surface.normal);
  const float Ns = balance.light_samples, Nb = balance.bounce_samples;
  // f is the lobe's value along l, pb its own density of l.
  auto add = [&](Color3f& accumulator, Color3f radiance, float f, float pb) {
    const float w = balance.first_bounce ? Ns / (Nb * pb + Ns * ps) : 1 / (pb + ps);
    accumulator += radiance * (w * f);
  };
  if (side > 0) {
    if (surface.diffuse_on[0]) add(accumulators[0], L * diffuseWeight, c / pi, c / pi);
    if (surface.glossy_on[0])
      add(accumulators[2], L, evalGlossyReflection(surface, surface.view, l) * c,
          pdfGlossyReflection(surface, surface.view, l));
  } else if (side < 0) {
    if (surface.diffuse_on[1]) add(accumulators[1], L * diffuseWeight, -c / pi, -c / pi);
    if (surface.glossy_on[1])
      add(accumulators[3], L, -evalGlossyTransmission(surface, surface.view, l) * c,
          pdfGlossyTransmission(surface, surface.view, l));
  }
}

void addBalancedFibreSample(Color3f accumulators[4], const Ray& ray, const Surface& surface, Vec3f l, Color3f L,
                            float ps, const LightBalance& balance) {
  const float Ns = balance.light_samples, Nb = balance.bounce_samples;
  auto weight = [&](float pb) { return balance.first_bounce ? Ns / (Nb * pb + Ns * ps) : 1 / (pb + ps); };
  if (surface.diffuse_on[0]) {
    const float d = hairDiffuse(surface.view, l, surface.tangent);
    accumulators[0] += L * (weight(d) * d);
  }
  if (surface.glossy_on[0]) {
    Color3f colours[3];
    float densities[3];
    evalHairLobes(hairOfShader(ray.hit.shader), surface.view, l, surface.tangent, surface.hair_h, colours,
                  densities);
    for (int p = 0; p < 3; ++p) accumulators[2] += L * colours[p] * weight(densities[p]);
  }
}

float bounceDensity(const Ray& ray) {
  const Surface& parent = *ray.parent;
  if (ray.prev_kind == kindCylinder) return fibreDensity(parent, ray.prev_shader, ray.hit.event, ray.direction);
  switch (ray.hit.event) {
    case diffuseReflectionEvent: return dot(ray.direction, parent.normal) / pi;
    case diffuseTransmissionEvent: return -dot(ray.direction, parent.normal) / pi;
    case glossyTransmissionEvent: return pdfGlossyTransmission(parent, parent.view, ray.direction);
    default: return pdfGlossyReflection(parent, parent.view, ray.direction);
  }
}

void finishDirectLight(Color3f accumulators[4], const Surface& surface, LobeRadiance& lobes,
                       std::vector<CameraAOV>& aovs, const Ray& ray, int shader) {
  const Color3f colors[4] = {surface.diffuse[0], surface.diffuse[1], surface.glossy[0], surface.glossy[1]};
  Color3f* targets[4] = {&lobes.diffuse[0], &lobes.diffuse[1], &lobes.glossy[0], &lobes.glossy[1]};
  for (int i = 0; i < 4; ++i) {
    accumulators[i] *= colors[i];
    *targets[i] += accumulators[i];
    if (!aovs.empty()) addToLightAOVs(aovs, accumulatorBits[i], accumulators[i], ray, shader);
  }
}
