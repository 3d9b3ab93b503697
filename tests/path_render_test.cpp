// Known-answer renders through the exports: emission seen directly with the
// first hit's AOVs, a diffuse plane under an emitter, mirrors, glass, a rough
// glossy plane in an emitting box, jitter and the depth limit.
#include <gtest/gtest.h>

#include <cmath>

#include "shading/microfacet.h"
#include "shading/sampling_shapes.h"
#include "shading/shader.h"
#include "shading/surface_setup.h"
#include "tests/path_fixture.h"
#include "tests/scene_writer.h"

namespace {
constexpr Vec3f X{1, 0, 0}, Y{0, 1, 0}, Z{0, 0, 1};
}  // namespace

TEST_F(PathTest, EmissionSeenDirectlyAndTheFirstHitsAOVs) {
  const float d = 3;
  addQuad(addShader(emissionChannel, {2, 3, 4}), {0, 0, -d}, 10 * X, 10 * Y);
  const int c = addCamera(4, 2, {0, 0, 0}, {0, 0, -1}, 2);
  const int depth = addAOV(c, 0x80000), normal = addAOV(c, 0x10000), position = addAOV(c, 0x40000);
  const int emission = addAOV(c, 0x8000), both = addAOV(c, 0x10000 | 0x80000);
  render();
  // Rays within a degree of the axis: the distance exceeds d by at most d (1 / cos - 1).
  const float spread = d * (1 / std::cos(2 * testPi / 180) - 1);
  for (int p = 0; p < pixelCount(); ++p) {
    expectColorNear(pixel(0, p), {2, 3, 4}, 1e-5f);
    expectColorNear(pixel(emission, p), {2, 3, 4}, 1e-5f);
    expectColorNear(pixel(depth, p), {d + spread / 2, d + spread / 2, d + spread / 2}, spread / 2 + 1e-5f);
    expectColorNear(pixel(normal, p), {0.5f, 0.5f, 1}, 1e-6f);
    const Color3f at = pixel(position, p);
    EXPECT_NEAR(at.b, -d, 1e-5f);
    EXPECT_LT(std::fabs(at.r), d * std::tan(testPi / 180));
    EXPECT_LT(std::fabs(at.g), d * std::tan(testPi / 180));
    const Color3f sum = pixel(both, p), n = pixel(normal, p), z = pixel(depth, p);
    expectColorNear(sum, n + z, 1e-5f);
  }
}

// A diffuse floor of albedo 0.5 under an emitting square one unit above it,
// seen at its centre: with one bounce it shows albedo times emission times the
// covered share of its cosine-weighted hemisphere.
class DiffuseUnderEmitter : public PathTest {
 protected:
  void build(int floorShader, int passes = 4) {
    addFloorAndLamp(floorShader, addShader(emissionChannel, {1, 2, 4}));
    camera = addCamera(8, passes, {0, 0.5f, 0}, {0, 0, 0}, 1, {0, 0, -1});
  }
  void addFloorAndLamp(int floorShader, int lampShader) {
    addQuad(floorShader, {0, 0, 0}, 50 * Z, 50 * X);
    addQuad(lampShader, {0, 1, 0}, X, Z);
  }
  // The floor's value against the analytic one, each channel within four
  // standard deviations of a mean of the samples taken: 8 x 8 pixels, each
  // with albedo times `sample` samples over all passes.
  void expectAnalyticFloor(int aov) {
    const float F = squareFormFactor(1, 1);
    const float n = 64 * 0.5f * float(renderer.sample);
    const Color3f mean = meanPixel(aov);
    const Color3f emission{1, 2, 4};
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(mean[i], 0.5f * emission[i] * F, 0.5f * emission[i] * meanTolerance(F, n));
  }
  int camera = 0;
};

