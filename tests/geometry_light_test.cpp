// The geometry light: its points over the emitting faces, its block and
// exports, a floor under a square lamp against the analytic answer (light
// alone, bounces alone, both), its AOVs, its photons, and bad input that must
// still run to the end.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <vector>

#include "accel/bbvh.h"
#include "lights/geometry_light.h"
#include "shading/shader.h"
#include "tests/path_fixture.h"
#include "tests/scene_writer.h"

namespace {
constexpr Vec3f X{1, 0, 0}, Y{0, 1, 0}, Z{0, 0, 1};
constexpr Color3f lampColor{1, 2, 4};
constexpr float albedo = 0.5f;

// A mean of independent estimates, and its standard error measured from their spread.
struct Estimate {
  Color3f mean, error;
};

Estimate estimateOf(const std::vector<Color3f>& values) {
  Estimate e;
  const float n = float(values.size());
  for (const Color3f& v : values) e.mean += v / n;
  for (int c = 0; c < 3; ++c) {
    float sum = 0;
    for (const Color3f& v : values) sum += (v[c] - e.mean[c]) * (v[c] - e.mean[c]);
    e.error[c] = std::sqrt(sum / (n - 1) / n);
  }
  return e;
}

// The radiance of the floor under the lamp's centre: albedo times the lamp's
// radiance times the form factor of a 2 x 2 square one unit above.
Color3f analyticFloor() { return lampColor * (albedo * squareFormFactor(1, 1)); }

// Within four standard errors of the expected value, in every channel.
void expectWithinNoise(const Estimate& e, Color3f expected) {
  for (int c = 0; c < 3; ++c) EXPECT_NEAR(e.mean[c], expected[c], 4 * e.error[c]) << "channel " << c;
}

class GeometryLightTest : public PathTest {
 protected:
  // A floor of albedo 0.5 at y = 0 and a 2 x 2 lamp one unit above it, facing
  // down. The lamp's shader is a geometry light on both sides and emits from
  // its front only, so half of the points lie on a side that gives nothing.
  int addFloorAndLamp() {
    addQuad(addShader(diffuseChannel, {albedo, albedo, albedo}), {0, 0, 0}, 50 * Z, 50 * X);
    const int lamp = qzAddShader();
    qzSetShaderName(lamp, "lamp");
    qzSetShaderColor(lamp, frontSide, emissionChannel, lampColor.r, lampColor.g, lampColor.b);
    qzSetShaderGeometryLight(lamp, bothSides, true);
    addQuad(lamp, {0, 1, 0}, X, Z);
    return lamp;
  }
  // 8 x 8 pixels within half a degree of the floor's centre, seen from below the lamp.
  static void addFloorCamera(int passes) { addCamera(8, passes, {0, 0.5f, 0}, {0, 0, 0}, 1, {0, 0, -1}); }

  static std::vector<Color3f> pixels(int aov) {
    std::vector<Color3f> values;
    for (int p = 0; p < pixelCount(); ++p) values.push_back(pixel(aov, p));
    return values;
  }

  // The floor rendered afresh with the given light and renderer sample counts.
  Estimate renderFloor(int lightSample, int rendererSample) {
    restart();
    addFloorAndLamp();
    addFloorCamera(4);
    qzSetGeometryLightSample(lightSample);
    qzSetRendererSample(rendererSample);
    render();
    return estimateOf(pixels(0));
  }

  static std::string prepareQuietly() {
    return captureOutput([] { qzInitialize(); });
  }

