#include "shading/fresnel.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "frame/sampling.h"

namespace {
Surface surfaceFacing(Vec3f normal, Vec3f view, float eta) {
  Surface s;
  s.normal = normalize(normal);
  buildOrthonormalBasis(s.normal, s.tangent, s.bitangent);
  s.view = normalize(view);
  s.cos_view = dot(s.view, s.normal);
  s.eta = eta;
  return s;
}

float sine(Vec3f a, Vec3f b) { return length(cross(a, b)); }
}  // namespace

TEST(Fresnel, SchlickReflectance) {
  const Vec3f n{0, 0, 1};
  EXPECT_EQ(fresnelSchlick(n, n, 1.0f), 0.0f);
  EXPECT_EQ(fresnelSchlick(normalize({1, 0, 0.01f}), n, 1.0f + 5e-9f), 0.0f);
  // Head-on the reflectance is f0 from either side of the boundary.
  EXPECT_NEAR(fresnelSchlick(n, n, 1 / 1.5f), 0.04f, 1e-6);
  EXPECT_NEAR(fresnelSchlick(n, n, 1.5f), 0.04f, 1e-6);
  // At 60 degrees: (1 - 0.5)^5 of the way from f0 to 1.
  EXPECT_NEAR(fresnelSchlick(normalize({std::sqrt(3.0f), 0, 1}), n, 1 / 1.5f), 0.04f + 0.96f / 32, 1e-6);
  // Grazing and below the surface the cosine clamps to 0: everything reflects.
  EXPECT_NEAR(fresnelSchlick({1, 0, 0}, n, 1 / 1.5f), 1.0f, 1e-6);
  EXPECT_NEAR(fresnelSchlick(normalize({1, 0, -1}), n, 1 / 1.5f), 1.0f, 1e-6);
  // Leaving glass past the critical angle of 41.8 degrees reflects totally; just inside it does not.
  EXPECT_EQ(fresnelSchlick(normalize({std::tan(0.74f), 0, 1}), n, 1.5f), 1.0f);
  EXPECT_LT(fresnelSchlick(normalize({std::tan(0.72f), 0, 1}), n, 1.5f), 0.1f);
}

TEST(Fresnel, RefractionObeysSnellsLaw) {
  std::mt19937 random(3);
  std::uniform_real_distribution<float> u(-1, 1);
  for (int k = 0; k < 500; ++k) {
    float ior = 1.1f + (u(random) + 1);
    Vec3f normal = normalize({u(random), u(random), u(random)});
    Vec3f view = normalize({u(random), u(random), u(random)});
    if (dot(view, normal) < 0) view = -view;
    for (float eta : {1 / ior, ior}) {
      Surface s = surfaceFacing(normal, view, eta);
      Vec3f t;
      refractAtSurface(t, -view, s);
      float sinIn = sine(view, normal);
      if (sinIn * eta > 1) {
        ASSERT_EQ(t, zeroVector) << "total internal reflection";
        continue;
      }
      ASSERT_NEAR(length(t), 1, 1e-5);
      ASSERT_LT(dot(t, normal), 0);                       // crosses the surface
      ASSERT_NEAR(dot(t, cross(view, normal)), 0, 1e-5);  // stays in the plane of incidence
      ASSERT_NEAR(sine(t, normal), eta * sinIn, 2e-4);    // n1 sin1 = n2 sin2
      // and goes on away from the viewer's side, not back towards it
      ASSERT_LE(dot(t - dot(t, normal) * normal, view - dot(view, normal) * normal), 1e-6);
    }
  }
}

TEST(Fresnel, RefractionEdgeCases) {
  // A matched index lets the direction through untouched.
  Surface s = surfaceFacing({0, 0, 1}, {1, 0, 1}, 1);
  Vec3f t, d = normalize({-1, 0, -1});
  refractAtSurface(t, d, s);
  EXPECT_EQ(t, d);
  // Head-on nothing bends.
  s = surfaceFacing({0, 0, 1}, {0, 0, 1}, 1 / 1.5f);
  refractAtSurface(t, {0, 0, -1}, s);
  EXPECT_NEAR(t.z, -1, 1e-6);
  // Seen from inside, the side of the normal does not matter: only |cos_view| is used.
  s = surfaceFacing({0, 0, 1}, {0.3f, 0, 1}, 1.2f);
  Vec3f flipped;
  refractAtSurface(t, -s.view, s);
  s.cos_view = -s.cos_view;
  refractAtSurface(flipped, -s.view, s);
  EXPECT_EQ(t, flipped);
  // Through a facet past the critical angle the result grazes the facet instead of failing.
  Vec3f half = normalize({0.2f, 0, 1}), in = normalize({-1, 0, -0.3f});
  refractThrough(t, in, half, 1.5f, -dot(half, in));
  EXPECT_NEAR(dot(t, half), 0, 1e-6);
  EXPECT_NEAR(length(t), 1, 1e-6);
  // Below it, refraction about a facet follows Snell's law about that facet.
  refractThrough(t, in, half, 1 / 1.5f, -dot(half, in));
  EXPECT_NEAR(sine(t, half), sine(in, half) / 1.5f, 1e-5);
  EXPECT_LT(dot(t, half), 0);
}