TEST_F(DiffuseUnderEmitter, OneBounceGivesAlbedoTimesEmissionTimesTheCoveredShare) {
  // Shaders, settings, sky and camera come from the scene's files; the faces and two AOVs from the exports.
  const std::string folder = scratchFolder("diffuse-under-emitter");
  writeSceneFile(folder + "/shader", "materials.qz",
                 "shader\n  name \"floor\"\n  diffuse\n    color 0.5 0.5 0.5\n    side \"both\"\n  end\nend\n"
                 "shader\n  name \"lamp\"\n  emission\n    color 1 2 4\n    side \"both\"\n  end\nend\n");
  writeSceneFile(folder + "/render", "render.qz",
                 "render\n  final_gather\n    sample 1024\n    bounce 1\n  end\nend\n");
  writeSceneFile(folder + "/light", "sky.qz", "sky_light\n  color 0 0 0\nend\n");
  const std::string pose =
      "  pose\n    position 0 0.5 0\n    target 0 0 0\n    up_vector 0 0 -1\n    field_of_view 1\n  end\n";
  writeSceneFile(folder + "/camera", "camera.qz",
                 "camera\n  resolution 8 8\n  sample 4\n" + pose + pose +
                     "  aov\n    type \"lambertian\"\n    image \"\"\n  end\nend\n");
  captureOutput([&] { qzLoadScene((folder + "/").c_str()); });
  qzSetCameraAOVName(0, 0, "");
  const int albedo = addAOV(0, 0x10), emission = addAOV(0, 0x8000);
  addFloorAndLamp(findOrAddShader("floor"), findOrAddShader("lamp"));
  render();
  expectAnalyticFloor(0);
  for (int p = 0; p < pixelCount(); ++p) {
    expectColorNear(pixel(1, p), pixel(0, p), 1e-5f);  // the lambertian AOV is all of it
    expectColorNear(pixel(albedo, p), {0.5f, 0.5f, 0.5f}, 1e-6f);
    expectColorNear(pixel(emission, p), black, 0);
  }
}

TEST_F(DiffuseUnderEmitter, BounceZeroLeavesTheFloorBlack) {
  qzSetRendererBounce(0);
  build(addShader(diffuseChannel, {0.5f, 0.5f, 0.5f}));
  render();
  expectColorNear(meanPixel(0), black, 0);
}

TEST_F(DiffuseUnderEmitter, JitteredFloorFindsItselfAndKeepsTheAnswer) {
  qzSetRendererSample(1024);
  const int floor = addShader(diffuseChannel, {0.5f, 0.5f, 0.5f});
  qzSetShaderColor(floor, 3, jitterChannel, 0.05f, 0.05f, 0.05f);
  build(floor);
  render();
  EXPECT_GT(probeRays(), 0u);
  expectAnalyticFloor(0);
}

TEST_F(DiffuseUnderEmitter, AJitterColourWithAZeroChannelEndsAsTheErrorColour) {
  const int floor = addShader(diffuseChannel, {0.5f, 0.5f, 0.5f});
  qzSetShaderColor(floor, 3, jitterChannel, 0.05f, 0, 0.05f);
  qzSetRendererError(7, 8, 9);
  build(floor, 3);
  render();
  for (int p = 0; p < pixelCount(); ++p) expectColorNear(pixel(0, p), {7, 8, 9}, 1e-5f);
  qzSetRendererError(0, 0, 0);
}

// A mirror floor seen at 45 degrees, reflecting an emitter.
class MirrorTest : public PathTest {
 protected:
  void build(float ior) {
    const int mirror = qzAddShader();
    qzSetShaderColor(mirror, 1, specularChannel, 1, 1, 1);  // front only: nothing passes through
    qzSetShaderIOR(mirror, ior);
    addQuad(mirror, {0, 0, 0}, 5 * Z, 5 * X);
    addQuad(addShader(emissionChannel, {1, 2, 3}), {0, 2, -2}, 1.5f * X, 1.5f * Y);
    addCamera(4, 2, {0, 1, 1}, {0, 0, 0}, 2);
  }
};

