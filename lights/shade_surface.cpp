// Direct light of point and parallel lights at a hit, with the soft
// terminator of the diffuse lobes.
#include <cmath>

#include "frame/renderer.h"
#include "lights/gaffer.h"
#include "shading/hair_scattering.h"
#include "shading/microfacet.h"

namespace {
constexpr float pi = 3.14159265f;

// Where one sample of a light comes from: unit direction l towards it, the
// distance a shadow ray may go, and the factor s of the light's own shape.
struct LightSample {
  Vec3f l;
  float distance = infinity;
  float s = 1;
};

bool sampleLight(const PointLight& light, const Surface& surface, const SampleCursor& cursor, LightSample& out) {
  Vec3f v = light.position - surface.position;
  if (light.blur > 0) {
    float u1, u2;
    drawPair(cursor, u1, u2);
    Vec3f offset;
    sampleSphere(offset, u1, u2);
    v += light.blur * offset;
  }
  const float d2 = lengthSquared(v);
  out.l = normalize(v);
  out.distance = std::sqrt(d2);
  const float spot = spotFactor(light, -out.l);
  out.s = spot / d2;
  return spot != 0;
}

bool sampleLight(const ParallelLight& light, const Surface&, const SampleCursor& cursor, LightSample& out) {
  out.l = -light.frame.normal;
  if (light.blur > 0) {
    sampleCone(out.l, light.frame, cursor, light.cos_max);
    out.l = -out.l;
  }
  return true;
}

// The diffuse weight with the terminator moved by `offset`; fmax and fmin
// also turn the 0 / 0 of an offset of 1 into no light.
float terminator(float c, float offset) { return std::fmin(std::fmax((c - offset) / (1 - offset), 0.0f), 1.0f); }

// One light sample from the working surface, which a jittered hit has moved;
// `jitterWeight` scales the diffuse lobes only.
template <class AnyLight>
void addLightSample(const AnyLight& light, const Ray& ray, const Surface& surface, const Hit& leaving, uint32_t index,
                    float weight, Color3f jitterWeight, Color3f accumulators[4]) {
  LightSample sample;
  if (!sampleLight(light, surface, decisionCursor(ray, index, decideLightPoint), sample)) return;
  const Vec3f l = sample.l;
  const float c = dot(l, surface.normal);
  const float dr = surface.diffuse_on[0] ? terminator(c, light.offset) : 0;
  const float dt = surface.diffuse_on[1] ? terminator(-c, light.offset) : 0;
  const float gr = surface.glossy_on[0] ? evalGlossyReflection(surface, surface.view, l) * c : 0;
  const float gt = surface.glossy_on[1] ? -evalGlossyTransmission(surface, surface.view, l) * c : 0;
  if (!(dr > 0 || dt > 0 || gr > 0 || gt > 0)) return;
  const Color3f T = shadowTransmittance(ray, leaving, surface.position, l, sample.distance);
  if (!isOn(T)) return;
  const Color3f L = sample.s * T * light.color * weight;
  accumulators[0] += L * dr * jitterWeight;
  accumulators[1] += L * dt * jitterWeight;
  // The glossy lobes alone take 4 pi: the scale in which their evaluation meets a light.
  accumulators[2] += 4 * pi * L * gr;
  accumulators[3] += 4 * pi * L * gt;
}

// The same for a fibre: its diffuse cylinder and its three glossy lobes,
// with no terminator and no side, since a fibre is lit from all around.
template <class AnyLight>
void addFibreSample(const AnyLight& light, const Ray& ray, const Surface& surface, uint32_t index, float weight,
                    Color3f accumulators[4]) {
  LightSample sample;
  if (!sampleLight(light, surface, decisionCursor(ray, index, decideLightPoint), sample)) return;
  const Vec3f l = sample.l;
  const ShaderHair& hair = hairOfShader(ray.hit.shader);
  const float d = surface.diffuse_on[0] ? pi * hairDiffuse(surface.view, l, surface.tangent) : 0;
  const Color3f g =
      surface.glossy_on[0] ? pi * evalHairGlossy(hair, surface.view, l, surface.tangent, surface.hair_h) : black;
  if (!(d > 0 || g.r > 0 || g.g > 0 || g.b > 0)) return;
  const Color3f T = shadowTransmittance(ray, ray.hit, surface.position, l, sample.distance);
  if (!isOn(T)) return;
  const Color3f L = sample.s * T * light.color * weight;
  accumulators[0] += L * d;
  accumulators[2] += L * g;
}

// One sample on later bounces and for small lights seen from a first hit
// without jitter; a share of the light's `sample` per pass otherwise.
template <class AnyLight>
void shadeWithLight(AnyLight& light, LobeRadiance& lobes, const Ray& ray, const Surface& surface, bool fibre) {
  if (!linkAllows(light.link, ray.hit.shader)) return;
  const bool jitter = !fibre && jitterInForce(ray, surface);
  Surface working = surface;
  Hit leaving = ray.hit;
  Color3f accumulators[4];
  // Jitter takes a new nearby point for every sample and leaves from there.
  auto sampleOnce = [&](uint32_t index, float weight) {
    Color3f jitterWeight = white;
    if (fibre) return addFibreSample(light, ray, surface, index, weight, accumulators);
    if (jitter && !findJitteredSurface(ray, surface, working, leaving, jitterWeight)) return;
    addLightSample(light, ray, working, leaving, index, weight, jitterWeight, accumulators);
  };
  const uint32_t bounce = bounceIndex(ray);
  if (bounce != 0 || (!(light.blur > 0) && !jitter)) {
    if (bounce >= uint32_t(renderer.bounce)) return;
    sampleOnce(ray.cursor.index, 1);
  } else {
    const int N = firstBounceSampleCount(surface, ray, light.sample);
    const float weight = float(passCount()) / float(N);
    const PassShare share = passShare(N);
    for (uint32_t j = 0; j < share.count; ++j) sampleOnce(share.index(j), weight);
  }
  finishDirectLight(accumulators, working, lobes, light.aovs, ray);
}
}  // namespace

void shadeSurface(PointLight& light, LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  shadeWithLight(light, lobes, ray, surface, false);
}

void shadeSurface(ParallelLight& light, LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  shadeWithLight(light, lobes, ray, surface, false);
}

void shadeFibre(PointLight& light, LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  shadeWithLight(light, lobes, ray, surface, true);
}

void shadeFibre(ParallelLight& light, LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  shadeWithLight(light, lobes, ray, surface, true);
}
