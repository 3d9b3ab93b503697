#include <sstream>

#include "frame/scene_directory.h"
#include "shading/microfacet.h"
#include "tests/light_fixture.h"
#include "tests/regex.h"
#include "tests/scene_writer.h"

namespace {

void readBlocks(const std::string& text) {
  std::istringstream file(text);
  std::string keyword;
  while (file >> keyword) dispatchBlock(keyword, file);
}

// Direct light of one light at one point, as the integrator would gather it.
template <class AnyLight>
LobeRadiance lightAt(AnyLight& light, const Surface& surface, const Ray& ray = cameraHit()) {
  LobeRadiance lobes;
  shadeSurface(light, lobes, ray, surface);
  return lobes;
}

// A new point light at height h over the origin, its spot axis straight down.
PointLight& lightAbove(float h) {
  PointLight& light = pointLights[size_t(qzAddPointLight())];
  light.position = {0, h, 0};
  light.direction = {0, -1, 0};
  return light;
}

}  // namespace

TEST_F(LightTest, BlocksReadEveryKeyAndExportsStoreWhatTheyAreGiven) {
  readBlocks(
      "point_light\n color 2 3 4\n position 1 2 3\n direction 0 0 -1\n blur 0.5\n sample 9\n"
      " photon 5000000000\n inner_angle 10\n outer_angle 30\n offset 0.2\n ior 1.5\n"
      " aov\n  image \"p.hdr\"\n  type \"diffuse\"\n  type \"glossy\"\n end\n"
      " link\n  shader \"a\"\n  shader \"b\"\n end\nend\n"
      "parallel_light\n direction 0 -1 0\n color 5 5 5\n blur 2\n position 9 9 9\n inner_angle 3\nend\n");
  ASSERT_EQ(pointLights.size(), 1u);
  ASSERT_EQ(parallelLights.size(), 1u);
  const PointLight& p = pointLights[0];
  EXPECT_EQ(std::tuple(p.color, p.position, p.direction),
            std::tuple(Color3f(2, 3, 4), Vec3f(1, 2, 3), Vec3f(0, 0, -1)));
  EXPECT_EQ(std::tuple(p.blur, p.sample, p.photon, p.offset, p.ior), std::tuple(0.5f, 9, 5000000000, 0.2f, 1.5f));
  EXPECT_EQ(std::tuple(p.inner_angle, p.outer_angle), std::tuple(10, 30));
  ASSERT_EQ(p.aovs.size(), 1u);
  EXPECT_EQ(std::tuple(p.aovs[0].image.name, p.aovs[0].channel), std::tuple("p.hdr", 0x2A8u));
  EXPECT_EQ(p.link.names, (std::vector<std::string>{"a", "b"}));
  EXPECT_TRUE(p.link.shaders.empty());
  // The parallel light has no position or cone: those keys pass unread.
  const ParallelLight& q = parallelLights[0];
  EXPECT_EQ(std::tuple(q.frame.normal, q.color, q.blur), std::tuple(Vec3f(0, -1, 0), Color3f(5, 5, 5), 2.0f));

  const int id = qzAddPointLight();
  EXPECT_EQ(id, 1);
  const PointLight& fresh = pointLights[1];
  EXPECT_EQ(std::tuple(fresh.color, fresh.sample, fresh.offset, fresh.direction, fresh.outer_angle, fresh.photon),
            std::tuple(white, 1, 0.1f, Vec3f(0, 1, 0), 180, 0));
  EXPECT_EQ(qzAddPointLightAOV(id), 0);
  EXPECT_EQ(pointLights[1].aovs[0].image.name, "undefined");
  qzSetPointLightAOVChannel(id, 0, 0x8);
  qzSetPointLightAOVChannel(id, 0, 0x80);
  EXPECT_EQ(pointLights[1].aovs[0].channel, 0x88u);
  pointLights[1].reset();
  EXPECT_TRUE(pointLights[1].aovs.empty());

  // Identifiers out of range change nothing.
  qzSetPointLightColor(7, 1, 1, 1);
  qzSetParallelLightAOVName(0, 5, "x");
  qzSetPointLightAOVName(0, 0, nullptr);
  EXPECT_EQ(qzAddParallelLightAOV(-1), -1);
  EXPECT_EQ(pointLights[0].aovs[0].image.name, "");
}

