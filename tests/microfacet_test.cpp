#include "shading/microfacet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "shading/fresnel.h"
#include "shading/slope_tables.h"

namespace {
constexpr double pi = 3.14159265358979;

Surface makeSurface(Vec3f normal, float au, float av, float eta) {
  Surface s;
  s.normal = normalize(normal);
  buildOrthonormalBasis(s.normal, s.tangent, s.bitangent);
  s.geometric_normal = s.normal;
  s.alpha[0] = s.alpha[1] = {au, av, 0};
  s.eta = eta;
  return s;
}

Vec3f toWorld(const Surface& s, Vec3f local) { return local.x * s.tangent + local.y * s.bitangent + local.z * s.normal; }
Vec3f toLocal(const Surface& s, Vec3f d) { return {dot(d, s.tangent), dot(d, s.bitangent), dot(d, s.normal)}; }
Vec3f polar(double theta, double phi) {
  return {float(std::sin(theta) * std::cos(phi)), float(std::sin(theta) * std::sin(phi)), float(std::cos(theta))};
}

// Midpoint rule over the upper hemisphere of the surface: visit(direction, solid angle of its cell).
template <class F>
void forEachHemisphereCell(const Surface& s, F visit) {
  constexpr int rings = 1500, sectors = 600;
  double dt = pi / 2 / rings, dp = 2 * pi / sectors;
  for (int i = 0; i < rings; ++i) {
    double theta = (i + 0.5) * dt, area = std::sin(theta) * dt * dp;
    for (int j = 0; j < sectors; ++j) visit(toWorld(s, polar(theta, (j + 0.5) * dp)), area);
  }
}

template <class F>
double integrateHemisphere(const Surface& s, F f) {
  double sum = 0;
  forEachHemisphereCell(s, [&](Vec3f d, double area) { sum += f(d) * area; });
  return sum;
}

class Microfacet : public testing::Test {
 protected:
  static void SetUpTestSuite() { buildSlopeTables(); }
  std::mt19937 random{7};
  float uniform(float a, float b) { return std::uniform_real_distribution<float>(a, b)(random); }
  Vec3f randomDirection() {
    return normalize({uniform(-1, 1), uniform(-1, 1), uniform(-1, 1)});
  }
  // A view above the surface, not grazing.
  Vec3f randomView(const Surface& s) {
    return toWorld(s, polar(std::acos(uniform(0.1f, 1)), uniform(0, 2 * float(pi))));
  }
};
}  // namespace

TEST_F(Microfacet, BeckmannProjectedAreaIsOne) {
  for (auto [au, av] : {std::pair{0.5f, 0.5f}, {0.3f, 0.1f}, {0.06f, 0.2f}}) {
    Surface s = makeSurface({0.2f, -0.5f, 1}, au, av, 1);
    double area = integrateHemisphere(s, [&](Vec3f h) { return beckmannD(s, 0, h) * dot(h, s.normal); });
    EXPECT_NEAR(area, 1.0, 2e-3) << au << " " << av;
  }
}

TEST_F(Microfacet, SmithMaskingMatchesTheVisibleArea) {
  // The projected area of the visible facets equals that of the macro surface:
  // G1(v) times the integral of D max(v.h, 0) is v.n, up to the rational approximation.
  Surface s = makeSurface({0, 0, 1}, 0.35f, 0.15f, 1);
  for (double thetaV : {0.0, 0.5, 1.0, 1.3, 1.45}) {
    Vec3f v = toWorld(s, polar(thetaV, 0.7));
    double visible = integrateHemisphere(s, [&](Vec3f h) { return beckmannD(s, 0, h) * std::fmax(dot(v, h), 0.0f); });
    // Any facet normal in v's hemisphere does for the masking term's side test.
    EXPECT_NEAR(smithG1(s, 0, s.normal, v) * visible / std::cos(thetaV), 1.0, 5e-3) << thetaV;
  }
  EXPECT_EQ(smithG1(s, 0, s.normal, s.normal), 1.0f);  // head-on nothing is masked
  Vec3f backFacing = toWorld(s, polar(1.2, pi));
  EXPECT_EQ(smithG1(s, 0, backFacing, toWorld(s, polar(0.5, 0))), 0.0f);
  // Wider facets along the view's azimuth mask more.
  Surface wide = makeSurface({0, 0, 1}, 0.6f, 0.15f, 1);
  EXPECT_LT(smithG1(wide, 0, wide.normal, toWorld(wide, polar(1.2, 0))),
            smithG1(wide, 0, wide.normal, toWorld(wide, polar(1.2, pi / 2))));
}

