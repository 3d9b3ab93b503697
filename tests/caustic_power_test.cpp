// The power of a caustic: a glass sphere (radius 0.5, index 1.5) on a grey
// floor, lit from the side. What the rendered floor carries is held against
// brute-force paths through the glass to a small lamp, and against a trace of
// the same point light through the analytic sphere with exact Fresnel.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "shading/shader.h"
#include "tests/path_fixture.h"
#include "transport/photon.h"

namespace {
constexpr Vec3f X{1, 0, 0}, Z{0, 0, 1};
constexpr double pi = 3.14159265358979;

// A square of the floor, seen whole by the camera straight above it.
struct Window {
  double x, z, half;
  bool holds(double px, double pz) const { return std::fabs(px - x) < half && std::fabs(pz - z) < half; }
};

// ---- The reference: rays through the analytic sphere, in double precision.

struct V {
  double x, y, z;
};
V operator+(V a, V b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
V operator-(V a, V b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
V operator*(double s, V a) { return {s * a.x, s * a.y, s * a.z}; }
double dot(V a, V b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
V cross(V a, V b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
V unit(V a) { return (1 / std::sqrt(dot(a, a))) * a; }

// Unpolarised reflectance of a dielectric boundary; eta is the index on the
// incident side over the index on the far side.
double fresnel(double cosIn, double eta) {
  const double sin2 = eta * eta * (1 - cosIn * cosIn);
  if (sin2 >= 1) return 1;
  const double cosOut = std::sqrt(1 - sin2);
  const double s = (eta * cosIn - cosOut) / (eta * cosIn + cosOut);
  const double p = (cosIn - eta * cosOut) / (cosIn + eta * cosOut);
  return 0.5 * (s * s + p * p);
}

// d refracted through the boundary of normal n (facing d's origin).
V refract(V d, V n, double cosIn, double eta) {
  const double k = 1 - eta * eta * (1 - cosIn * cosIn);
  return unit(eta * d + (eta * cosIn - std::sqrt(k)) * n);
}

struct Sphere {
  V centre;
  double radius, ior;
  // Distance along the unit d to the near side from outside, or to the far side from inside; < 0 for a miss.
  double hit(V o, V d, bool inside) const {
    const V oc = o - centre;
    const double b = dot(oc, d), disc = b * b - (dot(oc, oc) - radius * radius);
    if (disc < 0) return -1;
    return inside ? -b + std::sqrt(disc) : -b - std::sqrt(disc);
  }
};

// The power that a point light of intensity `intensity`, blurred over a
// sphere of radius `blur`, lays on the floor y = 0 within `window` after one
// or more specular events at the glass: the outer reflection, and light that
// leaves after any number of inner reflections. The light's intensity falls
// off like the default spot, from full straight up to none straight down.
double tracedCausticPower(V light, double blur, double intensity, const Sphere& glass, const Window& window,
                          int rays) {
  std::mt19937_64 random(1);
  std::uniform_real_distribution<double> u(0, 1);
  // A cone about the glass that every ray from the blurred light to it lies in.
  const V axis = unit(glass.centre - light);
  const double D = std::sqrt(dot(glass.centre - light, glass.centre - light));
  const double cosMax = std::cos(std::asin(glass.radius / (D - blur)) + std::asin(blur / D) + 1e-3);
  const V t1 = unit(cross(axis, {0, 1, 0})), t2 = cross(axis, t1);
  const int side = int(std::sqrt(double(rays)));
  const double share = intensity * 2 * pi * (1 - cosMax) / (double(side) * side);

  double landed = 0;
  auto land = [&](V o, V d, double power) {
    if (d.y >= 0) return;
    const V p = o + (-o.y / d.y) * d;
    if (window.holds(p.x, p.z)) landed += power;
  };
  for (int i = 0; i < side; ++i)
    for (int j = 0; j < side; ++j) {
      const double c = 1 - (1 - cosMax) * (i + u(random)) / side, phi = 2 * pi * (j + u(random)) / side;
      V d = std::sqrt(1 - c * c) * (std::cos(phi) * t1 + std::sin(phi) * t2) + c * axis;
      const double z = 1 - 2 * u(random), a = 2 * pi * u(random), r = std::sqrt(1 - z * z);
      V o = light + blur * V{r * std::cos(a), r * std::sin(a), z};
      double power = share * (pi - std::acos(std::clamp(d.y, -1.0, 1.0))) / pi;

      double t = glass.hit(o, d, false);
      if (t <= 0) continue;
      o = o + t * d;
      V n = unit(o - glass.centre);
      double cosIn = -dot(d, n), F = fresnel(cosIn, 1 / glass.ior);
      land(o, d + 2 * cosIn * n, power * F);
      d = refract(d, n, cosIn, 1 / glass.ior);
      power *= 1 - F;
      for (int bounce = 0; bounce < 12; ++bounce) {
        o = o + glass.hit(o, d, true) * d;
        n = unit(glass.centre - o);
        cosIn = -dot(d, n);
        F = fresnel(cosIn, glass.ior);
        if (F < 1) land(o, refract(d, n, cosIn, glass.ior), power * (1 - F));
        d = d + 2 * cosIn * n;
        power *= F;
      }
    }
  return landed;
}

// ---- The scene, built through the exports.

class CausticPower : public PathTest {
 protected:
  // A smooth sphere of 48 bands from pole to pole; it comes first, for its normals.
  void addGlass() {
    glass = qzAddShader();
    qzSetShaderColor(glass, 3, specularChannel, 1, 1, 1);
    qzSetShaderIOR(glass, float(sphere.ior));
    qzSetShaderTwoSided(glass, true);
    const V c = sphere.centre;
    addSphere(glass, {float(c.x), float(c.y), float(c.z)}, float(sphere.radius), 48, true);
  }
  void addFloor(Vec3f centre, float halfX, float halfZ) {
    const int floor = qzAddShader();
    qzSetShaderColor(floor, 1, diffuseChannel, albedo, albedo, albedo);
    addQuad(floor, centre, halfZ * Z, halfX * X);
  }
  // Renders from 3 m straight above the window, which fills the image, and
  // returns the irradiance integrated over it. The floor is parallel to the
  // image plane, so every pixel covers the same area; the rendered radiance
  // is albedo times irradiance.
  double floorPower() {
    const float height = 3, fov = 2 * std::atan(float(window.half) / height) * 180 / testPi;
    addCamera(32, 4, {float(window.x), height, float(window.z)}, {float(window.x), 0, float(window.z)}, fov, Z);
    render();
    return meanPixel(0).g / albedo * (4 * window.half * window.half);
  }
  // What the stored photons that landed in the window carry.
  double storedPower() const {
    double sum = 0;
    for (const Photon& p : photonStore.photons)
      if (window.holds(p.position.x, p.position.z)) sum += decodePower(p.power).g;
    return sum;
  }

  const Sphere sphere{{0, 0.5, 0}, 0.5, 1.5};
  const float albedo = 0.6f;
  int glass = 0;
  // The caustic's bright part, beside the sphere on the far side from the
  // light; the camera above it does not see the sphere.
  const Window window{0.9, -0.15, 0.3};
  // 32 photons over the disk of the farthest of them come out at 32 / 31 of the density on average.
  static constexpr double gatherBias = 32.0 / 31;
};

// A lamp of radius 0.25 where the point light stands, linked to the glass
// alone, so that the floor sees it only through the glass: brute-force paths
// from the floor with no photons, and photons with no paths, carry the same.
TEST_F(CausticPower, PhotonsFromALampCarryWhatPathsThroughTheGlassFind) {
  auto scene = [this](int photons) {
    addGlass();
    addFloor({0, 0, 0}, 3, 3);
    const int lamp = qzAddShader();
    qzSetShaderColor(lamp, 1, emissionChannel, 30, 30, 30);
    qzSetShaderGeometryLight(lamp, 1, true);
    addSphere(lamp, {-2.5f, 1.8f, 0.3f}, 0.25f, 8);
    qzSetGeometryLightLink(glass);
    qzSetGeometryLightPhoton(photons);
  };
  scene(0);
  // Paths reach the lamp through the glass rarely: many samples per pixel.
  qzSetRendererSample(2048);
  const double paths = floorPower();
  restart();

  scene(1200000);
  qzSetRendererRadius(0.04f);
  qzSetRendererRayDepth(1);  // the photons alone: no path leaves the floor
  const double photons = floorPower() / gatherBias;
  EXPECT_NEAR(photons, paths, 0.03 * paths);
}

// The point light of the scene, colour 3 with a blur of 0.1, linked to the
// glass so that the floor shows the caustic alone.
TEST_F(CausticPower, APointLightsCausticCarriesWhatTheAnalyticSphereSends) {
  addGlass();
  // A floor small enough for the light to stand outside the scene's sphere:
  // its photons go to the scene in a cone, a tenth of them to the glass.
  addFloor({0.6f, 0, 0}, 1.6f, 1.4f);
  const int light = qzAddPointLight();
  qzSetPointLightPosition(light, -2.5f, 1.8f, 0.3f);
  qzSetPointLightColor(light, 3, 3, 3);
  qzSetPointLightBlur(light, 0.1f);
  qzSetPointLightPhoton(light, 300000);
  qzSetPointLightLink(light, glass);
  qzSetRendererRadius(0.04f);
  qzSetRendererRayDepth(1);  // nothing but the photons lights the floor
  const double rendered = floorPower() / gatherBias;
  const double traced = tracedCausticPower({-2.5, 1.8, 0.3}, 0.1, 3, sphere, window, 1 << 20);
  // The glass follows Schlick's approximation, within a few per cent of the exact reflectance.
  EXPECT_NEAR(storedPower(), traced, 0.04 * traced);
  EXPECT_NEAR(rendered, traced, 0.05 * traced);
}
}  // namespace
