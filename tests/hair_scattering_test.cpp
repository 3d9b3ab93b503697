// The fibre model: the Bessel fit against tabulated values, the normalisation
// of each factor, the closed form at large variances, the root and tip
// colours, and the glossy sampler against the integral of the evaluator.
#include "shading/hair_scattering.h"

#include <gtest/gtest.h>

#include <cmath>

#include "tests/path_fixture.h"
#include "tests/sphere_quadrature.h"

namespace {
constexpr double pi = 3.14159265358979;

// A fibre shader of one roughness for all three lobes, prepared as scene assembly does.
Shader fibreShader(float roughness) {
  Shader shader;
  channelNode(shader, roughnessChannel, 0).color = {roughness, roughness, roughness};
  shader.volume.ior = 1.55f;
  shader.used_by_hair = 1;
  prepareHairShader(shader);
  return shader;
}

// The fibre along z, seen from the inclination thetaO above the plane across it.
constexpr Vec3f axis{0, 0, 1};
Vec3f viewAt(float thetaO) { return {std::cos(thetaO), 0, std::sin(thetaO)}; }

// The mean over a stratified grid of (u0, u1, uc) of each lobe's candidate
// attenuation, the cones centred at the inclination coneTheta. The azimuth
// takes the finest strata: the R lobe's Fresnel factor climbs steeply in the
// logistic's far tails.
void meanCandidateAttenuation(const Shader& shader, float coneTheta, float thetaO, float h, double means[3], int n = 16,
                              int nAzimuth = 512) {
  Surface surface;
  surface.view = viewAt(thetaO);
  surface.hair_h = h;
  const Frame frame = hairFrame(axis, surface.view);
  for (int p = 0; p < 3; ++p) means[p] = 0;
  for (int a = 0; a < n; ++a)
    for (int b = 0; b < nAzimuth; ++b)
      for (int c = 0; c < n; ++c) {
        const HairCandidates k = hairCandidates(shader.hair, (a + 0.5f) / n, (b + 0.5f) / nAzimuth, (c + 0.5f) / n,
                                                coneTheta, frame, surface);
        for (int p = 0; p < 3; ++p) means[p] += k.A[p].g;
      }
  for (int p = 0; p < 3; ++p) means[p] /= double(n) * n * nAzimuth;
}

void lobeIntegrals(const Shader& shader, float thetaO, float h, double integrals[3], int n = 300) {
  for (int p = 0; p < 3; ++p)
    integrals[p] = sphereIntegral(
        [&](Vec3f l) {
          Color3f colours[3];
          float densities[3];
          evalHairLobes(shader.hair, viewAt(thetaO), l, axis, h, colours, densities);
          return double(colours[p].g);
        },
        n);
}
}  // namespace

TEST(HairModel, BesselFitAgainstTable) {
  // Sums of the power series, to 16 digits.
  const double table[][2] = {{0, 1},
                             {0.5, 1.063483370741324},
                             {1, 1.266065877752008},
                             {2, 2.279585302336067},
                             {3, 4.880792585865025},
                             {3.7, 8.738617524169396},
                             {3.8, 9.516888026098957},
                             {5, 27.23987182360445},
                             {10, 2815.716628466254},
                             {20, 43558282.55955353},
                             {50, 2.932553783849336e20}};
  for (const auto& row : table) {
    EXPECT_NEAR(besselI0(row[0]) / row[1], 1, 1e-6) << row[0];
    EXPECT_NEAR(besselI0(-row[0]) / row[1], 1, 1e-6) << -row[0];
  }
}

TEST(HairModel, EachFactorIsNormalised) {
  // The logistic over [-pi, pi), the longitudinal function over the
  // inclinations with the cosine (both small-variance forms at 0.1, the
  // closed form from 0.4), and the diffuse cylinder over the sphere.
  for (float roughness : {0.1f, 0.2f, 0.4f, 0.7f}) {
    const Shader shader = fibreShader(roughness);
    const int n = 4000;
    for (int p = 0; p < 3; ++p) {
      double azimuth = 0;
      for (int i = 0; i < n; ++i) azimuth += logisticNp(shader.hair, p, float(-pi + (i + 0.5) * 2 * pi / n));
      EXPECT_NEAR(azimuth * 2 * pi / n, 1, 1e-3) << roughness << " lobe " << p;
      for (float thetaO : {0.0f, 0.5f, -1.2f}) {
        double longitudinal = 0;
        const float v = shader.hair.variance[p];
        for (int i = 0; i < n; ++i) {
          const double thetaI = -pi / 2 + (i + 0.5) * pi / n;
          const float a = float(std::cos(thetaO) * std::cos(thetaI) / v);
          const float b = float(-std::sin(thetaO) * std::sin(thetaI) / v);
          longitudinal += longitudinalMp(shader.hair, p, a, b) * std::cos(thetaI);
        }
        EXPECT_NEAR(longitudinal * pi / n, 1, 5e-3) << roughness << " lobe " << p << " theta " << thetaO;
      }
    }
  }
  for (float thetaO : {0.0f, 0.7f})
    EXPECT_NEAR(sphereIntegral([&](Vec3f l) { return double(hairDiffuse(viewAt(thetaO), l, axis)); }), 1, 1e-4);
}