TEST_F(MirrorTest, TotalReflectionShowsTheEmitterWholeEvenWithNoBounce) {
  // Seen from outside an index of 0.5 reflects totally below 60 degrees from the
  // normal; a mirror knows no bounce limit, only the depth.
  qzSetRendererBounce(0);
  build(0.5f);
  const int radiance = addAOV(0, 0x800), colour = addAOV(0, 0x1000), diffuse = addAOV(0, 0x28);
  render();
  for (int p = 0; p < pixelCount(); ++p) {
    expectColorNear(pixel(0, p), {1, 2, 3}, 1e-5f);
    expectColorNear(pixel(radiance, p), {1, 2, 3}, 1e-5f);
    expectColorNear(pixel(colour, p), white, 1e-6f);
    expectColorNear(pixel(diffuse, p), black, 0);
  }
}

TEST_F(MirrorTest, GlassIndexReflectsSchlicksShare) {
  build(1.5f);
  render();
  const float c = std::sqrt(0.5f), F = std::pow(1 - c, 5.0f) * 0.96f + 0.04f;
  // Across the two degrees of view the cosine moves by 0.02, F by less than 2e-4 of it.
  expectColorNear(meanPixel(0), Color3f{1, 2, 3} * F, 3 * 2e-4f);
}

// A slab of glass between the camera and an emitter, at normal incidence.
class GlassSlab : public PathTest {
 protected:
  int slab(float ior) {
    const int glass = addShader(specularChannel, white);
    qzSetShaderIOR(glass, ior);
    return glass;
  }
  void build(int glass, bool exitFacesOut) {
    addQuad(glass, {0, 0, 0}, 4 * X, 4 * Y);
    addQuad(glass, {0, 0, -2}, 4 * (exitFacesOut ? Y : X), 4 * (exitFacesOut ? X : Y));
    addQuad(addShader(emissionChannel, {1, 2, 3}), {0, 0, -4}, 10 * X, 10 * Y);
    addCamera(4, 2, {0, 0, 3}, {0, 0, 0}, 2);
  }
};

