#include <filesystem>
#include <functional>
#include <sstream>

#include "frame/scene_directory.h"
#include "tests/light_fixture.h"

namespace {

// An environment image already in memory, so that preparation builds the tables from it.
void skyImage(int width, int height, const std::function<Color3f(float u, float v)>& color) {
  sky.image = colourImage(width, height, color);
  sky.image.loaded = 1;
  sky.image.name = "test sky";
}

std::string prepareQuietly() {
  return captureOutput([] { prepareSky(); });
}

}  // namespace

TEST(SkyCube, EveryCellComesBackEdgesFollowTheTieRuleAndCellsCoverNearlyEqualSolidAngles) {
  for (int face = 0; face < 6; ++face)
    for (int a = 0; a < skyFaceSize; ++a)
      for (int b = 0; b < skyFaceSize; ++b) {
        int f2, a2, b2;
        const Vec3f d = skyCellDirection(face, float(a), float(b));
        ASSERT_NEAR(length(d), 1, 1e-5);
        skyCell(d, f2, a2, b2);
        ASSERT_EQ(f2, face);
        ASSERT_EQ(a2, a);
        ASSERT_EQ(b2, b);
      }
  // Faces along the axes.
  const std::pair<Vec3f, int> axes[] = {{{1, 0, 0}, 0}, {{0, 0, 1}, 1}, {{-1, 0, 0}, 2},
                                        {{0, 0, -1}, 3}, {{0, 1, 0}, 4}, {{0, -1, 0}, 5}};
  for (const auto& [d, face] : axes) {
    int f, a, b;
    skyCell(d, f, a, b);
    EXPECT_EQ(std::tuple(f, a, b), std::tuple(face, 128, 128));
  }
  // Ties go to x, then y.
  int f, a, b;
  skyCell(normalize({1, 1, 0}), f, a, b);
  EXPECT_EQ(f, 0);
  EXPECT_EQ(b, 0);
  skyCell(normalize({-1, 1, 1}), f, a, b);
  EXPECT_EQ(f, 2);
  skyCell(normalize({0, -1, 1}), f, a, b);
  EXPECT_EQ(f, 5);
  EXPECT_EQ(b, 0);
  // A zero direction still lands in a cell.
  skyCell({0, 0, 0}, f, a, b);
  EXPECT_TRUE(a >= 0 && a < 256 && b >= 0 && b < 256);
  // The self-test finds nothing to say.
  EXPECT_EQ(captureOutput(testSkyCube), "");

  // Cells cover nearly equal solid angles. A cell's solid angle from its corner directions: the centre of a face and its corner.
  auto solidAngle = [](int a, int b) {
    const Vec3f p = skyCellDirection(0, float(a) - 0.5f, float(b) - 0.5f);
    const Vec3f q = skyCellDirection(0, float(a) + 0.5f, float(b) - 0.5f);
    const Vec3f r = skyCellDirection(0, float(a) - 0.5f, float(b) + 0.5f);
    return length(cross(q - p, r - p));
  };
  const float centre = solidAngle(128, 128), corner = solidAngle(0, 0), edge = solidAngle(0, 128);
  EXPECT_NEAR(centre * float(skyCellCount), 4 * testPi, 0.6f);
  EXPECT_LT(std::fmax(corner, edge) / std::fmin(corner, centre), 1.35f);
  EXPECT_GT(std::fmin(corner, edge) / std::fmax(corner, centre), 0.75f);
}

class SkyTest : public LightTest {};