TEST_F(LightTest, PreparationResolvesLinksDerivesConesAndPowerAndReportsBothArrays) {
  qzSetShaderName(qzAddShader(), "lit");
  sceneCenter = {0, 0, 0};
  sceneRadius = 2;
  const int outside = qzAddPointLight(), inside = qzAddPointLight();
  PointLight& far = pointLights[outside];
  far.position = {0, 4, 0};
  far.photon = 10;
  far.color = {1, 2, 3};
  far.direction = {0, -2, 0};
  far.outer_angle = 90;
  far.inner_angle = 45;
  far.link.names = {"lit", "no such shader"};
  pointLights[inside].position = {1, 0, 0};
  pointLights[inside].photon = 1;
  const int sun = qzAddParallelLight();
  qzSetParallelLightDirection(sun, 0, 0, -3);
  qzSetParallelLightBlur(sun, 60);
  qzSetParallelLightPhoton(sun, 5);
  qzSetParallelLightLink(sun, 1);

  const std::string out = captureOutput([] { qzInitializeGaffer(); });
  // Record size, count and mebibytes, parallel lights first.
  auto row = [](const char* count) {
    return std::string(" +[0-9]+ \\[bytes\\]         ") + count + " +[0-9.]+ \\[M bytes\\]\n";
  };
  EXPECT_TRUE(std::regex_match(out, std::regex("parallel lights" + row("1") + "point    lights" + row("2")))) << out;
  EXPECT_EQ(std::tuple(far.link.shaders, far.direction, far.all_directions),
            std::tuple(std::vector<int>{1, 0}, Vec3f(0, -1, 0), 0));
  // The cone towards the scene's sphere: tan = R / d.
  EXPECT_NEAR(far.cos_max, 4 / std::sqrt(20.0f), 1e-6);
  EXPECT_NEAR(far.frame.normal.y, -1, 1e-6);
  EXPECT_NEAR(far.power.b, 2 * testPi * (1 - far.cos_max) * 3, 1e-5);
  EXPECT_NEAR(far.outer_radians, testPi / 2, 1e-6);
  EXPECT_NEAR(far.inner_radians, testPi / 4, 1e-6);
  EXPECT_EQ(pointLights[inside].all_directions, 1);
  EXPECT_NEAR(pointLights[inside].power.r, 4 * testPi, 1e-5);
  const ParallelLight& p = parallelLights[sun];
  EXPECT_EQ(p.frame.normal, Vec3f(0, 0, -1));
  EXPECT_NEAR(dot(p.frame.tangent, p.frame.normal), 0, 1e-6);
  EXPECT_NEAR(dot(p.frame.bitangent, p.frame.tangent), 0, 1e-6);
  EXPECT_NEAR(p.cos_max, 0.5f, 1e-6);
  EXPECT_NEAR(p.power.g, testPi * 4, 1e-5);
  EXPECT_EQ(p.link.shaders, (std::vector<int>{1}));

  // A scattering sky sends every point light's photons everywhere.
  sky.volume.albedo = {0, 0, 0.5f};
  captureOutput([] { prepareGaffer(); });
  EXPECT_EQ(far.all_directions, 1);

  qzFinalizeGaffer();
  EXPECT_TRUE(pointLights.empty() && parallelLights.empty());
  EXPECT_EQ(captureOutput([] { qzInitializeGaffer(); }), "");
}

TEST_F(LightTest, SpotFactorRampsLinearlyBetweenTheTwoAngles) {
  PointLight& light = pointLights[size_t(qzAddPointLight())];
  captureOutput([] { prepareGaffer(); });
  // The default: axis up and outer angle 180 is a falloff linear in the angle from up.
  EXPECT_NEAR(spotFactor(light, {0, 1, 0}), 1, 1e-6);
  EXPECT_NEAR(spotFactor(light, {1, 0, 0}), 0.5f, 1e-6);
  EXPECT_NEAR(spotFactor(light, normalize({1, -1, 0})), 0.25f, 1e-6);
  EXPECT_NEAR(spotFactor(light, {0, -1, 0}), 0, 1e-6);

  light.direction = {0, -1, 0};
  light.inner_angle = 20;
  light.outer_angle = 40;
  captureOutput([] { prepareGaffer(); });
  auto at = [&](float degrees) {
    const float a = degrees * testPi / 180;
    return spotFactor(light, {std::sin(a), -std::cos(a), 0});
  };
  EXPECT_NEAR(at(0), 1, 1e-6);
  EXPECT_NEAR(at(19.9f), 1, 1e-6);
  EXPECT_NEAR(at(25), 0.75f, 1e-5);
  EXPECT_NEAR(at(30), 0.5f, 1e-5);
  EXPECT_NEAR(at(40.1f), 0, 1e-6);
  EXPECT_NEAR(at(120), 0, 1e-6);
  // Equal angles make a hard edge and never a NaN.
  light.inner_angle = light.outer_angle = 30;
  captureOutput([] { prepareGaffer(); });
  EXPECT_EQ(at(20), 1);
  EXPECT_EQ(at(30), 0);
  EXPECT_EQ(at(40), 0);
}

