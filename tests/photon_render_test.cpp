// Photons through whole scenes built by the exports: the caustic of a glass
// sphere, the power that the patches take, the final gather against a deep
// path trace, and the settings that turn casting off or end the process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include "accel/primitive_bounds.h"
#include "geometry/scene_assembly.h"
#include "shading/shader.h"
#include "tests/path_fixture.h"
#include "tests/regex.h"
#include "transport/density_estimator.h"
#include "transport/photon.h"

namespace {
constexpr Vec3f X{1, 0, 0}, Y{0, 1, 0}, Z{0, 0, 1};

class PhotonRenderTest : public PathTest {
 protected:
  // Full strength in every direction (the default spot fades to the back),
  // and the plain cosine law at shading points, as the photons see it.
  static int pointLight(Vec3f position, Color3f color, int photons) {
    const int light = qzAddPointLight();
    qzSetPointLightInnerAngle(light, 180);
    qzSetPointLightOffset(light, 0);
    qzSetPointLightPosition(light, position.x, position.y, position.z);
    qzSetPointLightColor(light, color.r, color.g, color.b);
    qzSetPointLightPhoton(light, photons);
    return light;
  }

  static std::string prepare() {
    return captureOutput([] { qzInitialize(); });
  }

  // Patch power times patch area over the root object's faces, front sides.
  static Color3f patchFlux() {
    const Mesh& mesh = objects[rootObject].mesh;
    Color3f sum;
    for (uint32_t f = 0; f < mesh.tetragons.size(); ++f) {
      const uint32_t n = mesh.tetragon_grid[f];
      for (uint32_t k = 0; k < n * n; ++k)
        sum += mesh.tetragon_front[mesh.tetragon_offset[f] + k] * (tetragonArea(mesh, f) / float(n * n));
    }
    return sum;
  }
};

// The solid angle of the triangles of `object` that face `eye`, by the
// formula of Van Oosterom and Strackee: for a closed convex mesh, what it
// covers as seen from outside.
double solidAngleFacing(const Mesh& mesh, Vec3f eye) {
  double total = 0;
  for (const Triangle& t : mesh.triangles) {
    const Vec3f a = mesh.worldPositions[t.i0] - eye, b = mesh.worldPositions[t.i1] - eye,
                c = mesh.worldPositions[t.i2] - eye;
    const double triple = dot(a, cross(b, c));
    if (triple >= 0) continue;  // the far side, seen from behind
    const double la = length(a), lb = length(b), lc = length(c);
    const double below = la * lb * lc + dot(a, b) * lc + dot(a, c) * lb + dot(b, c) * la;
    total += 2 * std::fabs(std::atan2(triple, below));
  }
  return total;
}
}  // namespace

// A point light over a sphere of clear glass (index 1, so nothing bends or
// reflects) over a white floor: every photon through the sphere lands in its
// shadow with the transmittance squared, and nothing else is stored.
class GlassSphereCaustic : public PhotonRenderTest {
 protected:
  void build(bool withSphere, int photons = 300000) {
    // Front only: a diffuse colour on the back would let the floor pass light as well.
    const int floor = qzAddShader();
    qzSetShaderColor(floor, 1, diffuseChannel, 1, 1, 1);
    addQuad(floor, {0, 0, 0}, Z, X);  // 2 by 2, facing up
    if (withSphere) {
      const int glass = addShader(specularChannel, {transmittance, transmittance, transmittance});
      qzSetShaderIOR(glass, 1);
      addSphere(glass, sphereCentre, 0.5f, 24);
    }
    pointLight(lightPosition, {1, 1, 1}, photons);
    qzSetRendererRadius(0.05f);
  }
  const float transmittance = 0.8f;
  const Vec3f sphereCentre{0, 0.8f, 0}, lightPosition{0, 5, 0};
};

