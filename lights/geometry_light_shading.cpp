// Direct light of the geometry light at a hit: its stored points chosen by
// their emission, weighed against the lobes by the balance heuristic.
#include <cmath>

#include "frame/renderer.h"
#include "lights/geometry_light.h"

namespace {
// One sample towards the point that u selects, from the working surface.
// Each sample goes to the AOVs on its own, since an AOV may take only the
// points of one shader.
void addPointSample(const Ray& ray, const Surface& surface, const Hit& leaving, float u, float weight,
                    Color3f jitterWeight, bool firstBounce, LobeRadiance& lobes) {
  const GeometryLight& g = geometryLight;
  float p;
  const int i = selectFromCdf(g.cdf.data(), int(g.cdf.size()), u, p);
  // Points on sides that do not emit are never chosen: they have no share of the table.
  if (!(p > 0)) return;
  const GeometryLightPoint& point = g.points[size_t(i)];
  const Vec3f v = point.position - surface.position;
  const float d2 = lengthSquared(v), d = std::sqrt(d2);
  if (!(d > 0)) return;
  const Vec3f l = v / d;
  const float cl = -dot(point.normal, l);
  if (!(cl > 0)) return;
  const int side = lightSide(surface, l);
  if (side == 0) return;
  const Color3f T =
      shadowTransmittance(ray, leaving, surface.position, l, d, point.kind, uint32_t(point.primitive));
  if (!isOn(T)) return;
  const Color3f L = T * point.emission * (weight / p);
  // The density of uniform sampling over the area, not of the choice by emission.
  const float ps = d2 / (cl * g.area);
  const LightBalance balance{firstBounce, float(g.sample), float(renderer.geometry_light_sample)};
  Color3f accumulators[4];
  addBalancedSample(accumulators, surface, l, side, L, jitterWeight, ps, balance);
  finishDirectLight(accumulators, surface, lobes, geometryLight.aovs, ray, point.shader);
}

// Wrapped once into [0, 1).
float wrap(float u) { return u >= 1 ? u - 1 : u; }
}  // namespace

void shadeGeometrySurface(LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  const GeometryLight& g = geometryLight;
  if (!(g.area > 0) || g.sample < 1 || g.cdf.empty()) return;
  if (!linkAllows(g.link, ray.hit.shader)) return;
  const bool jitter = jitterInForce(ray, surface);
  Surface working = surface;
  Hit leaving = ray.hit;
  // Jitter takes a new nearby point for every sample and leaves from there.
  auto sampleOnce = [&](float u, float weight, bool firstBounce) {
    Color3f jitterWeight = white;
    if (jitter && !findJitteredSurface(ray, surface, working, leaving, jitterWeight)) return;
    addPointSample(ray, working, leaving, u, weight, jitterWeight, firstBounce, lobes);
  };
  const uint32_t bounce = bounceIndex(ray);
  if (bounce == 0) {
    // The samples of this pass are stratified over the table from one random
    // start, shifted per pixel by the scramble.
    const int N = firstBounceSampleCount(surface, ray, g.sample);
    const int P = passCount();
    const int n = (N - renderer.pass + P - 1) / P;
    if (n <= 0) return;
    const float r = uniformRandom(), s = float(ray.cursor.scramble) * 2.3283064e-10f;
    const float weight = float(P) / float(N);
    for (int k = 0; k < n; ++k) sampleOnce(wrap((r + float(k)) / float(n) + s), weight, true);
  } else if (bounce < uint32_t(renderer.bounce)) {
    float u1, u2;
    samplePair(ray.cursor, u1, u2);
    sampleOnce(u1, 1, false);
  }
}