TEST_F(LightTest, TheTerminatorAndTheBounceLimitCutDirectLight) {
  const Color3f rho{0.5f, 0.25f, 0.8f};
  // Offset 0 is the plain cosine of a point light beside the foot.
  PointLight& light = lightAbove(2);
  light.offset = 0;
  captureOutput([] { prepareGaffer(); });
  const float c = 2 / std::sqrt(5.0f);
  expectColorNear(lightAt(light, planePoint({0, 0, 1}, rho)).diffuse[0],
                  rho * ((testPi - std::acos(c)) / testPi * c / 5), 1e-6f);
  // Past the renderer's bounce limit a later bounce gets no direct light.
  Ray deep = cameraHit();
  deep.cursor.dimension = 2;
  EXPECT_EQ(lightAt(light, planePoint({0, 0, 0}, rho), deep).diffuse[0], black);
  renderer.bounce = 2;
  expectColorNear(lightAt(light, planePoint({0, 0, 0}, rho), deep).diffuse[0], rho * 0.25f, 1e-6f);

  // Grazing parallel light below the terminator's offset gives nothing.
  ParallelLight& sun = parallelLights[size_t(qzAddParallelLight())];
  sun.frame.normal = normalize({1, -0.05f, 0});
  captureOutput([] { prepareGaffer(); });
  EXPECT_EQ(lightAt(sun, planePoint({0, 0, 0}, rho)).diffuse[0], black);
}

TEST_F(LightTest, JitteredHitsTakeTheLightFromANearbyPointOfTheirShader) {
  // The same colour on both sides: a probe that finds the floor from below
  // brings the colours of its back.
  const int floor = qzAddShader();
  qzSetShaderColor(floor, 3, diffuseChannel, 0.5f, 0.5f, 0.5f);
  qzSetShaderColor(floor, 3, jitterChannel, 0.05f, 0.05f, 0.05f);
  const std::vector<float> p = {-5, 0, 5, 5, 0, 5, 5, 0, -5, -5, 0, -5};
  const int o = qzAddObject();
  qzAddVertexData(o, 4, "position", 4, 3, p.data());
  qzSetObjectShader(o, 4, floor);
  const unsigned face[4] = {0, 1, 2, 3};
  qzAddPrimitives(o, 4, 1, face);
  captureOutput([] {
    qzInitializeAccelerator();
    qzInitializeShaders();
  });
  PointLight& light = lightAbove(1);
  captureOutput([] { prepareGaffer(); });

  Surface s = planePoint({0, 0, 0}, {0.5f, 0.5f, 0.5f});
  s.jitter = {0.05f, 0.05f, 0.05f};
  s.jitter_on = 1;
  Ray hit = cameraHit(uint32_t(floor));
  hit.hit.kind = 4;
  hit.facing = 1;
  const uint64_t probes = probeRays();
  // Within 0.05 of the foot the light is the same to a few thousandths.
  expectColorNear(lightAt(light, s, hit).diffuse[0], {0.5f, 0.5f, 0.5f}, 0.01f);
  EXPECT_GT(probeRays(), probes);
  // A jitter radius of 0 in one channel turns the jitter off for lights.
  s.jitter.g = 0;
  const uint64_t before = probeRays();
  lightAt(light, s, hit);
  EXPECT_EQ(probeRays(), before);
}