  // Direct light alone at a floor point facing up, each trial one pixel of
  // its own scramble over all passes; the light is prepared.
  static Estimate lightAlone(Vec3f position, int passes, uint32_t trials);
};

// A camera's first hit on the floor, facing up, with a scramble of its own.
Ray floorHit(uint32_t scramble) {
  Ray ray;
  ray.hit.event = cameraEvent;
  ray.hit.kind = kindTetragon;
  ray.hit.primitive = 0;
  ray.cursor.scramble = scramble;
  return ray;
}

Surface floorPoint(Vec3f position) {
  Surface s;
  s.tangent = X;
  s.bitangent = -Z;
  s.normal = s.geometric_normal = s.view = Y;
  s.position = s.smooth_position = position;
  s.cos_view = 1;
  s.diffuse[0] = {albedo, albedo, albedo};
  s.diffuse_on[0] = 1;
  return s;
}

Estimate GeometryLightTest::lightAlone(Vec3f position, int passes, uint32_t trials) {
  // No bounce samples to share with: every light sample counts in full.
  renderer.geometry_light_sample = 0;
  std::vector<Color3f> values;
  for (uint32_t trial = 0; trial < trials; ++trial) {
    const Ray ray = floorHit(trial * 0x9E3779B9u);
    Color3f sum;
    for (renderer.pass = 0; renderer.pass < passes; ++renderer.pass) {
      LobeRadiance lobes;
      shadeGeometrySurface(lobes, ray, floorPoint(position));
      sum += lobes.diffuse[0];
    }
    // Each pass gives an estimate of its own; a pixel shows their mean.
    values.push_back(sum / float(passes));
  }
  renderer.pass = 0;
  return estimateOf(values);
}
}  // namespace

TEST_F(GeometryLightTest, PointsCoverTheLampTheDarkBackIsNeverChosenAndPhotonsLeaveTheFrontWithItsPower) {
  addFloorAndLamp();
  addFloorCamera(1);
  qzSetGeometryLightSample(64);
  const int N = 4096;
  qzSetGeometryLightPhoton(N);
  const std::string report = prepareQuietly();
  // Both sides take part: the area is twice the lamp's.
  EXPECT_NE(report.find("geometry light   area      8.000 [m x m]\n"
                        "geometry light sample         64 [n/a]\n"
                        "geometry light memory "),
            std::string::npos)
      << report;
  const GeometryLight& g = geometryLight;
  ASSERT_EQ(g.points.size(), size_t(geometryLightPointCount));
  ASSERT_EQ(g.cdf.size(), size_t(geometryLightPointCount));
  int back = 0;
  for (size_t i = 0; i < g.points.size(); ++i) {
    const GeometryLightPoint& p = g.points[i];
    const float share = g.cdf[i] - (i == 0 ? 0 : g.cdf[i - 1]);
    if (isOn(p.emission)) {
      EXPECT_NEAR(p.position.y, 1, 1e-6f);
      EXPECT_LE(std::fabs(p.position.x), 1.0f);
      EXPECT_LE(std::fabs(p.position.z), 1.0f);
      EXPECT_EQ(p.normal, -Y);
      expectColorNear(p.emission, lampColor * 1.3270872e-05f, 1e-10f);
      EXPECT_EQ(std::tuple(p.kind, p.primitive, p.front), std::tuple(kindTetragon, 1, 1));
      ASSERT_GT(share, 0);
    } else {
      ++back;
      EXPECT_EQ(p.emission, black);
      ASSERT_EQ(share, 0) << "a point that gives no light is chosen at " << i;
    }
  }
  // The picks run along the area table: the two sides share the points evenly,
  // and those on the back stay empty.
  EXPECT_NEAR(back, geometryLightPointCount / 2, 1);
  EXPECT_EQ(g.cdf.back(), 1.0f);

  // The points are drawn by a fixed sequence: the next preparation gives them bit for bit.
  const std::vector<GeometryLightPoint> first = g.points;
  const std::vector<float> firstCdf = g.cdf;
  captureOutput([] { prepareGeometryLight(); });
  ASSERT_EQ(g.points.size(), first.size());
  EXPECT_EQ(std::memcmp(g.points.data(), first.data(), first.size() * sizeof(GeometryLightPoint)), 0);
  EXPECT_EQ(g.cdf, firstCdf);

  // One photon of a side of emission 1 carries the area over N.
  EXPECT_FLOAT_EQ(geometryLight.flux.r, 8.0f / N);
  Color3f total;
  std::vector<Color3f> cosines;
  for (uint64_t i = 0; i < uint64_t(N); ++i) {
    Ray ray;
    emitGeometryPhoton(ray, i);
    EXPECT_NEAR(ray.origin.y, 1, 1e-6f);
    EXPECT_LE(std::fabs(ray.origin.x), 1.0f);
    EXPECT_EQ(std::tuple(ray.hit.event, ray.prev_kind, ray.prev_primitive), std::tuple(lightEvent, kindTetragon, 1u));
    total += ray.weight;
    if (!isOn(ray.weight)) continue;
    // Photons of the emitting front leave downwards, cosine-weighted about its normal.
    const float c = -ray.direction.y;
    ASSERT_GE(c, 0);  // the first index of the sequence lies on the rim of the disk
    cosines.push_back({c, c, c});
  }
  // Only the front emits: half of the photons carry all of the lamp's power, A E.
  EXPECT_EQ(cosines.size(), size_t(N / 2));
  expectColorNear(total, lampColor * 4, 1e-3f * total.b);
  const Estimate e = estimateOf(cosines);
  EXPECT_NEAR(e.mean.r, 2.0f / 3.0f, 4 * e.error.r);
}