TEST_F(GlassSlab, PassesTwoSurfacesWithTheirEchoesAttenuatesInsideAndDropsAWrongIndex) {
  const struct {
    const char* what;
    float ior, density;
    bool exitFacesOut;
    Color3f expected;
  } cases[] = {
      // 0.96 through each face; the light bouncing between the faces inside adds 0.04^2 per round.
      {"clear", 1.5f, 0, true, Color3f{1, 2, 3} * (0.96f * 0.96f / (1 - 0.04f * 0.04f))},
      // The far face turned inwards: the ray "enters" twice, leaves with 1 / 1.5^2 and dies at the emitter.
      {"wrong index", 1.5f, 0, false, black},
      // Per unit of length (1 - density) times the transmittance (0.5, 1, 1), over the
      // two units inside; with a black albedo nothing scatters.
      {"medium", 1, 0.5f, true, {1 * 0.0625f, 2 * 0.25f, 3 * 0.25f}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    restart();
    const int glass = slab(c.ior);
    if (c.density > 0) {
      qzSetShaderTransmittance(glass, 0.5f, 1, 1);
      qzSetShaderDensity(glass, c.density);
    }
    build(glass, c.exitFacesOut);
    render();
    expectColorNear(meanPixel(0), c.expected, 3e-4f);
  }
}

TEST_F(GlassSlab, AScatteringMediumInAnEmittingBoxLooksLikeTheBox) {
  qzSetRendererBounce(64);
  qzSetRendererRayDepth(64);
  qzSetRendererSample(1024);
  const int glass = slab(1);
  qzSetShaderDensity(glass, 0.3f);
  qzSetShaderParticleColor(glass, 1, 1, 1);
  addCube(addShader(emissionChannel, {0.25f, 0.5f, 1}), 10, false);
  addCube(glass, 1, true);  // a unit cube of the medium
  addCamera(4, 2, {0, 0, 5}, {0, 0, 0}, 2);
  render();
  // Scattering loses nothing and the walls send the same everywhere: light that
  // passes and light that scatters on its way out both come from a wall. Each
  // of the 16 x 1024 first-bounce samples scatters or not: a share in [0, 1].
  const Color3f wallColor{0.25f, 0.5f, 1};
  const float tolerance = meanTolerance(0.5f, 16 * 1024);
  for (int i = 0; i < 3; ++i) EXPECT_NEAR(meanPixel(0)[i], wallColor[i], wallColor[i] * tolerance);
}

// A rough glossy floor inside an emitting box reflects the emission times its
// directional albedo, which the lobe's evaluation gives by integration.
TEST_F(PathTest, RoughGlossyFloorInAnEmittingBoxConverges) {
  qzSetRendererSample(1024);
  const int floor = qzAddShader();
  qzSetShaderColor(floor, 1, glossyChannel, 1, 1, 1);
  qzSetShaderColor(floor, 3, roughnessChannel, 0.6f, 0.6f, 0);
  qzSetShaderIOR(floor, 100);  // a nearly white Fresnel term keeps the weights close to 1
  addQuad(floor, {0, 0, 0}, 4 * Z, 4 * X);
  addCube(addShader(emissionChannel, white), 5, false);
  addCamera(4, 4, {0, 2, 2}, {0, 0, 0}, 2);
  render();

  Surface s;
  s.normal = s.geometric_normal = Y;
  buildOrthonormalBasis(s.normal, s.tangent, s.bitangent);
  s.view = normalize({0, 1, 1});
  setupScattering(shaders[size_t(floor)], 1, s);
  // The directional albedo by cosine-weighted integration over the hemisphere.
  double albedo = 0;
  const int grid = 1000;
  for (int i = 0; i < grid; ++i)
    for (int j = 0; j < grid; ++j) {
      const float r = std::sqrt((i + 0.5f) / grid), phi = 2 * testPi * (j + 0.5f) / grid;
      const Vec3f l = r * std::cos(phi) * s.tangent + r * std::sin(phi) * s.bitangent + std::sqrt(1 - r * r) * s.normal;
      albedo += testPi * evalGlossyReflection(s, s.view, l);
    }
  const float rho = float(albedo / (grid * grid));
  EXPECT_GT(rho, 0.5f);
  // Each sample's weight F G1 lies in [0, 1]; 16 pixels take `sample` each.
  EXPECT_NEAR(meanPixel(0).g, rho, meanTolerance(rho, 16 * 1024));
}

// Two emitting mirrors face each other with the camera between them, seen at
// 60 degrees from their normal, where an index of 0.5 reflects totally: every
// hit adds its emission and passes all that comes back, so the sum counts the hits.
class FacingMirrors : public PathTest {
 protected:
  void build() {
    const int mirror = addShader(emissionChannel, {1, 1, 1});
    qzSetShaderColor(mirror, 1, specularChannel, 1, 1, 1);
    qzSetShaderIOR(mirror, 0.5f);
    addQuad(mirror, {0, 0, -1}, 1000 * X, 1000 * Y);
    addQuad(mirror, {0, 0, 1}, 1000 * Y, 1000 * X);
    addCamera(4, 1, {0, 0, 0}, {std::sqrt(0.75f), 0, -0.5f}, 2);
  }
};

TEST_F(FacingMirrors, TheLastChildWithinRayDepthEndsTheSeriesAndTheBounceCounterBoundsIt) {
  // A ray depth beyond the bounce counter stops at its width: 256 levels of
  // recursion on every worker thread.
  for (auto [depth, hits] : {std::pair{3, 3.0f}, std::pair{100000, 256.0f}}) {
    restart();
    qzSetRendererRayDepth(depth);
    build();
    render();
    expectColorNear(meanPixel(0), white * hits, 1e-5f);
  }
}