TEST_F(GlassSphereCaustic, StoredPowerIsWhatPassesTheSphereAndTheGatherSpreadsIt) {
  build(true);
  addCamera(2, 1, {0, 3, 3}, {0, 0, 0}, 40);
  const std::string report = prepare();
  ASSERT_GT(photonStore.photons.size(), 10000u);
  // The progress line returns to its start; the light's rate and the totals close the casting.
  EXPECT_EQ(report.find("photon   cast 0.000 [%]\r"), report.find("photon"));
  char sotred[32];
  std::snprintf(sotred, sizeof sotred, "%10.3f", float(photonStore.photons.size() * 24) * 0x1p-20f);
  const std::regex rows(
      "photon   cast +[0-9]+\\.[0-9]{3} \\[M rays/s\\]\n"
      "photon   cast +[0-9]+\\.000 \\[seconds\\]\n"
      "photon radius      0\\.050 \\[m\\]\n"
      "photon sotred " +
      std::string(sotred) + " \\[M bytes\\]\n_{80}\n\n");
  // Only the end: the per-photon lines before it are too many for a regular expression.
  EXPECT_TRUE(std::regex_search(report.substr(report.size() - 800), rows));
  // Each photon that came through a mirror or glass to a diffuse front says its colour: 0.8 squared.
  EXPECT_NE(report.find("\n 0.640 0.640 0.640\n"), std::string::npos);

  // Intensity 1 in every direction of the cone: the flux through the sphere is its solid angle.
  const double expected = solidAngleFacing(objects[rootObject].mesh, lightPosition) * transmittance * transmittance;
  Color3f stored;
  for (const Photon& p : photonStore.photons) {
    stored += decodePower(p.power);
    EXPECT_NEAR(p.position.y, 0, 1e-5f);
    // All inside the shadow: the sphere's edge seen from the light, projected to the floor.
    EXPECT_LT(std::hypot(p.position.x, p.position.z), 5 * std::tan(std::asin(0.5f / 4.2f)) + 0.01f);
  }
  EXPECT_NEAR(stored.r, expected, 0.02 * expected);

  // The estimate integrated over the floor, by the midpoint rule on a 160 by
  // 160 grid, gives back the stored power, with the known bias of the
  // estimate: 32 photons over the disk of the farthest of them come out at
  // 32 / 31 of the density on average.
  const int cells = 160;
  const float size = 2.0f / cells;
  double integral = 0;
  Surface s;
  s.geometric_normal = Y;
  Ray ray;
  for (int i = 0; i < cells; ++i)
    for (int j = 0; j < cells; ++j) {
      s.position = {-1 + (float(i) + 0.5f) * size, 0, -1 + (float(j) + 0.5f) * size};
      integral += gatherCaustics(ray, s).g * size * size;
    }
  EXPECT_NEAR(integral, stored.g * 32 / 31, 0.03 * stored.g);
}

TEST_F(GlassSphereCaustic, AFloorLitDirectlyStoresNothingAndDepthOneNothingAtAll) {
  build(false, 20000);
  addCamera(2, 1, {0, 3, 3}, {0, 0, 0}, 40);
  prepare();
  EXPECT_TRUE(photonStore.photons.empty());
  EXPECT_TRUE(photonStore.nodes.empty());

  restart();
  build(true, 20000);
  addCamera(2, 1, {0, 3, 3}, {0, 0, 0}, 40);
  // Light stops at the sphere: no child, so no caustic.
  qzSetRendererPhotonDepth(1);
  prepare();
  EXPECT_TRUE(photonStore.photons.empty());
}

TEST_F(GlassSphereCaustic, SkyPhotonsReachThePatchesAndNeverTheStore) {
  for (bool withSphere : {true, false}) {
    build(withSphere);
    pointLights.clear();
    qzSetSkyLightColor(1, 1, 1);
    qzSetSkyLightSample(0);
    qzSetSkyLightPhoton(20000);
    qzSetRendererResolution(0.1f);
    addCamera(2, 1, {0, 3, 3}, {0, 0, 0}, 40);
    prepare();
    // Through the glass they would be caustics, but the sky's are never kept.
    EXPECT_TRUE(photonStore.photons.empty());
    // A sky of colour 1 casts 1 / pi per unit area and solid angle: the open
    // white floor takes its area, 4, from the upper half of the directions.
    if (!withSphere) {
      EXPECT_NEAR(patchFlux().g, 4, 0.04f);
    }
    restart();
  }
}

