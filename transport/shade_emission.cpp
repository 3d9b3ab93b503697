#include "transport/density_estimator.h"
#include "transport/path.h"

void shadeEmission(LobeRadiance& lobes, const Ray& ray, const Shader& shader, const Surface& surface) {
  // A two-sided emitter seen from behind shows its back node.
  const int side = shader.two_sided && !(ray.facing > 0) ? 1 : 0;
  // A path that ends here takes what the photons left on this patch.
  if (surface.cheap_query && shader.diffuse_present[0]) lobes.emission += readPatch(ray);
  lobes.emission += evaluateColor(channelNode(shader, emissionChannel, side), surface);
}