TEST_F(LightTest, GlossyLobesTakeFourPiAndTransmissionLightsTheUnderside) {
  PointLight& light = pointLights[size_t(qzAddPointLight())];
  light.position = {1, 2, 0};
  light.direction = normalize({-1, -2, 0});
  captureOutput([] { prepareGaffer(); });
  Surface s = planePoint({0, 0, 0}, black);
  s.diffuse_on[0] = 0;
  s.view = normalize({-1, 1, 0});
  s.cos_view = dot(s.view, s.normal);
  s.glossy[0] = {0.3f, 0.6f, 0.9f};
  s.glossy_on[0] = 1;
  s.alpha[0] = {0.3f, 0.3f, 0};
  s.eta = 1 / 1.5f;
  const Vec3f l = normalize({1, 2, 0});
  const float expected = 4 * testPi / 5 * evalGlossyReflection(s, s.view, l) * dot(l, s.normal);
  ASSERT_GT(expected, 0);
  expectColorNear(lightAt(light, s).glossy[0], s.glossy[0] * expected, 1e-5f);

  // Diffuse transmission: the light below a surface seen from above.
  light.position = {0, -1, 0};
  light.direction = {0, 1, 0};
  light.offset = 0;
  Surface under = planePoint({0, 0, 0}, black);
  under.diffuse_on[0] = 0;
  under.diffuse[1] = {0.4f, 0.4f, 0.4f};
  under.diffuse_on[1] = 1;
  const LobeRadiance lobes = lightAt(light, under);
  expectColorNear(lobes.diffuse[1], {0.4f, 0.4f, 0.4f}, 1e-6f);
  EXPECT_EQ(lobes.diffuse[0], black);
}

TEST_F(LightTest, ASizedLightSpreadsItsSamplesOverThePassesAndFillsItsAOVs) {
  oneCamera(4, 2, 4);
  Surface s = planePoint({0, 0, 0}, {0.5f, 0.5f, 0.5f});
  Ray ray = cameraHit();
  // lobeAverage 0.5 times throughput 1 times sample 16 asks for 8, a multiple of 4 passes.
  EXPECT_EQ(firstBounceSampleCount(s, ray, 16), 8);
  EXPECT_EQ(firstBounceSampleCount(s, ray, 7), 4);
  EXPECT_EQ(firstBounceSampleCount(s, ray, 2), 4);
  ray.throughput = {0.1f, 0.1f, 0.1f};
  EXPECT_EQ(firstBounceSampleCount(s, ray, 1000), 48);
  s.diffuse_on[0] = 0;
  EXPECT_EQ(lobeAverage(s), 0);

  PointLight& light = lightAbove(1);
  light.blur = 0.001f;
  light.sample = 64;
  light.offset = 0;
  const int aov = qzAddPointLightAOV(0);
  qzSetPointLightAOVChannel(0, aov, 0x8);
  const int glossy = qzAddPointLightAOV(0);
  qzSetPointLightAOVChannel(0, glossy, 0x80);
  captureOutput([] { prepareGaffer(); });
  ASSERT_EQ(light.aovs[0].image.width, 4);

  // Each pass takes its share of the samples, weighted to a whole estimate.
  const Surface plane = planePoint({0, 0, 0}, {0.5f, 0.5f, 0.5f});
  Ray hit = cameraHit();
  hit.pixel = 5;
  hit.sample_count = 4;
  hit.throughput = {1, 1, 0.5f};
  Color3f sum;
  for (int pass = 0; pass < 4; ++pass) {
    renderer.pass = uint16_t(pass);
    sum += lightAt(light, plane, hit).diffuse[0];
  }
  expectColorNear(sum, {2, 2, 2}, 4e-3f);
  // The AOV holds the same, times the throughput, over the sample count.
  expectColorNear(readPixel(light.aovs[0].image, 5), sum * Color3f(0.25f, 0.25f, 0.125f), 1e-6f);
  EXPECT_EQ(readPixel(light.aovs[1].image, 5), black);
  EXPECT_EQ(readPixel(light.aovs[0].image, 4), black);
}