TEST_F(GlassSphereCaustic, TheRenderedFloorShowsTheCausticUnderTheSphere) {
  // A camera between the sphere and the floor looks straight down at the
  // middle of the shadow; the same render without photons tells the caustic apart.
  auto floorUnderSphere = [this](float radius) {
    build(true);
    qzSetRendererRadius(radius);
    addCamera(8, 2, {0, 0.2f, 0}, {0, 0, 0}, 70, Z);
    render();
    const float mean = meanPixel(0).g;
    restart();
    return mean;
  };
  const float withPhotons = floorUnderSphere(0.05f), without = floorUnderSphere(0);
  // Straight below, the light arrives through both glass surfaces from 5 m:
  // irradiance t^2 / 25, on a white floor the same scale as direct light,
  // with the estimate's bias of 32 / 31.
  const float expected = transmittance * transmittance / 25 * 32 / 31;
  EXPECT_NEAR(withPhotons - without, expected, 0.04f * expected);
}

// A closed box of grey walls with a point light in the middle: every photon
// lands on a wall, and what the walls do not absorb goes on.
class LitBox : public PhotonRenderTest {
 protected:
  void build(int photons) {
    const int wall = qzAddShader();
    qzSetShaderColor(wall, 1, diffuseChannel, albedo, albedo, albedo);  // front only: nothing passes
    addCube(wall, 1, false);
    pointLight({0.1f, 0.2f, 0.05f}, {1, 1, 1}, photons);
    addCamera(16, 4, {0, 0, 0.9f}, {0, 0, -1}, 70);
  }
  const float albedo = 0.5f;
};

TEST_F(LitBox, PatchesHoldThePowerOfEveryBounceUpToThePhotonDepth) {
  // The light sends 4 pi; each wall hit keeps the albedo's share of what arrives.
  const float power = 4 * testPi;
  for (int depth : {1, 3}) {
    build(20000);
    qzSetRendererResolution(0.05f);
    qzSetRendererPhotonDepth(depth);
    const std::string report = prepare();
    EXPECT_NE(report.find("density estimator buffer"), std::string::npos);
    float bounces = 0;
    for (int k = 1; k <= depth; ++k) bounces += std::pow(albedo, float(k));
    // Threads add to patches without a lock: a lost update now and then is allowed for.
    EXPECT_NEAR(patchFlux().g, power * bounces, 0.01f * power * bounces) << depth;
    EXPECT_TRUE(photonStore.photons.empty());
    restart();
  }
}

TEST_F(LitBox, FinalGatherMatchesADeepPathTrace) {
  build(0);
  // Light after eight bounces is 0.5^8 of the first, after ten 0.5^10: both below the tolerance.
  qzSetRendererBounce(8);
  qzSetRendererRayDepth(9);
  render();
  const Color3f traced = meanPixel(0);
  restart();

  build(150000);
  qzSetRendererResolution(0.004f);
  qzSetRendererPhotonDepth(10);
  render();
  const Color3f gathered = meanPixel(0);
  // The patches hold albedo times irradiance, the same scale as a path's radiance.
  EXPECT_NEAR(gathered.g, traced.g, 0.03f * traced.g);
}

TEST_F(PhotonRenderTest, GeometryLightPhotonsComeFromTheLampPanel) {
  const int wall = qzAddShader();
  qzSetShaderColor(wall, 1, diffuseChannel, 0.5f, 0.5f, 0.5f);
  addCube(wall, 1, false);
  // A panel under the ceiling, 0.4 by 0.4, emitting 1 from its front, downwards.
  const int lamp = qzAddShader();
  qzSetShaderColor(lamp, 1, emissionChannel, 1, 1, 1);
  qzSetShaderGeometryLight(lamp, 1, true);
  addQuad(lamp, {0, 0.9f, 0}, 0.2f * X, 0.2f * Z);
  qzSetGeometryLightSample(16);
  qzSetGeometryLightPhoton(40000);
  qzSetRendererResolution(0.05f);
  qzSetRendererPhotonDepth(1);
  addCamera(2, 1, {0, 0, 0.9f}, {0, 0, -1}, 70);
  const std::string report = prepare();
  EXPECT_NE(report.find("[M rays/s]"), std::string::npos);
  // The panel sends its area; every photon lands on a wall, which keeps half.
  EXPECT_NEAR(patchFlux().g, 0.5f * 0.16f, 0.01f * 0.5f * 0.16f);
}