TEST_F(Microfacet, VisibleNormalsFollowTheirDensity) {
  // Histogram of sampled facet normals over their (x, y) in the surface's frame, against
  // G1(v) D(h) max(v.h, 0) / v.n integrated over each cell. The tables place every slope
  // half a slope cell (16 / 511) low, along both axes of the view's azimuth; the expected
  // histogram carries the same offset, so that what remains is the sampler's own error.
  constexpr int cells = 16, samples = 1 << 17;
  const float halfCell = 16.0f / 511;
  auto cellOf = [](Vec3f local) {
    auto index = [](float x) { return std::clamp(int((x + 1) / 2 * cells), 0, cells - 1); };
    return index(local.x) * cells + index(local.y);
  };
  struct Case {
    float au, av;
    double theta, phi;
  };
  for (Case c : {Case{0.4f, 0.4f, 0.0, 0.0}, Case{0.4f, 0.2f, 1.0, 0.5}, Case{0.15f, 0.5f, 1.35, 2.5}}) {
    Surface s = makeSurface({0.3f, 0.1f, 1}, c.au, c.av, 1);
    Vec3f localView = polar(c.theta, c.phi), v = toWorld(s, localView);
    double g1 = smithG1(s, 0, s.normal, v), vn = dot(v, s.normal);
    float azimuth = c.theta == 0 ? 0 : std::atan2(c.av * localView.y, c.au * localView.x);
    float shiftU = (std::cos(azimuth) - std::sin(azimuth)) * halfCell * c.au;
    float shiftV = (std::sin(azimuth) + std::cos(azimuth)) * halfCell * c.av;
    std::vector<double> expected(cells * cells), observed(cells * cells);
    double mass = 0;
    forEachHemisphereCell(s, [&](Vec3f h, double area) {
      double p = g1 * beckmannD(s, 0, h) * std::fmax(dot(v, h), 0.0f) / vn * area;
      Vec3f local = toLocal(s, h);
      Vec3f shifted = normalize({local.x / local.z + shiftU, local.y / local.z + shiftV, 1});
      expected[cellOf(shifted)] += p;
      mass += p;
    });
    EXPECT_NEAR(mass, 1.0, 1e-2);
    for (int k = 0; k < samples; ++k) {
      Vec3f h;
      ASSERT_TRUE(sampleVisibleNormal(s, 0, SampleCursor{uint32_t(k), 0, 0x12345678u}, localView, h));
      ASSERT_NEAR(length(h), 1, 1e-5);
      ASSERT_GT(dot(h, s.normal), 0);
      observed[cellOf(toLocal(s, h))] += 1.0 / samples;
    }
    double distance = 0;  // total variation between the two histograms
    for (int k = 0; k < cells * cells; ++k) distance += std::fabs(observed[k] - expected[k]) / 2;
    EXPECT_LT(distance, 0.01) << c.au << " " << c.av << " " << c.theta;
  }
}

TEST_F(Microfacet, GlossyReflectionWeightIsValueOverDensity) {
  // A sampled direction carries F G1(light); that is the value times the cosine over
  // the direction's density, the half-vector density times 1 / (4 |view.h|).
  int checked = 0;
  for (int k = 0; k < 2000; ++k) {
    Surface s = makeSurface(randomDirection(), uniform(0.05f, 0.8f), uniform(0.05f, 0.8f), 1 / uniform(1.1f, 2.5f));
    Vec3f view = randomView(s), h;
    sampleVisibleNormal(s, 0, SampleCursor{uint32_t(k), 0, uint32_t(random())}, toLocal(s, view), h);
    Vec3f light = normalize(2 * dot(view, h) * h - view);
    float ln = dot(light, s.normal);
    if (ln < 0.02f) continue;
    float weight = fresnelSchlick(view, h, s.eta) * smithG1(s, 0, h, light);
    float value = evalGlossyReflection(s, view, light);
    float density = pdfGlossyReflection(s, view, light) / (4 * std::fabs(dot(view, h)));
    ASSERT_NEAR(value * ln / density, weight, 2e-3 * weight + 1e-7) << k;
    ++checked;
  }
  EXPECT_GT(checked, 1200);
}

TEST_F(Microfacet, GlossyTransmissionWeightIsValueOverDensity) {
  // Entering a denser medium: the refracted direction carries (1 - F) G1(light); its
  // density is the half-vector density times |light.h| / (eta view.h + light.h)^2.
  int checked = 0;
  for (int k = 0; k < 2000; ++k) {
    Surface s = makeSurface(randomDirection(), uniform(0.05f, 0.8f), uniform(0.05f, 0.8f), 1 / uniform(1.1f, 2.5f));
    Vec3f view = randomView(s), h, light;
    sampleVisibleNormal(s, 1, SampleCursor{uint32_t(k), 0, uint32_t(random())}, toLocal(s, view), h);
    refractThrough(light, -view, h, s.eta, dot(view, h));
    float ln = dot(light, s.normal);
    if (ln > -0.02f) continue;
    // The transmission half vector of the pair is the facet that refracted it.
    ASSERT_NEAR(dot(normalize(-(s.eta * view + light)), h), 1, 1e-4);
    float weight = (1 - fresnelSchlick(view, h, s.eta)) * smithG1(s, 1, h, light);
    float value = evalGlossyTransmission(s, view, light);
    float co = dot(view, h), ci = dot(light, h);
    float density = pdfGlossyTransmission(s, view, light) * std::fabs(ci) / ((s.eta * co + ci) * (s.eta * co + ci));
    ASSERT_NEAR(value * -ln / density, weight, 2e-3 * weight + 1e-7) << k;
    ++checked;
  }
  EXPECT_GT(checked, 1200);
}

TEST_F(Microfacet, GlossyTransmissionNeedsViewAboveAndLightBelow) {
  Surface s = makeSurface({0, 0, 1}, 0.3f, 0.3f, 1 / 1.5f);
  Vec3f view = normalize({0.3f, 0, 1}), below = normalize({-0.2f, 0.1f, -1});
  EXPECT_GT(evalGlossyTransmission(s, view, below), 0);
  EXPECT_EQ(evalGlossyTransmission(s, view, normalize({-0.2f, 0.1f, 1})), 0);
  EXPECT_EQ(evalGlossyTransmission(s, -view, below), 0);
  // The sides are those of the geometric normal, not of the shading normal.
  s.geometric_normal = -s.geometric_normal;
  EXPECT_EQ(evalGlossyTransmission(s, view, below), 0);
}