TEST_F(SkyTest, BlockAndExportsFillTheSky) {
  std::istringstream file(
      "sky_light\n image \"env.hdr\"\n backdrop \"plate.png\"\n color 1 2 3\n photon 77\n north 0 0 1\n"
      " zenith 0 1 0\n sample 16\n thickness 5\n turbidity 3\n stretch 0.5\n albedo 0.7\n ior 1.3\n"
      " volume_shader\n  albedo 0.1 0.2 0.3\n  density 0.25\n end\n"
      " aov\n  image \"skyaov.pfm\"\n  type \"emission\"\n end\n link\n  shader \"glass\"\n end\nend\n");
  std::string keyword;
  file >> keyword;
  dispatchBlock(keyword, file);
  EXPECT_EQ(std::tuple(sky.image.name, sky.backdrop.name, sky.color, sky.photon, sky.north, sky.zenith, sky.sample),
            std::tuple("env.hdr", "plate.png", Color3f(1, 2, 3), 77, Vec3f(0, 0, 1), Vec3f(0, 1, 0), 16));
  EXPECT_EQ(std::tuple(sky.thickness, sky.turbidity, sky.stretch, sky.albedo, sky.ior, sky.volume.albedo),
            std::tuple(5, 3, 0.5f, 0.7f, 1.3f, Color3f(0.1f, 0.2f, 0.3f)));
  ASSERT_EQ(sky.aovs.size(), 1u);
  EXPECT_EQ(std::tuple(sky.volume.density, sky.aovs[0].channel, sky.link.names),
            std::tuple(0.25f, 0x8000u, std::vector<std::string>{"glass"}));

  EXPECT_EQ(qzAddSkyLightAOV(), 1);
  EXPECT_EQ(sky.aovs[1].image.name, "undefined");
  qzSetSkyLightAOVChannel(1, 0x8);
  qzSetSkyLightAOVChannel(1, 0x20);
  EXPECT_EQ(sky.aovs[1].channel, 0x28u);  // ORed, not replaced
  qzSetSkyLightAOVChannel(9, 1);          // out of range: nothing

  // Only the shader export checks its argument.
  EXPECT_EQ(captureOutput([] { qzSetSkyLightShader(5); }),
            "warning :( qzSetSkyLightShader() - shader_id is invalid.\n");
  qzSetSkyLightShader(0);
  EXPECT_EQ(shaders[0].sky_shader, 1);
  EXPECT_EQ(sky.volume.density, 0.25f);

  // Startup restores the defaults and keeps the AOVs a host added.
  quietStartup();
  EXPECT_EQ(std::tuple(sky.color, sky.sample, sky.image.name),
            std::tuple(Color3f(0.75f, 0.75f, 0.75f), 64, "undefined"));
  EXPECT_TRUE(sky.link.names.empty());
  EXPECT_EQ(sky.aovs.size(), 2u);
}

TEST_F(SkyTest, PreparationWithoutAnImageLeavesAConstantSky) {
  sceneRadius = 2;
  qzSetSkyLightPhoton(10);
  qzSetSkyLightNorth(0, 0, -2);
  qzSetSkyLightZenith(0, 3, 0.1f);
  const std::string out = prepareQuietly();
  EXPECT_EQ(out,
            "error :( image - undefined\tcannot be found\n" + std::string(80, '_') + "\n\n" +
                "sky light  width          0 [n/a]\n"
                "sky light height          0 [n/a]\n"
                "sky light sample          0 [n/a]\n"
                "sky light memory      0.375 [M bytes]\n");
  EXPECT_EQ(sky.sample, 0);
  EXPECT_EQ(sky.photon, 10);
  EXPECT_NEAR(sky.flux.g, 16 * testPi, 1e-4);
  EXPECT_TRUE(sky.cells.empty());
  // The basis: north kept, zenith made square to it, east completing them.
  EXPECT_EQ(sky.north, Vec3f(0, 0, -1));
  EXPECT_NEAR(sky.zenith.y, 1, 1e-6);
  EXPECT_NEAR(sky.east.x, 1, 1e-6);
  float u, v;
  skyImageCoordinates({0, 1, 0}, u, v);
  EXPECT_NEAR(v, 0, 1e-3);
  skyImageCoordinates({1, 0, 0}, u, v);
  EXPECT_NEAR(u, 0.5f, 1e-6);
  EXPECT_NEAR(v, 0.5f, 1e-6);
  Ray ray;
  ray.direction = {0, 1, 0};
  EXPECT_EQ(skyRadiance(ray), Color3f(0.75f, 0.75f, 0.75f));

  // A black sky has no samples and no photons, and no image is even looked for.
  quietStartup();
  qzSetSkyLightColor(0, 0, 1e-6f);
  qzSetSkyLightPhoton(10);
  EXPECT_EQ(prepareQuietly().substr(0, 16), "sky light  width");
  EXPECT_EQ(sky.photon, 0);
  EXPECT_EQ(sky.sample, 0);
  // The geometry light's pair is the sky's.
  quietStartup();
  EXPECT_EQ(captureOutput([] { qzInitializeGeometryLight(); }), out);
  EXPECT_EQ(sky.flux, black);  // no photons asked for
}

