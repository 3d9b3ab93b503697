#include <gtest/gtest.h>

#include <sstream>

#include "frame/renderer.h"
#include "geometry/object.h"
#include "output/camera.h"
#include "qz.h"
#include "shading/shader.h"
#include "tests/test_util.h"

namespace {
CameraAOV readAOV(const std::string& text) {
  std::istringstream file(text);
  CameraAOV aov;
  readAOVBlock(file, aov);
  return aov;
}

// One camera of 4 x 2 pixels with one extra AOV of the given mask, prepared quietly.
CameraAOV& cameraWithAOV(uint32_t channel) {
  cameras.clear();
  const int c = qzAddCamera();
  qzSetCameraResolution(c, 4, 2);
  qzSetCameraAOVName(c, 0, "");
  const int a = qzAddCameraAOV(c);
  qzSetCameraAOVChannel(c, a, int(channel));
  captureOutput([] { qzInitializeCameras(); });
  renderer.camera = 0;
  return cameras[c].aovs[a];
}

HitTerms sampleTerms() {
  HitTerms t;
  t.normal = {0, 0, 1};
  t.tangent = {1, 0, 0};
  t.position = {3, 4, 0};
  for (int k = 0; k < 6; ++k) t.colors[k] = Color3f(0.1f, 0.2f, 0.3f) * float(k + 1);
  for (int k = 0; k < 7; ++k) t.radiance[k] = Color3f(1, 2, 3) * float(k + 1);
  return t;
}

Color3f pixelOf(const CameraAOV& aov, int p) { return readPixel(aov.image, p); }

}  // namespace

TEST(AOVBlock, TypeWordsAddTheirBitsAndAnyOtherWordNamesUserData) {
  EXPECT_EQ(readAOV("type \"diffuse\"\nend\n").channel, readAOV("type \"lambertian\"\nend\n").channel);
  EXPECT_EQ(readAOV("type \"diffuse\"\nend\n").channel, 0x28u);
  EXPECT_EQ(readAOV("type \"glossy\"\ntype \"specular\"\nend\n").channel, 0x2A80u);
  EXPECT_EQ(readAOV("type \"normal\"\ntype \"depth\"\nend\n").channel, 0x90000u);
  EXPECT_EQ(readAOV("type \"emission\"\ntype \"light_path\"\ntype \"tangent\"\ntype \"position\"\nend\n").channel,
            0x68002u);
  const CameraAOV aov = readAOV("image \"out/my depth.pfm\" trailing words\nshader \"skin\"\nend\n");
  EXPECT_EQ(std::tuple(aov.image.name, aov.shader_name, aov.channel, aov.user_data_name),
            std::tuple("out/my depth.pfm", "skin", 0u, "undefined"));
  // Any other word names user data.
  const CameraAOV user = readAOV("type \"normal\"\ntype \"weight map\"\nend\n");
  EXPECT_EQ(user.channel, userDataChannel);
  EXPECT_EQ(user.user_data_name, "weight map");
  // A keyword after it adds to the 4, and the AOV is no longer a user-data AOV.
  EXPECT_EQ(readAOV("type \"uv\"\ntype \"depth\"\nend\n").channel, 0x80004u);
}

TEST(AOVExports, UserDataReplacesTheMaskAndTheBeautyCanOnlyBeRenamed) {
  quietStartup();
  cameras.clear();
  const int c = qzAddCamera();
  EXPECT_EQ(qzAddCameraAOV(c), 1);
  qzSetCameraAOVChannel(c, 1, 0x10);
  qzSetCameraAOVUserData(c, 1, "temperature");
  EXPECT_EQ(cameras[c].aovs[1].channel, userDataChannel);
  EXPECT_EQ(cameras[c].aovs[1].user_data_name, "temperature");
  qzSetCameraAOVName(c, 0, "final.hdr");
  EXPECT_EQ(cameras[c].aovs[0].image.name, "final.hdr");
  qzSetCameraAOVName(c, 5, "nowhere.hdr");
  EXPECT_EQ(cameras[c].aovs.size(), 2u);
  cameras.clear();
}