TEST(HairModel, LargeVariancesTakeTheClosedForm) {
  // From a variance of 0.2 the value is I0(a) exp(b) times the stored
  // normaliser; doubling the normaliser doubles it. Below, the logarithmic
  // forms ignore it, and agree with the closed form where both hold.
  Shader rough = fibreShader(0.7f);
  ASSERT_GE(rough.hair.variance[0], 0.2f);
  EXPECT_FLOAT_EQ(rough.hair.normalizer[0], 1 / (std::sinh(1 / rough.hair.variance[0]) * 2 * rough.hair.variance[0]));
  const float a = 0.8f, b = -0.3f;
  const float closed = float(besselI0(a)) * std::exp(b) * rough.hair.normalizer[0];
  EXPECT_FLOAT_EQ(longitudinalMp(rough.hair, 0, a, b), closed);
  rough.hair.normalizer[0] *= 2;
  EXPECT_FLOAT_EQ(longitudinalMp(rough.hair, 0, a, b), 2 * closed);

  Shader smooth = fibreShader(0.28f);
  ASSERT_LT(smooth.hair.variance[0], 0.2f);
  const float v = smooth.hair.variance[0];
  const float expected = float(besselI0(a) * std::exp(double(b)) / (std::sinh(1.0 / v) * 2 * v));
  EXPECT_NEAR(longitudinalMp(smooth.hair, 0, a, b) / expected, 1, 1e-4);
  smooth.hair.normalizer[0] *= 2;
  EXPECT_NEAR(longitudinalMp(smooth.hair, 0, a, b) / expected, 1, 1e-4);
}

TEST(HairModel, RootAndTipColours) {
  Shader shader = fibreShader(0.3f);
  channelNode(shader, diffuseChannel, 1).color = {0.1f, 0.2f, 0.3f};  // root
  channelNode(shader, diffuseChannel, 0).color = {0.5f, 0.6f, 0.7f};  // tip
  channelNode(shader, glossyChannel, 1).color = {0, 0, 0};
  channelNode(shader, glossyChannel, 0).color = {0.9f, 0.8f, 0.4f};
  Surface surface;
  surface.specular_on[0] = surface.diffuse_on[1] = 1;  // cleared by the evaluation
  surface.hair_t = 0;
  evaluateHairSurface(shader, surface);
  EXPECT_EQ(std::tuple(surface.diffuse[0], surface.glossy[0], surface.diffuse_on[0], surface.glossy_on[0]),
            std::tuple((Color3f{0.1f, 0.2f, 0.3f}), black, 1, 0));
  EXPECT_EQ(surface.specular_on[0] + surface.diffuse_on[1], 0);
  surface.hair_t = 1;
  evaluateHairSurface(shader, surface);
  EXPECT_EQ(std::tuple(surface.diffuse[0], surface.glossy[0], surface.glossy_on[0]),
            std::tuple((Color3f{0.5f, 0.6f, 0.7f}), (Color3f{0.9f, 0.8f, 0.4f}), 1));
  surface.hair_t = 0.25f;
  evaluateHairSurface(shader, surface);
  EXPECT_NEAR(surface.diffuse[0].g, 0.3f, 1e-6f);
  EXPECT_NEAR(surface.glossy[0].r, 0.225f, 1e-6f);
}