TEST_F(LightTest, PhotonsLeaveWithTheLightsPower) {
  sceneCenter = {0, 0, 0};
  sceneRadius = 1;
  PointLight& point = pointLights[size_t(qzAddPointLight())];
  point.position = {0, 0.5f, 0};  // inside the scene: the whole sphere
  point.color = {1, 2, 3};
  point.photon = 4096;
  ParallelLight& parallel = parallelLights[size_t(qzAddParallelLight())];
  parallel.frame.normal = {0, 0, -1};
  parallel.photon = 1000;
  parallel.color = {2, 2, 2};
  captureOutput([] { prepareGaffer(); });
  ASSERT_EQ(point.all_directions, 1);

  // The default spot falls off linearly with the angle; over the sphere it keeps half.
  Color3f total;
  Vec3f mean;
  for (uint64_t i = 0; i < 4096; ++i) {
    Ray ray;
    point.emit(ray, i);
    EXPECT_NEAR(length(ray.direction), 1, 1e-5);
    EXPECT_EQ(std::tuple(ray.origin, ray.hit.event, ray.cursor.dimension), std::tuple(point.position, lightEvent, 1u));
    total += ray.weight;
    mean += ray.direction / 4096;
  }
  expectColorNear(total, Color3f(1, 2, 3) * (2 * testPi), 0.05f);
  EXPECT_LT(length(mean), 0.01f);
  EXPECT_EQ(skyPhoton, 0);

  // From outside, photons go into the cone that holds the scene, from the sphere of blur.
  point.position = {0, 4, 0};
  point.blur = 0.25f;
  point.direction = {0, -1, 0};
  point.inner_angle = 90;  // full intensity all over the cone
  captureOutput([] { prepareGaffer(); });
  ASSERT_EQ(point.all_directions, 0);
  total = black;
  for (uint64_t i = 0; i < 1000; ++i) {
    Ray ray;
    point.emit(ray, i);
    EXPECT_GE(dot(ray.direction, {0, -1, 0}), point.cos_max - 1e-5f);
    EXPECT_NEAR(length(ray.origin - point.position), 0.25f, 1e-5);
    EXPECT_EQ(ray.cursor.dimension, 3u);
    total += ray.weight;
  }
  expectColorNear(total, point.power * (1000.0f / 4096), 1e-5f);

  // A parallel light: a disk of the scene's radius one radius behind the centre.
  total = black;
  for (uint64_t i = 0; i < 1000; ++i) {
    Ray ray;
    parallel.emit(ray, i);
    EXPECT_EQ(ray.direction, Vec3f(0, 0, -1));
    EXPECT_NEAR(ray.origin.z, 1, 1e-6);
    EXPECT_LE(ray.origin.x * ray.origin.x + ray.origin.y * ray.origin.y, 1 + 1e-5f);
    EXPECT_EQ(ray.cursor.dimension, 2u);
    total += ray.weight;
  }
  expectColorNear(total, {2 * testPi, 2 * testPi, 2 * testPi}, 1e-3f);
  parallel.blur = 5;
  captureOutput([] { prepareGaffer(); });
  Ray ray;
  parallel.emit(ray, 17);
  EXPECT_GE(-ray.direction.z, parallel.cos_max - 1e-6f);
  EXPECT_LT(-ray.direction.z, 1);
  EXPECT_EQ(ray.cursor.dimension, 4u);
}

TEST_F(LightTest, LightsArePreparedInTheirPlaceAndFreedByFinalisation) {
  const std::string d = scratchFolder("light-lifecycle") + "/";
  writeSceneFile(d + "light", "lights.qz",
                 "sky_light\n color 0.1 0.2 0.3\n sample 5\nend\n"
                 "point_light\n position 0 3 0\n link\n  shader \"nothing\"\n end\nend\n"
                 "parallel_light\n direction 0 -1 0\nend\n"
                 "parallel_light\n direction 1 -1 0\nend\n");
  writeSceneFile(d + "camera", "camera.qz", stillCamera("  resolution 4 2\n  sample 1\n"));
  captureOutput([&] { qzLoadScene(d.c_str()); });
  ASSERT_EQ(pointLights.size(), 1u);
  ASSERT_EQ(parallelLights.size(), 2u);
  EXPECT_EQ(sky.sample, 5);

  const std::string out = captureOutput([] { qzInitialize(); });
  const size_t skyRows = out.find("sky light  width"), parallelRow = out.find("parallel lights");
  const size_t pointRow = out.find("point    lights"), rendererRow = out.find("renderer sample");
  ASSERT_NE(skyRows, std::string::npos) << out;
  EXPECT_LT(out.find("framebuffers"), skyRows);
  EXPECT_LT(skyRows, parallelRow);
  EXPECT_LT(parallelRow, pointRow);
  EXPECT_LT(pointRow, rendererRow);
  EXPECT_EQ(pointLights[0].link.shaders, std::vector<int>{0});
  EXPECT_NEAR(parallelLights[1].frame.normal.x, std::sqrt(0.5f), 1e-6);

  captureOutput([] { qzFinalize(); });
  EXPECT_TRUE(pointLights.empty());
  EXPECT_TRUE(parallelLights.empty());
  EXPECT_FALSE(sky.image.loaded);
  // The sky keeps its settings until the next startup restores them.
  EXPECT_EQ(sky.color, Color3f(0.1f, 0.2f, 0.3f));
  quietStartup();
  EXPECT_EQ(sky.color, Color3f(0.75f, 0.75f, 0.75f));
}