TEST_F(PhotonRenderTest, BadSettingsRenderToTheEnd) {
  auto scene = [this] {
    addQuad(addShader(diffuseChannel, white), {0, 0, 0}, 1000 * Z, 1000 * X);
    addCamera(4, 1, {0, 1, 1}, {0, 0, 0}, 40);
    return pointLight({0, 1, 0}, white, 500);
  };
  // No radius and no resolution, the defaults, cast nothing.
  scene();
  std::string report = prepare();
  EXPECT_EQ(report.find("photon"), std::string::npos);
  EXPECT_EQ(report.find("density estimator"), std::string::npos);
  restart();

  // A negative photon count casts nothing from that light, but the rows still come.
  qzSetPointLightPhoton(scene(), -5);
  qzSetRendererRadius(0.1f);
  report = render();
  EXPECT_NE(report.find("photon sotred"), std::string::npos);
  EXPECT_TRUE(photonStore.photons.empty());
  restart();

  // A radius of -1 is no radius.
  scene();
  qzSetRendererRadius(-1);
  report = render();
  EXPECT_EQ(report.find("photon"), std::string::npos);
  restart();

  // A resolution too small to make patches still turns the gather on; the
  // paths that end early find no patch and take black.
  scene();
  qzSetRendererResolution(1e-30f);
  report = render();
  EXPECT_NE(report.find("photon   cast"), std::string::npos);
  EXPECT_EQ(report.find("density estimator buffer"), std::string::npos);
  EXPECT_GT(meanPixel(0).g, 0);
}

// The patch arrays of one kind may take 0x40000000 bytes, 24 bytes a patch
// with both sides: 44739242 patches fit, one more ends the process.
class PatchMemoryLimit : public PathTest {
 protected:
  // Squares of the given areas with patches of area 1.
  static void addSquares(Mesh& mesh, const std::vector<std::pair<float, int>>& areas) {
    for (auto [area, count] : areas)
      for (int i = 0; i < count; ++i) {
        const float s = std::sqrt(area);
        const uint32_t v = uint32_t(mesh.worldPositions.size());
        for (Vec3f p : {Vec3f{0, 0, 0}, Vec3f{s, 0, 0}, Vec3f{s, 0, s}, Vec3f{0, 0, s}})
          mesh.worldPositions.push_back(p);
        mesh.tetragons.push_back({v, v + 1, v + 2, v + 3, 0});
      }
  }
  void SetUp() override {
    PathTest::SetUp();
    captureOutput([] { qzInitializeShaders(); });  // shader 0 is diffuse
    // 688 grids of 255 (the largest), one of 45, one of 4 and one of 1.
    addSquares(mesh, {{70000, 688}, {2000, 1}, {12, 1}, {0.5f, 1}});
  }
  Mesh mesh;
};

TEST_F(PatchMemoryLimit, ExactlyAtTheLimitGoesOn) {
  sizePatchGrids(mesh, 1);
  uint64_t patches = 0;
  for (uint32_t n : mesh.tetragon_grid) patches += uint64_t(n) * n;
  EXPECT_EQ(patches, 44739242u);
  EXPECT_LE(patches * 24, patchMemoryLimit);
  EXPECT_EQ(std::tuple(mesh.tetragon_grid[0], mesh.tetragon_grid[688], mesh.tetragon_offset[690]),
            std::tuple(255u, 45u, 44739241u));
}

TEST_F(PatchMemoryLimit, OnePatchMoreEndsTheProcessWithItsMessage) {
  addSquares(mesh, {{0.5f, 1}});
  // The message goes to the report on standard output; the child sends it where the check reads.
  EXPECT_EXIT(
      {
        dup2(2, 1);
        sizePatchGrids(mesh, 1);
      },
      testing::ExitedWithCode(1), "density estimator consumes more than 1GB memory.");
}