TEST(AOVWrite, NormalOverEverySampleGivesHalfUnitVector) {
  quietStartup();
  CameraAOV& aov = cameraWithAOV(0x10000);
  Ray ray;
  ray.pixel = 5;
  ray.sample_count = 3;
  HitTerms terms = sampleTerms();
  terms.normal = normalize(Vec3f(1, -2, 2));
  for (int i = 0; i < 3; ++i) writeCameraAOVs(ray, terms);
  expectColorNear(pixelOf(aov, 5), {(1 + 1 / 3.0f) / 2, (1 - 2 / 3.0f) / 2, (1 + 2 / 3.0f) / 2}, 1e-5f);
  // No other pixel and not the beauty.
  expectColorNear(pixelOf(aov, 4), black, 1e-5f);
  expectColorNear(pixelOf(cameras[0].aovs[0], 5), black, 1e-5f);
}

TEST(AOVWrite, DepthPositionAndTheSumOfSeveralTerms) {
  quietStartup();
  CameraAOV& depth = cameraWithAOV(0x80000);
  Ray ray;
  ray.origin = {0, 0, 0};
  ray.pixel = 0;
  ray.sample_count = 2;
  writeCameraAOVs(ray, sampleTerms());
  expectColorNear(pixelOf(depth, 0), {2.5f, 2.5f, 2.5f}, 1e-5f);

  CameraAOV& both = cameraWithAOV(0x90000 | 0x40000);
  ray.sample_count = 1;
  ray.origin = {3, 0, 0};
  writeCameraAOVs(ray, sampleTerms());
  // normal (0.5, 0.5, 1) + position (3, 4, 0) + depth 4.
  expectColorNear(pixelOf(both, 0), {7.5f, 8.5f, 5}, 1e-5f);
}

TEST(AOVWrite, LobeBitsTakeColoursAndRadianceInPairs) {
  quietStartup();
  const HitTerms t = sampleTerms();
  Ray ray;
  ray.pixel = 7;
  ray.sample_count = 1;
  const uint32_t colourBits[6] = {0x10, 0x40, 0x100, 0x400, 0x1000, 0x4000};
  const uint32_t radianceBits[7] = {0x8, 0x20, 0x80, 0x200, 0x800, 0x2000, 0x8000};
  for (int k = 0; k < 6; ++k) {
    CameraAOV& aov = cameraWithAOV(colourBits[k]);
    writeCameraAOVs(ray, t);
    expectColorNear(pixelOf(aov, 7), t.colors[k], 1e-5f);
  }
  for (int k = 0; k < 7; ++k) {
    CameraAOV& aov = cameraWithAOV(radianceBits[k]);
    writeCameraAOVs(ray, t);
    expectColorNear(pixelOf(aov, 7), t.radiance[k], 1e-5f);
  }
  // The word "diffuse" collects both diffuse lobes; "light_path" and the beauty bit add nothing.
  CameraAOV& diffuse = cameraWithAOV(aovTypeBits("diffuse") | 0x2 | 0x1);
  writeCameraAOVs(ray, t);
  expectColorNear(pixelOf(diffuse, 7), t.radiance[0] + t.radiance[1], 1e-5f);
  // A pixel beyond the framebuffer is dropped.
  ray.pixel = 8;
  writeCameraAOVs(ray, t);
  EXPECT_EQ(diffuse.image.floats.size(), 24u);
  cameras.clear();
}

