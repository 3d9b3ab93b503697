// Direct light of the geometry light at a hit: its stored points chosen by
// their emission, weighed against the lobes by the balance heuristic.
#include <immintrin.h>

#include <algorithm>
#include <cmath>

#include "frame/renderer.h"
#include "lights/geometry_light.h"

namespace {
// The point that u selects by emission, and the probability of that choice.
struct PointPick {
  int index;
  float probability;
};

PointPick pickPoint(float u) {
  const GeometryLight& g = geometryLight;
  PointPick pick;
  pick.index = selectFromCdf(g.cdf.data(), int(g.cdf.size()), g.guide, u, pick.probability);
  return pick;
}

// One sample towards the picked point, from the working surface. Each sample
// goes to the AOVs on its own, since an AOV may take only the points of one shader.
void addPointSample(const Ray& ray, const Surface& surface, const Hit& leaving, PointPick pick, float weight,
                    Color3f jitterWeight, bool firstBounce, bool fibre, LobeRadiance& lobes) {
  const GeometryLight& g = geometryLight;
  const float p = pick.probability;
  // Points on sides that do not emit are never chosen: they have no share of the table.
  if (!(p > 0)) return;
  const GeometryLightPoint& point = g.points[size_t(pick.index)];
  const Vec3f v = point.position - surface.position;
  const float d2 = lengthSquared(v), d = std::sqrt(d2);
  if (!(d > 0)) return;
  const Vec3f l = v / d;
  const float cl = -dot(point.normal, l);
  if (!(cl > 0)) return;
  // A fibre has no sides: light from every direction reaches it.
  const int side = fibre ? 1 : lightSide(surface, l);
  if (side == 0) return;
  const Color3f T =
      shadowTransmittance(ray, leaving, surface.position, l, d, point.kind, uint32_t(point.primitive));
  if (!isOn(T)) return;
  const Color3f L = T * point.emission * (weight / p);
  // The density of uniform sampling over the area, not of the choice by emission.
  const float ps = d2 / (cl * g.area);
  const LightBalance balance{firstBounce, float(g.sample), float(renderer.geometry_light_sample)};
  Color3f accumulators[4];
  if (fibre)
    addBalancedFibreSample(accumulators, ray, surface, l, L, ps, balance);
  else
    addBalancedSample(accumulators, surface, l, side, L, jitterWeight, ps, balance);
  finishDirectLight(accumulators, surface, lobes, geometryLight.aovs, ray, point.shader);
}

// Wrapped once into [0, 1).
float wrap(float u) { return u >= 1 ? u - 1 : u; }

void shadeWithGeometryLight(LobeRadiance& lobes, const Ray& ray, const Surface& surface, bool fibre) {
  const GeometryLight& g = geometryLight;
  if (!(g.area > 0) || g.sample < 1 || g.cdf.empty()) return;
  if (!linkAllows(g.link, ray.hit.shader)) return;
  const bool jitter = !fibre && jitterInForce(ray, surface);
  Surface working = surface;
  Hit leaving = ray.hit;
  // Jitter takes a new nearby point for every sample and leaves from there.
  auto sampleOnce = [&](PointPick pick, float weight, bool firstBounce) {
    Color3f jitterWeight = white;
    if (jitter && !findJitteredSurface(ray, surface, working, leaving, jitterWeight)) return;
    addPointSample(ray, working, leaving, pick, weight, jitterWeight, firstBounce, fibre, lobes);
  };
  const uint32_t bounce = bounceIndex(ray);
  if (bounce == 0) {
    const int N = firstBounceSampleCount(surface, ray, g.sample);
    const PassShare share = passShare(N);
    const int n = int(share.count);
    if (n <= 0) return;
    const float weight = float(passCount()) / float(N);
    // The random sampler stratifies the samples of this pass over the table
    // from one random start, shifted per pixel by the scramble; the sobol
    // sampler takes the pass's run of its sequence.
    const bool random = renderer.sampler == samplerRandom;
    const float r = random ? uniformRandom() : 0, s = float(ray.cursor.scramble) * 2.3283064e-10f;
    auto pickNumber = [&](int k) {
      return random ? wrap((r + float(k)) / float(n) + s)
                    : sobolNumber(decisionCursor(ray, share.index(uint32_t(k)), decideGeometryPick));
    };
    // The picks do not depend on what the samples find: a batch of them is
    // made first and its points fetched while the others are picked, since
    // the points lie all over a table far larger than the caches.
    constexpr int batch = 16;
    PointPick picks[batch];
    for (int first = 0; first < n; first += batch) {
      const int count = std::min(batch, n - first);
      for (int k = 0; k < count; ++k) {
        picks[k] = pickPoint(pickNumber(first + k));
        _mm_prefetch(reinterpret_cast<const char*>(&g.points[size_t(picks[k].index)]), _MM_HINT_T0);
      }
      for (int k = 0; k < count; ++k) sampleOnce(picks[k], weight, true);
    }
  } else if (bounce < uint32_t(renderer.bounce)) {
    float u1, u2;
    drawPair(decisionCursor(ray, ray.cursor.index, decideGeometryPick), u1, u2);
    sampleOnce(pickPoint(u1), 1, false);
  }
}
}  // namespace

void shadeGeometrySurface(LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  shadeWithGeometryLight(lobes, ray, surface, false);
}

void shadeGeometryFibre(LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  shadeWithGeometryLight(lobes, ray, surface, true);
}