TEST_F(GeometryLightTest, LightAloneAtTheFloorCentreMatchesTheFormFactorWithinOnePercent) {
  addFloorAndLamp();
  const int passes = 4;
  addFloorCamera(passes);
  qzSetGeometryLightSample(1024);
  prepareQuietly();
  const Estimate e = lightAlone(zeroVector, passes, 128);
  const Color3f expected = analyticFloor();
  expectWithinNoise(e, expected);
  for (int c = 0; c < 3; ++c) {
    EXPECT_LT(4 * e.error[c], 0.01f * expected[c]);
    EXPECT_NEAR(e.mean[c], expected[c], 0.01f * expected[c]);
  }
}

TEST_F(GeometryLightTest, ALampPlacedByAnInstanceLightsWhereItIsPlaced) {
  addQuad(addShader(diffuseChannel, {albedo, albedo, albedo}), {0, 0, 0}, 50 * Z, 50 * X);
  const int root = object;
  object = qzAddObject();
  vertices = 0;
  const int lamp = addShader(emissionChannel, lampColor);
  qzSetShaderGeometryLight(lamp, frontSide, true);
  addQuad(lamp, zeroVector, X, Z);
  const float moved[16] = {1, 0, 0, 3, 0, 1, 0, 1, 0, 0, 1, 0, 0, 0, 0, 1};
  qzSetInstance(root, qzAddInstance(root), object, moved);
  addCamera(4, 2, {3, 0.5f, 0}, {3, 0, 0}, 1, {0, 0, -1});
  qzSetGeometryLightSample(256);
  prepareQuietly();
  ASSERT_EQ(geometryLight.points.size(), size_t(geometryLightPointCount));
  for (const GeometryLightPoint& p : geometryLight.points) {
    ASSERT_NEAR(p.position.y, 1, 1e-5f);
    ASSERT_NEAR(p.position.x, 3, 1 + 1e-5f);
  }
  expectWithinNoise(lightAlone({3, 0, 0}, 2, 64), analyticFloor());
}

TEST_F(GeometryLightTest, BouncesAloneAndBouncesWithLightSamplesAgreeWithTheAnalyticFloor) {
  // Light samples and bounces that find the lamp are weighed so that they sum
  // to the lamp once: with or without light samples the floor is the same.
  const Estimate bouncesAlone = renderFloor(0, 4096);
  const Estimate both = renderFloor(64, 1024);
  const Color3f expected = analyticFloor();
  expectWithinNoise(bouncesAlone, expected);
  expectWithinNoise(both, expected);
  for (int c = 0; c < 3; ++c) {
    const float spread = std::hypot(bouncesAlone.error[c], both.error[c]);
    EXPECT_NEAR(bouncesAlone.mean[c], both.mean[c], 4 * spread);
    EXPECT_NEAR(both.mean[c], expected[c], 0.01f * expected[c]);
  }
}