TEST_F(SkyTest, TablesFromAnImageFileSampleTheBrightCells) {
  // Right half of the longitude bright, left half black.
  Image file;
  allocateImage(file, 32, 16, 3, 32, 0);
  for (int y = 0; y < 16; ++y)
    for (int x = 16; x < 32; ++x) writePixel(file, {2, 4, 6}, y * 32 + x);
  const std::string folder = scratchFolder("sky-tables");
  file.name = folder + "/env.pfm";
  ASSERT_TRUE(saveImage(file));
  qzSetSkyLightImage(file.name.c_str());
  qzSetSkyLightColor(0.5f, 0.5f, 0.5f);
  const std::string out = prepareQuietly();
  EXPECT_NE(out.find("sky light  width         32 [n/a]\nsky light height         16 [n/a]\n"
                     "sky light sample         64 [n/a]\n"),
            std::string::npos)
      << out;
  ASSERT_EQ(sky.cells.size(), size_t(skyCellCount));
  EXPECT_NEAR(sky.row_cdf.back(), 1, 1e-6);
  double total = 0;
  for (int row = 0; row < skyRowCount; ++row) {
    EXPECT_NEAR(sky.rows[row].cdf[255], sky.rows[row].sum > 0 ? 1 : 0, 1e-6);
    total += sky.rows[row].sum;
  }
  // A cell of the bright half is the image colour; about half of all cells are bright.
  EXPECT_NEAR(total / skyCellCount, 2, 0.1);
  for (int i = 0; i < 2000; ++i) {
    int face, a, b;
    float p;
    sampleSkyCell(radicalInverse(uint64_t(i), 2), radicalInverse(uint64_t(i), 3), face, a, b, p);
    const Color3f c = sky.cells[skyCellIndex(face, a, b)];
    ASSERT_GT(c.r, 0);
    const Vec3f d = skyCellDirection(face, float(a), float(b));
    EXPECT_NEAR(skyDensity(d), p * float(skyCellCount) / (4 * testPi), 1e-6);
    // Cells are drawn in proportion to their brightness.
    EXPECT_NEAR(p * total / ((c.r + c.g + c.b) / 3), 1, 1e-3);
  }
  // North is in the middle of the black half, south in the bright one.
  EXPECT_EQ(skyDensity({0, 1, 0}), 0);
  EXPECT_NEAR(skyDensity({0, -1, 0}), 2 / (4 * testPi), 0.01);

  // Deep rays read the cells; first bounces read the image, camera rays too.
  Ray ray;
  ray.direction = normalize({0.3f, -0.5f, 0.2f});
  ray.bounces = 2;
  EXPECT_EQ(skyRadiance(ray), skyCellColor(ray.direction) * 0.5f);
  ray.bounces = 1;
  const Color3f full = skyRadiance(ray);
  EXPECT_TRUE(full == black || full == Color3f(1, 2, 3));

  qzFinalizeSkyLight();
  EXPECT_TRUE(sky.cells.empty() && sky.rows.empty() && sky.row_cdf.empty());
  EXPECT_FALSE(sky.image.loaded);
}

