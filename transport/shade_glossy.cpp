#include "shading/fresnel.h"
#include "shading/microfacet.h"
#include "transport/child_ray.h"
#include "transport/medium.h"
#include "transport/path.h"

namespace {
// The two glossy lobes at one sample index, transmission first; the results
// add to the two sums, each weighted by its lobe colour.
void glossySample(const Ray& ray, const Surface& surface, Vec3f localView, uint32_t index, uint32_t k,
                  Color3f sums[2]) {
  const SampleCursor cursor = lobeCursor(ray, index);
  const Vec3f in = ray.direction, out = -ray.direction;
  Vec3f h;
  sampleVisibleNormal(surface, 1, cursor, localView, h);
  float F = fresnelSchlick(out, h, surface.eta);
  if (surface.glossy_on[1] && F < 1) {
    Vec3f d;
    refractThrough(d, in, h, surface.eta, -dot(h, in));
    if (dot(d, surface.geometric_normal) < 0) {
      const float w = smithG1(surface, 1, h, d) * (1 - F);
      Ray child = childRay(ray, surface, glossyTransmissionEvent, index, k);
      child.direction = d;
      child.throughput = w * ray.throughput * surface.glossy[1];
      sums[1] += w * surface.glossy[1] * traceChild(ray, child);
    }
  }
  sampleVisibleNormal(surface, 0, cursor, localView, h);
  F = fresnelSchlick(out, h, surface.eta);
  if (surface.glossy_on[0] && F > 0) {
    Vec3f d = in + 2 * -dot(h, in) * h;
    // Only the first bounce renormalises the mirrored direction.
    if (bounceIndex(ray) == 0) d = normalize(d);
    if (dot(d, surface.geometric_normal) > 0) {
      const float w = smithG1(surface, 0, h, d) * F;
      Ray child = childRay(ray, surface, glossyReflectionEvent, index, k);
      child.direction = d;
      child.throughput = w * ray.throughput * surface.glossy[0];
      sums[0] += w * surface.glossy[0] * traceChild(ray, child);
    }
  }
}
}  // namespace

void shadeGlossy(LobeRadiance& lobes, const Ray& ray, const Shader& shader, const Surface& surface) {
  const Vec3f out = -ray.direction;
  const Vec3f local{dot(out, surface.tangent), dot(out, surface.bitangent), dot(out, surface.normal)};
  // Seen from below its shading normal the lobe takes no sample.
  if (belowBounceLimit(ray) && local.z >= 1e-6f) {
    const LobeSamples samples = lobeSamples(ray, ray.throughput);
    Color3f sums[2];
    uint32_t count = 0;  // samples taken, accepted or not; the same for both lobes
    for (uint32_t i = samples.first; i < samples.end; i += samples.step, ++count)
      glossySample(ray, surface, local, i, samples.k, sums);
    if (count > 0)
      for (int lobe = 0; lobe < 2; ++lobe) lobes.glossy[lobe] += sums[lobe] / float(count);
  }
  attenuateInMedium(lobes.glossy, ray, shader);
}
