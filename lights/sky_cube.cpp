// The warped cube of the sky: six faces of 256 x 256 cells, warped so that
// every cell covers nearly the same solid angle, and its self-test.
#include <algorithm>
#include <cmath>
#include <iostream>

#include "frame/report.h"
#include "lights/sky.h"

namespace {
constexpr float pi = 3.14159265f;
constexpr float half = skyFaceSize / 2;  // 128

// A face coordinate in [-1, 1] to the cube's: sin(pi / 6) = 0.5 makes the edge 1.
float warp(float v) {
  const float s = std::sin(pi * v / 6);
  const float d = 0.5f - s * s;
  return d > 0 ? s / std::sqrt(d) : 0.0f;
}

// The inverse of warp, in [-1, 1].
float unwarp(float v) { return std::asin(std::clamp(v / std::sqrt(2 * v * v + 2), -1.0f, 1.0f)) * float(6 / M_PI); }

// A face value in [0, 2] to its cell; a NaN from a zero direction lands in cell 0.
int cellOf(float value) {
  const float x = value * half;
  if (!(x >= 0)) return 0;
  return x > skyFaceSize - 1 ? skyFaceSize - 1 : int(x);
}
}  // namespace

Vec3f skyCellDirection(int face, float a, float b) {
  const float p = a + 0.5f, q = b + 0.5f;
  Vec3f c;
  switch (face) {
    case 0: c = {half, half - q, half - p}; break;
    case 1: c = {p - half, half - q, half}; break;
    case 2: c = {-half, half - q, p - half}; break;
    case 3: c = {half - p, half - q, -half}; break;
    case 4: c = {half - q, half, half - p}; break;
    default: c = {p - half, -half, half - q}; break;
  }
  return normalize({warp(c.x / half), warp(c.y / half), warp(c.z / half)});
}

void skyCell(Vec3f d, int& face, int& a, int& b) {
  int major = 0;
  if (std::fabs(d[major]) < std::fabs(d.y)) major = 1;
  if (std::fabs(d[major]) < std::fabs(d.z)) major = 2;
  const bool positive = d[major] > 0;
  d = d / std::fabs(d[major]);
  const float tx = unwarp(d.x), ty = unwarp(d.y), tz = unwarp(d.z);
  float va, vb;
  if (major == 0) {
    face = positive ? 0 : 2;
    va = positive ? 1 - tz : 1 + tz;
    vb = 1 - ty;
  } else if (major == 1) {
    face = positive ? 4 : 5;
    va = positive ? 1 - tz : 1 + tx;
    vb = positive ? 1 - tx : 1 - tz;
  } else {
    face = positive ? 1 : 3;
    va = positive ? 1 + tx : 1 - tx;
    vb = 1 - ty;
  }
  a = cellOf(va);
  b = cellOf(vb);
}

void skyImageCoordinates(Vec3f d, float& u, float& v) {
  const float x = dot(d, sky.east), y = dot(d, sky.north), z = dot(d, sky.zenith);
  u = 1 - (std::atan2(y, x) + pi) / (2 * pi);
  v = std::acos(std::clamp(z, -1.0f, 1.0f)) / pi;
}

void testSkyCube() {
  for (int trial = 0; trial < 1024; ++trial) {
    const Vec3f d = normalize({2 * uniformRandom() - 1, 2 * uniformRandom() - 1, 2 * uniformRandom() - 1});
    int f, a, b, f2, a2, b2;
    skyCell(d, f, a, b);
    const Vec3f e = skyCellDirection(f, float(a), float(b));
    skyCell(e, f2, a2, b2);
    const Vec3f gap = d - e;
    const bool far = std::fmax(std::fabs(gap.x), std::fmax(std::fabs(gap.y), std::fabs(gap.z))) > 0.01f;
    if (!far && a == a2 && b == b2) continue;
    printError("skylight - something went wrong in module test");
    printVec3Value(d.x, d.y, d.z);
    std::cout << " " << f << " " << a << " " << b << "\n";
    printVec3Value(e.x, e.y, e.z);
    std::cout << " " << f2 << " " << a2 << " " << b2 << std::endl;
  }
}