TEST_F(SkyTest, LinksAndAOVsOfTheSky) {
  oneCamera(4, 2, 1);
  const int lit = qzAddShader();
  qzSetShaderName(lit, "lit");
  sky.link.names = {"lit"};
  const int emission = qzAddSkyLightAOV(), diffuse = qzAddSkyLightAOV();
  qzSetSkyLightAOVChannel(emission, 0x8000);
  qzSetSkyLightAOVChannel(diffuse, 0x8);
  const std::string folder = scratchFolder("sky-aov");
  qzSetSkyLightAOVName(emission, (folder + "/emission.pfm").c_str());
  qzSetSkyLightAOVName(diffuse, "");
  prepareQuietly();
  ASSERT_EQ(sky.link.shaders, std::vector<int>{lit});

  // A camera ray that misses everything sees the sky when it left a linked shader.
  Ray ray;
  ray.hit.event = cameraEvent;
  ray.pixel = 6;
  ray.sample_count = 2;
  ray.prev_shader = uint32_t(lit);
  Color3f L;
  shadeSky(L, ray);
  EXPECT_EQ(L, Color3f(0.75f, 0.75f, 0.75f));
  ray.prev_shader = 0;
  shadeSky(L, ray);
  EXPECT_EQ(L, black);
  expectColorNear(readPixel(sky.aovs[emission].image, 6), {0.375f, 0.375f, 0.375f}, 1e-6f);
  EXPECT_EQ(readPixel(sky.aovs[diffuse].image, 6), black);
  // A diffuse bounce goes to the lobe's bit.
  const Surface s = planePoint({0, 0, 0}, white);
  Ray bounce = ray;
  bounce.prev_shader = uint32_t(lit);
  bounce.hit.event = diffuseReflectionEvent;
  bounce.bounces = 1;
  bounce.cursor.dimension = 2;
  bounce.parent = &s;
  bounce.throughput = {0.5f, 0.5f, 0.5f};
  shadeSky(L, bounce);
  expectColorNear(readPixel(sky.aovs[diffuse].image, 6), L * 0.25f, 1e-6f);
  expectColorNear(readPixel(sky.aovs[emission].image, 6), {0.375f, 0.375f, 0.375f}, 1e-6f);

  // Finalising writes the AOVs that have a name and empties the list.
  qzFinalizeSkyLight();
  EXPECT_TRUE(std::filesystem::exists(folder + "/emission.pfm"));
  EXPECT_TRUE(sky.aovs.empty());
}

TEST_F(SkyTest, PhotonsComeFromOutsideTheSceneWithTheSkysFlux) {
  sceneCenter = {1, 2, 3};
  sceneRadius = 2;
  qzSetSkyLightPhoton(100);
  qzSetSkyLightColor(0.5f, 1, 1);
  prepareQuietly();
  Color3f total;
  for (uint64_t i = 0; i < 100; ++i) {
    Ray ray;
    emitSkyPhoton(ray, i);
    EXPECT_NEAR(dot(ray.origin - sceneCenter, ray.direction), -2, 1e-4);
    EXPECT_LE(lengthSquared(ray.origin - sceneCenter), 8 + 1e-3f);
    EXPECT_EQ(ray.cursor.dimension, 4u);
    EXPECT_EQ(ray.hit.event, lightEvent);
    total += ray.weight;
  }
  expectColorNear(total, Color3f(0.5f, 1, 1) * (16 * testPi), 1e-3f);
  EXPECT_EQ(skyPhoton, 1);

  // With a uniform image every cell is as likely, and each photon carries the same flux.
  quietStartup();
  sceneRadius = 1;
  skyImage(16, 8, [](float, float) { return Color3f{2, 2, 2}; });
  qzSetSkyLightPhoton(10);
  prepareQuietly();
  for (uint64_t i = 0; i < 10; ++i) {
    Ray ray;
    emitSkyPhoton(ray, i);
    expectColorNear(ray.weight, Color3f(0.75f, 0.75f, 0.75f) * (2 * 4 * testPi / 10), 1e-3f);
  }

  // An all-black image: no probability anywhere, photons of no flux, and no NaN.
  quietStartup();
  skyImage(16, 8, [](float, float) { return black; });
  qzSetSkyLightPhoton(10);
  prepareQuietly();
  Ray ray;
  emitSkyPhoton(ray, 3);
  EXPECT_EQ(ray.weight, black);
  LobeRadiance lobes;
  shadeSkySurface(lobes, cameraHit(), planePoint({0, 0, 0}, white));
  EXPECT_EQ(lobes.diffuse[0], black);
}