TEST_F(GeometryLightTest, BlockAndExportsFillTheLight) {
  const std::string folder = scratchFolder("geometry-light-block");
  writeSceneFile(folder + "/light", "lamp.qz",
                 "geometry_light\n  photon 1000\n  sample 16\n"
                 "  aov\n    type \"lambertian\"\n    image \"lamp.pfm\"\n    shader \"lamp\"\n  end\n"
                 "  link\n    shader \"floor\"\n  end\nend\n");
  captureOutput([&] { qzLoadScene((folder + "/").c_str()); });
  const GeometryLight& g = geometryLight;
  EXPECT_EQ(std::tuple(g.photon, g.sample), std::tuple(1000, 16));
  ASSERT_EQ(g.aovs.size(), 1u);
  EXPECT_EQ(std::tuple(g.aovs[0].image.name, g.aovs[0].shader_name, g.aovs[0].channel, g.link.names),
            std::tuple("lamp.pfm", "lamp", 0x28u, std::vector<std::string>{"floor"}));

  const int aov = qzAddGeometryLightAOV();
  EXPECT_EQ(aov, 1);
  EXPECT_EQ(g.aovs[1].image.name, "undefined");
  qzSetGeometryLightAOVChannel(aov, 0x8);
  qzSetGeometryLightAOVChannel(aov, 0x80);
  EXPECT_EQ(g.aovs[1].channel, 0x88u);  // ORed, not replaced
  qzSetGeometryLightAOVChannel(9, 1);   // out of range: nothing

  // The shader export is checked and marks the front only.
  const int lamp = qzAddShader();
  for (int invalid : {99, -1})
    EXPECT_EQ(captureOutput([=] { qzSetGeometryLightShader(invalid); }),
              "warning :( qzSetGeometryLightShader() - shader_id is invalid.\n");
  qzSetGeometryLightShader(lamp);
  EXPECT_EQ(std::tuple(shaders[size_t(lamp)].geometry_light[0], shaders[size_t(lamp)].geometry_light[1]),
            std::tuple(1, 0));

  // The module's own initialise and finalise exports act on the sky.
  const std::string out = captureOutput([] { qzInitializeGeometryLight(); });
  EXPECT_NE(out.find("sky light sample"), std::string::npos);
  EXPECT_EQ(out.find("geometry light"), std::string::npos);
  captureOutput([] { qzFinalizeGeometryLight(); });
  EXPECT_EQ(g.aovs.size(), 2u);

  // Startup restores the defaults and keeps the AOVs that a host added.
  renderer.geometry_light_sample = 5;
  quietStartup();
  EXPECT_EQ(std::tuple(renderer.geometry_light_sample, g.photon, g.sample, g.area, g.flux),
            std::tuple(64, 0, 0, 0, white));
  EXPECT_TRUE(g.link.names.empty());
  EXPECT_EQ(g.aovs.size(), 2u);
  geometryLight.aovs.clear();
}

