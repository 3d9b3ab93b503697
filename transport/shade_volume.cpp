// The medium inside a shader: single scattering along the ray that ran
// through it, and its attenuation of the glossy and specular results.
#include "transport/child_ray.h"
#include "transport/medium.h"
#include "transport/path.h"

void attenuateInMedium(Color3f (&lobe)[2], const Ray& ray, const Shader& shader) {
  if (ray.hit.transmissions % 2 == 0) return;
  const Color3f a = volumeAttenuation(shader.volume, ray.t);
  lobe[0] *= a;
  lobe[1] *= a;
}

void shadeVolume(LobeRadiance& lobes, const Ray& ray, const Shader& shader, const Surface& surface) {
  const ShaderVolume& volume = shader.volume;
  if (!(volume.density > 0) || ray.hit.transmissions % 2 == 0) return;
  // Free paths and phase angles take hardware numbers in the random sampler, a pair of their own in the sobol one.
  const LobeSamples samples = lobeSamples(ray, ray.throughput);
  const bool first = bounceIndex(ray) == 0;
  Color3f sum;
  for (uint32_t i = samples.first; i < samples.end; i += samples.step) {
    const float s = sampleVolumeDistance(volume, drawNumber(decisionCursor(ray, i, decideVolumeDistance)));
    if (!(s < ray.t)) continue;  // it would scatter behind the surface
    const Color3f W = volumeScatterWeight(volume, s);
    const Color3f A = W * ray.throughput;
    if (!(maxComponent(A) > 0.001f)) continue;
    Ray child = childRay(ray, surface, volumeEvent, i, samples.k);
    child.origin = ray.origin + s * ray.direction;
    child.throughput = A;
    float r1, r2;
    drawTwo(decisionCursor(ray, i, decideVolumeDirection), r1, r2);
    child.direction = sampleVolumePhase(volume, ray.direction, r1, r2);
    if (!first) child.direction = normalize(child.direction);
    sum += W * traceChild(ray, child);
  }
  lobes.volume += sum * (1.0f / float(samples.k));
}
