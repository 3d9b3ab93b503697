#include "transport/path.h"

void shadeEmission(LobeRadiance& lobes, const Ray& ray, const Shader& shader, const Surface& surface) {
  // A two-sided emitter seen from behind shows its back node.
  const int side = shader.two_sided && !(ray.facing > 0) ? 1 : 0;
  lobes.emission += evaluateColor(channelNode(shader, emissionChannel, side), surface);
}
