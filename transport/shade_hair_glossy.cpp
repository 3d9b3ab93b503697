// The glossy lobes of a fibre: each child leaves along one of R, TT or TRT,
// chosen by its attenuation, and the fibre remembers which for the weights
// of whatever light that child finds.
#include <cmath>

#include "shading/hair_scattering.h"
#include "transport/child_ray.h"
#include "transport/path.h"

void shadeHairGlossy(LobeRadiance& lobes, const Ray& ray, const Shader& shader, Surface& surface) {
  // The first bounce always takes its share; later ones only below the bounce limit.
  if (bounceIndex(ray) != 0 && !belowBounceLimit(ray)) return;
  const Frame frame = hairFrame(surface.tangent, surface.view);
  // The lobes leave about the mirror of the view's inclination.
  const float thetaO = -std::asin(std::fmax(-1.0f, std::fmin(1.0f, dot(surface.view, surface.tangent))));
  const LobeSamples samples = lobeSamples(ray, ray.throughput);
  Color3f sum;
  for (uint32_t i = samples.first; i < samples.end; i += samples.step) {
    Ray child = childRay(ray, surface, glossyReflectionEvent, i, samples.k);
    Color3f weight;
    float u[4];
    drawTwo(decisionCursor(ray, i, decideHairLobe), u[0], u[1]);
    drawTwo(decisionCursor(ray, i, decideHairChoice), u[2], u[3]);
    surface.hair_lobe = uint8_t(sampleHair(shader.hair, u, child.direction, weight, thetaO, frame, surface));
    const Color3f w = weight * surface.glossy[0];
    child.throughput = w * ray.throughput;
    sum += w * traceChild(ray, child);
  }
  lobes.glossy[0] += sum / float(samples.k);
}
