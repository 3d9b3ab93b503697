#include "shading/fresnel.h"
#include "shading/microfacet.h"
#include "transport/child_ray.h"
#include "transport/glossy_sample.h"
#include "transport/medium.h"
#include "transport/path.h"

namespace {
// The two glossy lobes at one sample index, transmission first; the results
// add to the two sums, each weighted by its lobe colour.
void glossySample(const Ray& ray, const Surface& surface, Vec3f localView, uint32_t index, uint32_t k,
                  Color3f sums[2]) {
  for (int lobe : {1, 0}) {
    Vec3f d;
    float w;
    const SampleCursor cursor = lobeCursor(ray, index, lobe == 0 ? glossyReflectionEvent : glossyTransmissionEvent);
    // Only the first bounce renormalises the mirrored direction.
    if (!sampleGlossyLobe(surface, lobe, cursor, localView, ray.direction, bounceIndex(ray) == 0, d, w)) continue;
    Ray child = childRay(ray, surface, lobe == 0 ? glossyReflectionEvent : glossyTransmissionEvent, index, k);
    child.direction = d;
    child.throughput = w * ray.throughput * surface.glossy[lobe];
    sums[lobe] += w * surface.glossy[lobe] * traceChild(ray, child);
  }
}
}  // namespace

bool sampleGlossyLobe(const Surface& surface, int lobe, const SampleCursor& cursor, Vec3f localView, Vec3f in,
                      bool renormalise, Vec3f& d, float& w) {
  Vec3f h;
  sampleVisibleNormal(surface, lobe, cursor, localView, h);
  const float F = fresnelSchlick(-in, h, surface.eta);
  if (lobe == 1) {
    if (!surface.glossy_on[1] || !(F < 1)) return false;
    refractThrough(d, in, h, surface.eta, -dot(h, in));
    w = smithG1(surface, 1, h, d) * (1 - F);
    return dot(d, surface.geometric_normal) < 0;
  }
  if (!surface.glossy_on[0] || !(F > 0)) return false;
  d = in + 2 * -dot(h, in) * h;
  if (renormalise) d = normalize(d);
  w = smithG1(surface, 0, h, d) * F;
  return dot(d, surface.geometric_normal) > 0;
}

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