TEST_F(GeometryLightTest, AnAOVWithAShaderTakesOnlyThatLampsLight) {
  // Two lamps of different shaders, left and right of the floor's centre.
  addQuad(addShader(diffuseChannel, {albedo, albedo, albedo}), {0, 0, 0}, 50 * Z, 50 * X);
  for (const char* name : {"left", "right"}) {
    const int lamp = addShader(emissionChannel, lampColor);
    qzSetShaderName(lamp, name);
    qzSetShaderGeometryLight(lamp, frontSide, true);
    addQuad(lamp, {name[0] == 'l' ? -1.5f : 1.5f, 1, 0}, 0.5f * X, 0.5f * Z);
  }
  addFloorCamera(2);
  qzSetGeometryLightSample(64);
  qzSetRendererSample(64);
  const std::string folder = scratchFolder("geometry-light-aov");
  const char* names[3] = {"left", "right", ""};
  for (int i = 0; i < 3; ++i) {
    const int aov = qzAddGeometryLightAOV();
    qzSetGeometryLightAOVName(aov, (folder + "/" + std::to_string(i) + ".pfm").c_str());
    qzSetGeometryLightAOVShaderName(aov, names[i]);
    qzSetGeometryLightAOVChannel(aov, 0x8);  // diffuse reflection
  }
  render();
  // Finalising at the end of the last pass wrote them and emptied the list.
  EXPECT_TRUE(geometryLight.aovs.empty());
  Image images[3];
  for (int i = 0; i < 3; ++i) {
    images[i].name = folder + "/" + std::to_string(i) + ".pfm";
    ASSERT_TRUE(loadImage(images[i]));
  }
  // The files keep about eight bits of mantissa, scaled by the largest channel.
  Color3f left, right;
  for (int p = 0; p < pixelCount(); ++p) {
    const Color3f a = readPixel(images[0], p), b = readPixel(images[1], p), all = readPixel(images[2], p);
    expectColorNear(a + b, all, 0.02f * all.b);
    left += a;
    right += b;
  }
  // The floor's centre sees the two lamps alike.
  EXPECT_GT(left.r, 0);
  EXPECT_NEAR(left.b / right.b, 1, 0.1f);
  // Everything the floor shows arrives by diffuse reflection.
  Color3f beauty;
  for (int p = 0; p < pixelCount(); ++p) beauty += pixel(0, p);
  expectColorNear(left + right, beauty, 0.01f * beauty.b);
  for (Image& image : images) freeImage(image);
}

TEST_F(GeometryLightTest, BadInputRunsToTheEndWithTheLightOff) {
  // A lamp of no area: the sampling turns off without a message.
  addQuad(addShader(diffuseChannel, {albedo, albedo, albedo}), {0, 0, 0}, 50 * Z, 50 * X);
  const int flat = addShader(emissionChannel, lampColor);
  qzSetShaderGeometryLight(flat, bothSides, true);
  addQuad(flat, {0, 1, 0}, zeroVector, zeroVector);
  addFloorCamera(2);
  qzSetGeometryLightSample(64);
  std::string out = render();
  EXPECT_NE(out.find("geometry light   area      0.000 [m x m]\ngeometry light sample          0 [n/a]\n"),
            std::string::npos)
      << out;
  EXPECT_EQ(out.find(":("), std::string::npos) << out;
  EXPECT_EQ(meanPixel(0), black);

  // A sample of -5 takes no light samples; the lamp is still seen, and lights the floor by bounces.
  restart();
  const int lamp = addFloorAndLamp();
  addCamera(4, 2, {0, 0.5f, 0}, {0, 2, 0}, 1, {0, 0, -1});
  qzSetGeometryLightSample(-5);
  out = render();
  EXPECT_NE(out.find("geometry light sample          0 [n/a]\n"), std::string::npos) << out;
  for (int p = 0; p < pixelCount(); ++p) expectColorNear(pixel(0, p), lampColor, 1e-5f);
  EXPECT_EQ(shaders[size_t(lamp)].geometry_light[0], 1);

  // A geometry_light block in a scene with nothing that emits.
  restart();
  const std::string folder = scratchFolder("geometry-light-no-emitters");
  writeSceneFile(folder + "/light", "lamp.qz", "geometry_light\n  sample 16\n  photon 100\nend\n");
  writeSceneFile(folder + "/light", "sky.qz", "sky_light\n  color 0 0 0\n  image \"\"\nend\n");
  captureOutput([&] { qzLoadScene((folder + "/").c_str()); });
  addQuad(addShader(diffuseChannel, {albedo, albedo, albedo}), {0, 0, 0}, 50 * Z, 50 * X);
  addFloorCamera(2);
  out = render();
  EXPECT_EQ(out.find(":("), std::string::npos) << out;
  EXPECT_EQ(geometryLight.photon, 0);
  EXPECT_EQ(meanPixel(0), black);
}