TEST(AOVReport, AverageAndVarianceRowsCarryTheFileName) {
  CameraAOV aov;
  aov.image.name = "depth.pfm";
  prepareAOV(aov, 2, 1);
  writePixel(aov.image, {1, 2, 3}, 0);
  writePixel(aov.image, {3, 0, 1}, 1);
  // Means (2, 1, 2); the largest channels 3 and 3 give a first term of 9.
  EXPECT_EQ(captureOutput([&] { reportAOV(aov); }),
            "avgerage      2.000       1.000       2.000 [depth.pfm]\n"
            "variance      5.000       8.000       5.000 [depth.pfm]\n");
  // Preparation clears the image and keeps the name.
  prepareAOV(aov, 2, 1);
  EXPECT_EQ(readPixel(aov.image, 0), black);
  EXPECT_EQ(aov.image.name, "depth.pfm");
  EXPECT_EQ(aovBytes(aov), 24);
}

TEST(AOVShader, TheLastShaderOfTheNameWins) {
  quietStartup();
  const size_t before = shaders.size();
  for (const char* name : {"skin", "metal", "skin"}) qzSetShaderName(qzAddShader(), name);
  CameraAOV aov;
  aov.shader_name = "skin";
  prepareAOV(aov, 2, 2);
  EXPECT_EQ(aov.shader, int(before) + 2);
  aov.shader_name = "skim";
  prepareAOV(aov, 2, 2);
  EXPECT_EQ(aov.shader, -1);
  shaders.resize(before);
}

TEST(AOVWrite, UserDataIsTheHitPrimitivesVertexDataWeightedByTheHit) {
  quietStartup();
  CameraAOV& aov = cameraWithAOV(0);
  aov.channel = userDataChannel;
  aov.user_data_name = "heat";
  Object object;
  Mesh& mesh = object.mesh;
  mesh.scalarChannels = {{"heat", {1, 2, 4, 8}}};
  mesh.triangles = {{0, 1, 2, 0}};
  mesh.tetragons = {{0, 1, 2, 3, 0}};
  object.particles.indices = {3};
  object.particles.scalarChannels.push_back({"heat", {0, 0, 0, 5}});
  object.cylinders.indices = {{1, 0}};
  // A pair and then a triple of the same name: the triple, read last, wins.
  object.cylinders.pairChannels.push_back({"heat", {{1, 1}, {2, 3}, {4, 5}}});
  object.cylinders.vectorChannels.push_back({"heat", {{0, 0, 0}, {1, 2, 3}, {3, 2, 1}}});

  Ray ray;
  ray.sample_count = 2;
  ray.hit.object = &object;
  ray.hit.primitive = 0;
  auto written = [&](uint8_t kind, Vec3f coords) {
    std::fill(aov.image.floats.begin(), aov.image.floats.end(), 0.0f);
    ray.hit.kind = kind;
    ray.coords[0] = coords.x, ray.coords[1] = coords.y, ray.coords[2] = coords.z;
    writeCameraAOVs(ray, sampleTerms());
    return pixelOf(aov, 0);
  };
  // Halves, since each write stands for one of two samples.
  expectColorNear(written(3, {0.5f, 0.25f, 0.25f}), Color3f(2, 2, 2) * 0.5f, 1e-5f);
  const float u = 0.25f, v = 0.5f;
  const float tetragon = (1 - u) * (1 - v) * 1 + (1 - u) * v * 2 + u * v * 4 + u * (1 - v) * 8;
  expectColorNear(written(4, {u, v, 0}), Color3f(tetragon, tetragon, tetragon) * 0.5f, 1e-5f);
  expectColorNear(written(1, {0, 0, 0}), Color3f(5, 5, 5) * 0.5f, 1e-5f);
  expectColorNear(written(2, {0, 0, 0.25f}), (Color3f(1, 2, 3) * 0.75f + Color3f(3, 2, 1) * 0.25f) * 0.5f, 1e-5f);
  // A name that no vertex data bears, or no hit object, leaves the pixel black.
  aov.user_data_name = "cold";
  expectColorNear(written(3, {0.5f, 0.25f, 0.25f}), black, 1e-5f);
  aov.user_data_name = "heat";
  ray.hit.object = nullptr;
  expectColorNear(written(3, {0.5f, 0.25f, 0.25f}), black, 1e-5f);
  cameras.clear();
}
