// Volumes: the block, preparation and the sampling rules of the medium.
#include "shading/volume.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

#include "frame/sampling.h"

namespace {
ShaderVolume prepared(float density, float averageCosine = 0) {
  ShaderVolume v;
  v.density = density;
  v.average_cosine = averageCosine;
  v.transmittance = {0.5f, 0.8f, 1};
  prepareVolume(v);
  return v;
}
}  // namespace

TEST(VolumeBlock, StartsFromDefaultsAndReadsItsKeys) {
  ShaderVolume v;
  v.ior = 2;
  v.albedo = {1, 1, 1};
  std::istringstream file(
      "transmittance 0.9 0.8 0.7\n"
      "average_cosine 0.3\n"
      "density 0.25\n"
      "end\n"
      "ior 5\n");
  readShaderVolumeBlock(v, file);
  EXPECT_EQ(v.transmittance, Color3f(0.9f, 0.8f, 0.7f));
  EXPECT_FLOAT_EQ(v.average_cosine, 0.3f);
  EXPECT_FLOAT_EQ(v.density, 0.25f);
  EXPECT_EQ(v.ior, 1);         // back to the default, not the earlier 2
  EXPECT_EQ(v.albedo, black);  // the same
  std::istringstream more("albedo 0.1 0.2 0.3\nior 1.5\nend\n");
  readShaderVolumeBlock(v, more);
  EXPECT_EQ(v.albedo, Color3f(0.1f, 0.2f, 0.3f));
  EXPECT_FLOAT_EQ(v.ior, 1.5f);
  EXPECT_EQ(v.density, 0);
}

TEST(VolumePreparation, SigmaAttenuationAndClamps) {
  const ShaderVolume off = prepared(0);
  EXPECT_EQ(off.sigma, 0);
  EXPECT_EQ(off.attenuation, Color3f(0.5f, 0.8f, 1));

  const ShaderVolume half = prepared(0.5f, 2);
  EXPECT_NEAR(half.sigma, std::log(2.0), 1e-6);
  EXPECT_EQ(half.attenuation, Color3f(0.25f, 0.4f, 0.5f));
  EXPECT_EQ(half.average_cosine, 1);

  EXPECT_EQ(prepared(1).sigma, 32);
  EXPECT_EQ(prepared(1).attenuation, black);
  EXPECT_EQ(prepared(1.5f).sigma, 32);  // t negative takes the same branch
  EXPECT_EQ(prepared(0.5f, -3).average_cosine, -1);
}

TEST(VolumeSampling, DistanceIsExponentialInSigma) {
  const ShaderVolume v = prepared(0.5f);
  EXPECT_NEAR(sampleVolumeDistance(v, std::exp(-1.0f)), 1 / v.sigma, 1e-5);
  EXPECT_FLOAT_EQ(sampleVolumeDistance(v, 0), 32 / v.sigma);
  double sum = 0;
  const int n = 200000;
  for (int i = 0; i < n; ++i) sum += sampleVolumeDistance(v, uniformRandom());
  EXPECT_NEAR(sum / n, 1 / v.sigma, 0.02 / v.sigma);
}

TEST(VolumeSampling, WeightAndAttenuationArePowersOfTheColours) {
  ShaderVolume v = prepared(0.5f);
  v.albedo = {1, 0.5f, 0};
  const Color3f w = volumeScatterWeight(v, 2);
  EXPECT_FLOAT_EQ(w.r, 0.25f);
  EXPECT_FLOAT_EQ(w.g, 0.32f);
  EXPECT_EQ(w.b, 0);  // a black albedo ends the step
  const Color3f a = volumeAttenuation(v, 3);
  EXPECT_FLOAT_EQ(a.r, 0.25f * 0.25f * 0.25f);
  EXPECT_FLOAT_EQ(a.g, 0.4f * 0.4f * 0.4f);
  EXPECT_FLOAT_EQ(a.b, 0.125f);
}

TEST(VolumeSampling, SchlickPhaseScattersForwardForPositiveCosine) {
  const Vec3f d = normalize(Vec3f{1, 2, -0.5f});
  EXPECT_EQ(sampleVolumePhase(prepared(0.5f, -0.7f), d, 0, 0.3f), d);  // u1 below 1e-8
  const Vec3f back = sampleVolumePhase(prepared(0.5f, -1), d, 1, 0.3f);
  EXPECT_NEAR(dot(back, d), -1, 1e-6);
  // Schlick's mapping: u1 = 0.5 gives the cosine k itself.
  EXPECT_NEAR(dot(sampleVolumePhase(prepared(0.5f, 0.6f), d, 0.5f, 0.9f), d), 0.6f, 1e-5);

  for (float k : {-0.5f, 0.0f, 0.5f}) {
    // The mean cosine of the mapping, integrated by the midpoint rule.
    double expected = 0;
    for (int i = 0; i < 10000; ++i) {
      const double u = (i + 0.5) / 10000;
      expected += (2 * u + k - 1) / (2 * k * u - k + 1) / 10000;
    }
    const ShaderVolume v = prepared(0.5f, k);
    double mean = 0;
    const int n = 100000;
    for (int i = 0; i < n; ++i) {
      const Vec3f s = sampleVolumePhase(v, d, uniformRandom(), uniformRandom());
      ASSERT_NEAR(length(s), 1, 1e-5);
      mean += dot(s, d);
    }
    EXPECT_NEAR(mean / n, expected, 0.01) << k;
    EXPECT_TRUE(k == 0 ? std::fabs(expected) < 1e-9 : (expected > 0) == (k > 0)) << k;
  }
}
