// The diffuse lobes: cosine-weighted children above or below the surface,
// from the hit itself or, with jitter, from a nearby point of the same shader.
#include "shading/sampling_shapes.h"
#include "transport/child_ray.h"
#include "transport/path.h"
#include "transport/photon.h"

namespace {
// The mean radiance of one diffuse lobe's children, each started with throughput C.
Color3f diffuseLobe(const Ray& ray, const Surface& surface, Color3f C, int lobe) {
  const LobeSamples samples = lobeSamples(ray, C);
  const bool jitter = lobe == 0 && surface.jitter_on && bounceIndex(ray) == 0;
  Color3f sum;
  int count = 0;
  for (uint32_t i = samples.first; i < samples.end; i += samples.step) {
    const Surface* from = &surface;
    Surface jittered;
    Hit jitteredHit;
    Color3f W = white;
    if (jitter) {
      // Retried until a probe finds the shader again; a shader that probes never find gives the sample up.
      if (!findJitteredSurface(ray, surface, jittered, jitteredHit, W)) continue;
      from = &jittered;
    }
    Vec3f d;
    if (lobe == 0)
      sampleHemisphere(d, frameOf(*from), lobeCursor(ray, i, diffuseReflectionEvent));
    else
      sampleLowerHemisphere(d, frameOf(*from), lobeCursor(ray, i, diffuseTransmissionEvent));
    const float side = dot(d, from->geometric_normal);
    if (lobe == 0 ? !(side > 0) : !(side < 0)) continue;
    Ray child = childRay(ray, *from, lobe == 0 ? diffuseReflectionEvent : diffuseTransmissionEvent, i, samples.k);
    if (jitter) leavePrimitive(child, jitteredHit);
    child.direction = d;
    child.throughput = W * C;
    sum += W * traceChild(ray, child);
    ++count;
  }
  return count > 0 ? sum / float(count) : sum;
}
}  // namespace

void shadeLambertian(LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  if (!belowBounceLimit(ray)) return;
  // Both sides add the same caustic lookup, so it is made once.
  const Color3f caustic = photonStore.photons.empty() ? black : gatherCaustics(ray, surface);
  if (surface.diffuse_on[0]) {
    const Color3f C = surface.diffuse[0] * ray.throughput;
    // A reflection too dark to follow ends the transmission too, whatever its colour.
    if (isDark(C)) return;
    lobes.diffuse[0] += (diffuseLobe(ray, surface, C, 0) + caustic) * surface.diffuse[0];
  }
  if (surface.diffuse_on[1]) {
    const Color3f C = surface.diffuse[1] * ray.throughput;
    if (!isDark(C)) lobes.diffuse[1] += (diffuseLobe(ray, surface, C, 1) + caustic) * surface.diffuse[1];
  }
}

void shadeHairLambertian(LobeRadiance& lobes, const Ray& ray, Surface& surface) {
  surface.hair_lobe = 255;
  const Color3f C = surface.diffuse[0] * ray.throughput;
  if (isDark(C)) return;
  // The first bounce always takes its share; later ones only below the bounce limit.
  if (bounceIndex(ray) != 0 && !belowBounceLimit(ray)) return;
  const LobeSamples samples = lobeSamples(ray, C);
  Color3f sum;
  for (uint32_t i = samples.first; i < samples.end; i += samples.step) {
    Ray child = childRay(ray, surface, diffuseReflectionEvent, i, samples.k);
    // A fibre has no inside: every direction about the turned normal counts.
    sampleHemisphere(child.direction, frameOf(surface), lobeCursor(ray, i, diffuseReflectionEvent));
    child.throughput = C;
    sum += traceChild(ray, child);
  }
  lobes.diffuse[0] += sum / float(samples.k) * surface.diffuse[0];
}