// Each lobe's candidate carries its attenuation; over the candidates its mean
// is what the evaluator's colour of that lobe integrates to over the sphere,
// when the cone is centred on the mirror of the view's inclination. Measured:
// within 0.4 % for every lobe and roughness, at views across the fibre and
// 1 rad off it; centred on the view's own inclination instead, the R lobe is
// off by 36 % (roughness 0.7) to 68 % (0.2) at 1 rad, the TRT lobe by 12 to
// 49 %: which is why the integrator passes minus the inclination.
TEST(HairModel, SamplerFollowsTheEvaluator) {
  for (float roughness : {0.2f, 0.7f})
    for (float thetaO : {0.0f, 1.0f}) {
      const Shader shader = fibreShader(roughness);
      double sampled[3], integrated[3], ownSide[3];
      meanCandidateAttenuation(shader, -thetaO, thetaO, 0.3f, sampled);
      lobeIntegrals(shader, thetaO, 0.3f, integrated);
      for (int p = 0; p < 3; ++p)
        EXPECT_NEAR(sampled[p] / integrated[p], 1, 0.01) << roughness << " " << thetaO << " lobe " << p;
      if (thetaO > 0) {
        meanCandidateAttenuation(shader, thetaO, thetaO, 0.3f, ownSide);
        EXPECT_GT(integrated[0] / ownSide[0], 1.3) << roughness;
        EXPECT_GT(integrated[2] / ownSide[2], 1.1) << roughness;
      }
    }
}

TEST(HairModel, AnglesAtTheEdgeOfTheFibre) {
  // Grazing the edge, h = 1: gamma o is pi / 2 and R leaves at -pi, straight
  // back across; beyond the edge h is held to 1. Across the middle nothing shifts R.
  const Shader shader = fibreShader(0.3f);
  const Vec3f l = normalize(Vec3f{-1, 0.2f, 0.3f});
  for (float h : {1.0f, 1.5f}) {
    const FibreAngles f = fibreAngles(shader.hair, viewAt(0.4f), l, axis, h);
    EXPECT_FLOAT_EQ(f.gamma_o, float(pi / 2));
    EXPECT_FLOAT_EQ(lobeShift(f, 0), float(-pi));
    EXPECT_GT(f.gamma_t, 0);
    EXPECT_LT(f.gamma_t, float(pi / 2));
  }
  const FibreAngles middle = fibreAngles(shader.hair, viewAt(0.4f), l, axis, 0);
  EXPECT_EQ(lobeShift(middle, 0), 0.0f);
  EXPECT_FLOAT_EQ(lobeShift(middle, 1), float(pi));
  // theta d is half the difference of the angles to the axis.
  EXPECT_NEAR(middle.cos_d, std::cos(0.5 * (std::acos(l.z) - std::acos(std::sin(0.4)))), 1e-6);
}

TEST(HairModel, TheChoiceOfLobeWeighsByAttenuation) {
  HairCandidates k;
  k.A[0] = {0.1f, 0.1f, 0.1f};
  k.A[1] = {0.5f, 0.6f, 0.7f};
  k.A[2] = {0.3f, 0.3f, 0.3f};
  // Shares 0.1, 0.6, 0.3 of the mean attenuation 1.
  const float u2[] = {0.05f, 0.5f, 0.95f};
  for (int p = 0; p < 3; ++p) {
    Color3f weight;
    EXPECT_EQ(chooseHairLobe(k, u2[p], weight), p);
    const float share = p == 0 ? 0.1f : p == 1 ? 0.6f : 0.3f;
    expectColorNear(weight, k.A[p] / share, 1e-5f);
  }
  HairCandidates dark;
  Color3f weight{1, 1, 1};
  chooseHairLobe(dark, 0.5f, weight);
  EXPECT_EQ(weight, black);
}

TEST(HairModel, AWidthOfZeroStaysFinite) {
  // A roughness of 0 gives lobes of no width: no value anywhere, and a sample
  // that still lies on the sphere.
  const Shader shader = fibreShader(0);
  Color3f colours[3];
  float densities[3];
  evalHairLobes(shader.hair, viewAt(0.2f), normalize(Vec3f{-1, 0.3f, 0.1f}), axis, 0.5f, colours, densities);
  for (int p = 0; p < 3; ++p) {
    EXPECT_EQ(colours[p], black);
    EXPECT_EQ(densities[p], 0.0f);
  }
  Surface surface;
  surface.view = viewAt(0.2f);
  surface.hair_h = 1;
  Vec3f d;
  Color3f weight;
  const float u[4] = {0.3f, 0.7f, 0.2f, 0.9f};
  sampleHair(shader.hair, u, d, weight, -0.2f, hairFrame(axis, surface.view), surface);
  EXPECT_NEAR(length(d), 1, 1e-5f);
  EXPECT_TRUE(std::isfinite(weight.r) && std::isfinite(weight.g) && std::isfinite(weight.b));
}
