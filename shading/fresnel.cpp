#include "shading/fresnel.h"

#include <cmath>

namespace {
// d refracted about n, cos being the incidence cosine. Past the critical
// angle `total` is set and the far-side cosine is taken as 0.
Vec3f refractAbout(Vec3f d, Vec3f n, float eta, float cos, bool& total) {
  total = false;
  if (std::fabs(1 - eta) < 1e-8f) return d;
  float c = std::fabs(cos);
  float k = 1 - (1 - c * c) * eta * eta;
  total = k < 0;
  return normalize((c * eta - std::sqrt(std::fmax(k, 0.0f))) * n + eta * d);
}
}  // namespace

float fresnelSchlick(Vec3f d, Vec3f n, float eta) {
  if (std::fabs(1 - eta) < 1e-8f) return 0;
  float c = std::fmin(std::fmax(dot(d, n), 0.0f), 1.0f);
  if ((1 - c * c) * eta * eta > 1) return 1;
  float f0 = (eta - 1) / (eta + 1);
  f0 *= f0;
  return std::pow(1 - c, 5.0f) * (1 - f0) + f0;
}

void refractThrough(Vec3f& refracted, Vec3f d, Vec3f half, float eta, float cos) {
  bool total;
  refracted = refractAbout(d, half, eta, cos, total);
}

void refractAtSurface(Vec3f& refracted, Vec3f d, const Surface& surface) {
  bool total;
  Vec3f v = refractAbout(d, surface.normal, surface.eta, surface.cos_view, total);
  refracted = total ? zeroVector : v;
}
