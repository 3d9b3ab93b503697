// The integral of a function of direction over the unit sphere, by the
// midpoint rule in (z, phi): a grid of equal areas, so a uniform quadrature.
#pragma once

#include <cmath>

#include "frame/vec.h"

template <class F>
double sphereIntegral(F f, int n = 600) {
  const double pi = 3.14159265358979;
  double sum = 0;
  for (int i = 0; i < n; ++i) {
    const double z = -1 + (i + 0.5) * 2 / n, r = std::sqrt(1 - z * z);
    for (int j = 0; j < 2 * n; ++j) {
      const double phi = (j + 0.5) * pi / n;
      sum += f(Vec3f{float(r * std::cos(phi)), float(r * std::sin(phi)), float(z)});
    }
  }
  return sum * (2.0 / n) * (pi / n);
}
