// A brute-force reference for tests of the sky: what a white diffuse surface
// facing `normal` reflects under the prepared sky, by uniform directions over
// the whole sphere and the sky's radiance as a first bounce sees it.
#pragma once

#include "lights/sky.h"
#include "shading/sampling_shapes.h"

inline Color3f skyReflectedByWhite(Vec3f normal, int count) {
  Color3f sum;
  for (int i = 0; i < count; ++i) {
    Ray ray;
    ray.bounces = 1;
    sampleSphere(ray.direction, (float(i) + 0.5f) / float(count), radicalInverse(uint64_t(i), 2));
    const float c = dot(ray.direction, normal);
    // Cosine over pi, times the solid angle 4 pi / count of each direction.
    if (c > 0) sum += skyRadiance(ray) * (4 * c / float(count));
  }
  return sum;
}
