#include "shading/sampling_shapes.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {
constexpr double pi = 3.14159265358979;
constexpr int samples = 1 << 15;

Frame tiltedFrame() {
  Frame f;
  f.normal = normalize({0.3f, -0.6f, 0.7f});
  buildOrthonormalBasis(f.normal, f.tangent, f.bitangent);
  return f;
}

SampleCursor cursor(int i) { return SampleCursor{uint32_t(i), 0, 0x9E3779B9u}; }

struct Moments {
  double along = 0, alongSquared = 0, tangent = 0, bitangent = 0, within30Degrees = 0;
};

// Means over the sampler's directions of their components in the frame.
template <class Sampler>
Moments measure(const Frame& f, Sampler sample) {
  Moments m;
  for (int i = 0; i < samples; ++i) {
    Vec3f d = sample(i);
    EXPECT_NEAR(length(d), 1, 1e-5);
    double c = dot(d, f.normal);
    m.along += c / samples;
    m.alongSquared += c * c / samples;
    m.tangent += dot(d, f.tangent) / samples;
    m.bitangent += dot(d, f.bitangent) / samples;
    m.within30Degrees += (std::fabs(c) > std::cos(pi / 6)) / double(samples);
  }
  return m;
}
}  // namespace

TEST(SamplingShapes, HemisphereIsCosineWeighted) {
  Frame f = tiltedFrame();
  Moments m = measure(f, [&](int i) {
    Vec3f d;
    sampleHemisphere(d, f, cursor(i));
    EXPECT_GE(dot(d, f.normal), 0);
    return d;
  });
  // Under cos / pi: E[cos] = 2/3, E[cos^2] = 1/2, P(theta < 30 degrees) = sin^2 30 = 1/4.
  EXPECT_NEAR(m.along, 2.0 / 3, 1e-3);
  EXPECT_NEAR(m.alongSquared, 0.5, 1e-3);
  EXPECT_NEAR(m.within30Degrees, 0.25, 2e-3);
  EXPECT_NEAR(m.tangent, 0, 2e-3);
  EXPECT_NEAR(m.bitangent, 0, 2e-3);
  // The lower hemisphere is the mirror image through the tangent plane.
  for (int i = 0; i < 100; ++i) {
    Vec3f up, down;
    sampleHemisphere(up, f, cursor(i));
    sampleLowerHemisphere(down, f, cursor(i));
    EXPECT_NEAR(dot(down, f.normal), -dot(up, f.normal), 1e-6);
    EXPECT_NEAR(dot(down, f.tangent), dot(up, f.tangent), 1e-6);
  }
}

TEST(SamplingShapes, ConcentricMapCoversTheDiskWithoutGaps) {
  // A regular grid of the square lands on the disk's four sectors with equal shares,
  // and the square's corners go to the rim.
  Frame f{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  int quadrant[4] = {0, 0, 0, 0};
  for (int i = 0; i < 64; ++i)
    for (int j = 0; j < 64; ++j) {
      // Index 0 with a scramble places u1, u2 exactly at the scramble's halves.
      uint32_t scramble = (uint32_t(i * 1024 + 512) << 16) | uint32_t(j * 1024 + 512);
      Vec3f d;
      sampleHemisphere(d, f, SampleCursor{0, 0, scramble});
      ASSERT_TRUE(std::isfinite(d.x) && std::isfinite(d.y) && std::isfinite(d.z));
      ++quadrant[(d.x >= 0) + 2 * (d.y >= 0)];
    }
  for (int q : quadrant) EXPECT_EQ(q, 1024);
  Vec3f corner;
  sampleHemisphere(corner, f, SampleCursor{0, 0, 0});
  EXPECT_NEAR(corner.z, 0, 1e-6);
  EXPECT_NEAR(corner.x, -std::sqrt(0.5f), 1e-6);
  EXPECT_NEAR(corner.y, -std::sqrt(0.5f), 1e-6);
}

TEST(SamplingShapes, SphereIsUniform) {
  Frame axes{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  Moments m = measure(axes, [](int i) {
    Vec3f d;
    sampleSphere(d, (i + 0.5f) / samples, radicalInverse(i, 2));
    return d;
  });
  EXPECT_NEAR(m.along, 0, 1e-3);
  EXPECT_NEAR(m.alongSquared, 1.0 / 3, 1e-3);
  EXPECT_NEAR(m.within30Degrees, 1 - std::cos(pi / 6), 1e-3);  // both caps
  EXPECT_NEAR(m.tangent, 0, 1e-3);
  Vec3f pole;
  sampleSphere(pole, 0.3f, 0);
  EXPECT_EQ(pole, Vec3f(0, 0, 1));
  sampleSphere(pole, 0.3f, 1);
  EXPECT_EQ(pole, Vec3f(0, 0, -1));
}

TEST(SamplingShapes, ConeIsUniformInsideItsCap) {
  Frame f = tiltedFrame();
  const float cosMax = 0.8f;
  Moments m = measure(f, [&](int i) {
    Vec3f d;
    sampleCone(d, f, cursor(i), cosMax);
    EXPECT_GE(dot(d, f.normal), cosMax - 1e-6f);
    return d;
  });
  // Uniform in solid angle: the cosine is uniform on [cos_max, 1].
  EXPECT_NEAR(m.along, (1 + cosMax) / 2, 1e-3);
  EXPECT_NEAR(m.alongSquared, (1 - std::pow(cosMax, 3)) / (3 * (1 - cosMax)), 1e-3);
  EXPECT_NEAR(m.tangent, 0, 1e-3);
  EXPECT_NEAR(m.bitangent, 0, 1e-3);
}
