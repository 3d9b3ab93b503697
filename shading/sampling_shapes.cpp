#include "shading/sampling_shapes.h"

#include <cmath>

namespace {
constexpr float pi = 3.14159265f;

// Concentric map of the unit square onto the unit disk: radius and angle.
void concentricDisk(float u1, float u2, float& r, float& phi) {
  float a = 2 * u1 - 1, b = 2 * u2 - 1;
  float sector;  // angle in eighths of a turn
  if (a > -b) {
    if (a > b) {
      r = a;
      sector = b / a;
    } else {
      r = b;
      sector = 2 - a / b;
    }
  } else if (b > a) {
    r = -a;
    sector = 4 + b / a;
  } else {
    // Only the centre of the square divides by zero here; its radius is 0 anyway.
    r = -b;
    sector = b != 0 ? 6 - a / b : 0;
  }
  phi = sector * pi / 4;
}

// Disk point lifted to the hemisphere; side is +1 above the normal, -1 below.
Vec3f liftDisk(const Frame& frame, const SampleCursor& sample, float side) {
  float u1, u2, r, phi;
  drawPair(sample, u1, u2);
  concentricDisk(u1, u2, r, phi);
  float height = std::sqrt(std::fmax(1 - r * r, 0.0f));
  return r * std::cos(phi) * frame.tangent + r * std::sin(phi) * frame.bitangent + side * height * frame.normal;
}
}  // namespace

void sampleHemisphere(Vec3f& direction, const Frame& frame, const SampleCursor& sample) {
  direction = liftDisk(frame, sample, 1);
}

void sampleLowerHemisphere(Vec3f& direction, const Frame& frame, const SampleCursor& sample) {
  direction = liftDisk(frame, sample, -1);
}

void sampleSphere(Vec3f& direction, float u1, float u2) {
  float z = 1 - 2 * u2;
  float s = 2 * std::sqrt((1 - u2) * u2);
  float phi = 2 * pi * u1;
  direction = {s * std::cos(phi), s * std::sin(phi), z};
}

void sampleCone(Vec3f& direction, const Frame& frame, const SampleCursor& sample, float cos_max) {
  float u1, u2;
  drawPair(sample, u1, u2);
  float phi = 2 * pi * u1;
  float c = 1 - (1 - cos_max) * u2;
  float s = std::sqrt(1 - c * c);
  direction = s * std::cos(phi) * frame.tangent + s * std::sin(phi) * frame.bitangent + c * frame.normal;
}
