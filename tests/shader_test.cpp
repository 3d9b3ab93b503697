// Shaders: the fallback shader, the `shader` block, the setters, and the
// flags that preparation derives.
#include "shading/shader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>

#include "qz.h"
#include "shading/image.h"
#include "tests/test_util.h"

namespace {
const Color3f grey{0.85f, 0.85f, 0.85f};

Color3f colorOf(int id, int channel, int side) { return channelNode(shaders[id], channel, side).color; }

// Starts from an empty shader array with a fresh fallback shader.
void freshStartup() {
  freeImages();
  qzFinalizeShaders();
  quietStartup();
}

// Writes the text as one file of a scene's shader folder and loads the scene.
void loadShaderText(const std::string& name, const std::string& text) {
  const std::string root = scratchFolder(name + "-" + std::to_string(getpid()));
  std::filesystem::create_directories(root + "/shader");
  std::ofstream(root + "/shader/a.qz") << text;
  captureOutput([&] { qzLoadScene((root + "/").c_str()); });
}

// A small image on disk, for shaders whose nodes really load one.
std::string imageFile() {
  static const std::string path = [] {
    const std::string file = scratchFolder("shader-image-" + std::to_string(getpid())) + "/grey.png";
    const int id = qzAddImage();
    qzSetImageName(id, file.c_str());
    qzCreateImage(id, 2, 2);
    qzSaveImage(id);
    images.pop_back();
    return file;
  }();
  return path;
}
}  // namespace

TEST(ShaderStartup, CreatesTheGreyFallback) {
  freshStartup();
  ASSERT_EQ(shaders.size(), 1u);
  const Shader& s = shaders[0];
  EXPECT_EQ(std::tuple(s.name, s.enabled, s.two_sided), std::tuple("undefined", 1, 1));
  EXPECT_EQ(std::tuple(colorOf(0, diffuseChannel, 0), colorOf(0, diffuseChannel, 1), colorOf(0, normalChannel, 1)),
            std::tuple(grey, black, Color3f(0, 0, 1)));
  EXPECT_EQ(std::tuple(colorOf(0, clearCoatIorChannel, 0), colorOf(0, clearCoatIorChannel, 1)),
            std::tuple(white, white));
  EXPECT_EQ(std::tuple(s.geometry.opacity.color, s.geometry.smooth_angle, s.geometry.reduction),
            std::tuple(white, -1, infinity));
  EXPECT_FLOAT_EQ(s.hair.width[2], 0.2f * 1.5707964f);

  // A second startup on a live scene finds the same record and resets it.
  qzSetShaderColor(0, 3, diffuseChannel, 1, 0, 0);
  qzAddShader();
  quietStartup();
  EXPECT_EQ(std::tuple(shaders.size(), colorOf(0, diffuseChannel, 0), colorOf(0, diffuseChannel, 1)),
            std::tuple(2u, grey, black));
}

TEST(ShaderBlock, BlocksReplaceByNameAndSetTheirSides) {
  freshStartup();
  loadShaderText("shader-blocks",
                 "shader\n"
                 "  name \"red\"\n"
                 "  geometry_light\n"
                 "  diffuse\n    color 1 0 0\n  end\n"
                 "end\n"
                 "shader\n  name \"blue\"\nend\n"
                 "shader\n"
                 "  name \"red\"\n"
                 "  glossy\n    color 0 1 0\n    side \"both\"\n  end\n"
                 "end\n"
                 "shader\n  diffuse\n    color 0.5 0.5 0.5\n  end\n  single_sided\nend\n"
                 "shader\n"
                 "  name \"lamp\"\n"
                 "  virtual_light\n"
                 "  diffuse\n    color 0.2 0.3 0.4\n  end\n"
                 "  emission\n    color 3 3 3\n    side \"back\"\n  end\n"
                 "  clear_coat_ior\n    color 1.5 1.5 1.5\n  end\n"
                 "  specular\n    side \"both\"\n    color 1 1 1\n  end\n"
                 "end\n"
                 "shader\n  name \"twice\"\n  geometry_light\n  virtual_light\nend\n");
  ASSERT_EQ(shaders.size(), 5u);
  EXPECT_EQ(findOrAddShader("red"), 1);
  EXPECT_EQ(findOrAddShader("blue"), 2);
  // A later block of the same name replaces the whole of the first.
  EXPECT_EQ(std::tuple(shaders[1].enabled, shaders[1].geometry_light[0], colorOf(1, diffuseChannel, 0)),
            std::tuple(1, 0, black));
  EXPECT_EQ(std::tuple(colorOf(1, glossyChannel, 0), colorOf(1, glossyChannel, 1)),
            std::tuple(Color3f(0, 1, 0), Color3f(0, 1, 0)));
  // A block without a name replaces the fallback.
  EXPECT_EQ(std::tuple(shaders[0].name, colorOf(0, diffuseChannel, 0), shaders[0].two_sided, shaders[0].enabled),
            std::tuple("undefined", Color3f(0.5f, 0.5f, 0.5f), 0, 1));
  // Sides of channels and lights. Without a side key a channel is the front's;
  // the back keeps its channel defaults.
  const int lamp = findOrAddShader("lamp");
  EXPECT_EQ(std::tuple(shaders[lamp].geometry_light[0], shaders[lamp].geometry_light[1]), std::tuple(1, 1));
  EXPECT_EQ(std::tuple(colorOf(lamp, diffuseChannel, 0), colorOf(lamp, diffuseChannel, 1)),
            std::tuple(Color3f(0.2f, 0.3f, 0.4f), black));
  EXPECT_EQ(std::tuple(colorOf(lamp, emissionChannel, 0), colorOf(lamp, emissionChannel, 1)),
            std::tuple(black, Color3f(3, 3, 3)));
  EXPECT_EQ(std::tuple(colorOf(lamp, clearCoatIorChannel, 1), colorOf(lamp, specularChannel, 1)),
            std::tuple(white, white));
  const Shader& twice = shaders[findOrAddShader("twice")];
  EXPECT_EQ(std::tuple(twice.geometry_light[0], twice.geometry_light[1]), std::tuple(1, 1));
}

TEST(ShaderBlock, ScratchNodeKeepsFilterButNotColourBetweenChannels) {
  freshStartup();
  loadShaderText("shader-scratch",
                 "shader\n"
                 "  name \"s\"\n"
                 "  diffuse\n"
                 "    color 1 1 1\n    side \"both\"\n"
                 "    sampler\n      pixel_sampler \"nearest\"\n      gamma 2.2\n"
                 "      uv_matrix 2 0 0 0 2 0 0 0 1\n    end\n"
                 "    flake\n      density 0.5\n    end\n"
                 "  end\n"
                 "  glossy\n  end\n"
                 "end\n");
  const Shader& s = shaders[findOrAddShader("s")];
  const TextureNode& glossy = channelNode(s, glossyChannel, 0);
  EXPECT_EQ(std::tuple(glossy.color, glossy.flake.density, glossy.uvIdentity, glossy.uv_matrix[0]),
            std::tuple(black, 0, 1, 1));
  EXPECT_EQ(channelNode(s, glossyChannel, 1).color, black);  // the side mask went back to front
  EXPECT_EQ(glossy.pixel_sampler, PixelSampler::nearest);
  EXPECT_FLOAT_EQ(glossy.gamma, 2.2f);
}

TEST(ShaderBlock, GeometryAndVolumeSubBlocks) {
  freshStartup();
  loadShaderText(
      "shader-geometry",
      "shader\n"
      "  name \"g\"\n"
      "  geometry\n"
      "    opacity\n      color 0.5 0.5 0.5\n    end\n"
      "    height\n      color 0.1 0.1 0.1\n      sampler\n        pixel_sampler \"nearest\"\n      end\n    end\n"
      "    height\n      level 3\n    end\n"
      "    vector\n    end\n"
      "    radius\n    end\n"
      "    round_corner 2\n    smooth_angle 30\n"
      "    camera_primary\n    flip_face\n    automatic_hair_uv\n"
      "  end\n"
      "  volume\n    density 0.5\n    ior 1.33\n    albedo 0.9 0.8 0.7\n  end\n"
      "end\n");
  Shader& s = shaders[findOrAddShader("g")];
  const ShaderGeometry& g = s.geometry;
  EXPECT_EQ(g.opacity.color, Color3f(0.5f, 0.5f, 0.5f));
  ASSERT_EQ(g.height.size(), 2u);
  EXPECT_EQ(g.height[1].level, 3);
  EXPECT_EQ(g.vector.size(), 1u);
  EXPECT_EQ(g.radius.size(), 1u);
  EXPECT_EQ(g.length.size(), 0u);
  EXPECT_EQ(std::tuple(g.primary_visibility, g.flip_face, g.automatic_hair_uv), std::tuple(2, 1, 1));
  EXPECT_FLOAT_EQ(g.smooth_angle, 30);
  EXPECT_FLOAT_EQ(s.volume.ior, 1.33f);
  EXPECT_EQ(g.height[0].pixel_sampler, PixelSampler::nearest);

  prepareShader(s);
  EXPECT_EQ(g.round_corner, 1);
  EXPECT_EQ(g.reduction, 1);  // the default acts as 1
  EXPECT_EQ(std::tuple(g.height[0].pixel_sampler, g.opacity.pixel_sampler, g.opacity_textured),
            std::tuple(PixelSampler::bilinear, PixelSampler::stochastic, 0));
  EXPECT_NEAR(s.volume.sigma, std::log(2.0f), 1e-6);
}

TEST(ShaderExports, SettersAddressSidesAndChannels) {
  freshStartup();
  const int id = qzAddShader();
  EXPECT_EQ(std::tuple(id, shaders[id].enabled), std::tuple(1, 1));
  qzSetShaderColor(id, 2, glossyChannel, 0.1f, 0.2f, 0.3f);
  qzSetShaderGeometryLight(id, 1, true);
  qzSetShaderShift(id, 3, normalChannel, 1, 0.25f, 0.5f, 0.75f);
  qzSetShaderFlake(id, 1, diffuseChannel, 1, 0.5f, 0, 0.01f, 0.3f, 0.02f);
  qzSetShaderStone(id, 2, diffuseChannel, 0.6f, 4, 0.7f, 3);
  const float uv[9] = {2, 0, 0, 0, 2, 0, 0, 0, 1};
  qzSetShaderImage(id, 1, roughnessChannel, "r.png", 2.2f, nullptr, uv);
  qzSetShaderVisibility(id, 257);

  const Shader& s = shaders[id];
  EXPECT_EQ(std::tuple(colorOf(id, glossyChannel, 0), colorOf(id, glossyChannel, 1)),
            std::tuple(black, Color3f(0.1f, 0.2f, 0.3f)));
  EXPECT_EQ(std::tuple(s.geometry_light[0], s.geometry_light[1]), std::tuple(1, 0));
  for (int side = 0; side < 2; ++side) {
    const float* shift = channelNode(s, normalChannel, side).shift[1];
    // c goes first, a second, b third
    EXPECT_EQ(std::tuple(shift[0], shift[1], shift[2]), std::tuple(0.75f, 0.25f, 0.5f));
  }
  // The flake and stone setters take their values in an order of their own.
  const FlakeLayer& flake = channelNode(s, diffuseChannel, 0).flake;
  EXPECT_EQ(std::tuple(flake.scale, flake.density, flake.depth), std::tuple(0.01f, 0.3f, 0.02f));
  const StoneLayer& stone = channelNode(s, diffuseChannel, 1).stone;
  EXPECT_EQ(std::tuple(stone.scale, stone.density), std::tuple(4, 0.7f));
  const TextureNode& rough = channelNode(s, roughnessChannel, 0);
  // The identity flag stays: only a scene key clears it.
  EXPECT_EQ(std::tuple(rough.imageName, rough.uv_matrix[0], rough.uvIdentity, rough.color_matrix.m[0]),
            std::tuple("r.png", 2, 1, 1));
  EXPECT_EQ(s.geometry.primary_visibility, 1);  // truncated to a byte

  // A name nobody defined is added but stays disabled.
  const int later = findOrAddShader("later");
  EXPECT_EQ(std::tuple(later, shaders[later].enabled), std::tuple(2, 0));
}

namespace {
struct FlagCase {
  const char* what;
  std::function<void(int)> build;
  uint8_t plain, anisotropic, needsSurfaceNormal, textured, roughFront, roughBack;
};
}  // namespace

TEST(ShaderPreparation, DerivedFlags) {
  const std::string image = imageFile();
  auto color = [](int id, int side, int channel, float r, float g, float b) {
    qzSetShaderColor(id, side, channel, r, g, b);
  };
  auto smooth = [&](int id) { color(id, 3, roughnessChannel, 1, 1, 0); };
  const FlagCase cases[] = {
      {"defaults: zero roughness asks for the surface normal", [](int) {}, 0, 0, 1, 0, 0, 0},
      {"roughness 1 on both sides, no images", smooth, 1, 0, 0, 0, 0, 0},
      {"unequal roughness without glossy", [&](int id) { color(id, 3, roughnessChannel, 1.5f, 2, 0); }, 1, 0, 0, 0, 0,
       0},
      {"only the back below 1", [&](int id) { smooth(id), color(id, 2, roughnessChannel, 1, 0.5f, 0); }, 0, 0, 1, 0, 0,
       0},
      {"rough glossy front",
       [&](int id) { smooth(id), color(id, 1, roughnessChannel, 0.3f, 0.3f, 0), color(id, 1, glossyChannel, 1, 1, 1); },
       0, 0, 1, 0, 1, 0},
      {"both sides rough: only the front is flagged",
       [&](int id) { color(id, 3, roughnessChannel, 0.2f, 0.5f, 0), color(id, 3, glossyChannel, 1, 1, 1); }, 0, 1, 1, 0,
       1, 0},
      {"rough glossy back only",
       [&](int id) { smooth(id), color(id, 2, roughnessChannel, 0.2f, 0.2f, 0), color(id, 2, glossyChannel, 1, 1, 1); },
       0, 0, 1, 0, 0, 1},
      {"glossy with roughness 1 and 2 is anisotropic",
       [&](int id) {
         color(id, 1, roughnessChannel, 1, 2, 0), color(id, 1, glossyChannel, 1, 1, 1),
             color(id, 2, roughnessChannel, 1, 1, 0);
       },
       1, 1, 0, 0, 1, 0},
      {"a loaded diffuse image",
       [&](int id) { smooth(id), qzSetShaderImage(id, 1, diffuseChannel, image.c_str(), 1, nullptr, nullptr); }, 0, 0,
       0, 1, 0, 0},
      {"an image that fails to load",
       [&](int id) { smooth(id), qzSetShaderImage(id, 1, diffuseChannel, "nowhere.png", 1, nullptr, nullptr); }, 1, 0,
       0, 0, 0, 0},
      {"a roughness image with glossy",
       [&](int id) {
         smooth(id), color(id, 1, glossyChannel, 1, 1, 1);
         qzSetShaderImage(id, 1, roughnessChannel, image.c_str(), 1, nullptr, nullptr);
       },
       0, 1, 1, 1, 1, 0},
  };
  for (const FlagCase& c : cases) {
    freshStartup();
    const int id = qzAddShader();
    c.build(id);
    captureOutput([&] { prepareShader(shaders[id]); });
    const Shader& s = shaders[id];
    EXPECT_EQ(s.plain, c.plain) << c.what;
    EXPECT_EQ(s.anisotropic, c.anisotropic) << c.what;
    EXPECT_EQ(s.needs_surface_normal, c.needsSurfaceNormal) << c.what;
    EXPECT_EQ(s.textured, c.textured) << c.what;
    EXPECT_EQ(s.rough[0], c.roughFront) << c.what;
    EXPECT_EQ(s.rough[1], c.roughBack) << c.what;
    EXPECT_EQ(s.needs_tangents, 1) << c.what;
    EXPECT_EQ(s.prepared, 1) << c.what;
  }
}

TEST(ShaderPreparation, SideFlagsAndTheOnceOnlyGuard) {
  freshStartup();
  const std::string image = imageFile();
  const int id = qzAddShader();
  qzSetShaderColor(id, 2, emissionChannel, 0, 0, 2e-6f);
  qzSetShaderColor(id, 1, jitterChannel, 0.1f, 0.1f, 0.1f);
  qzSetShaderFlake(id, 2, jitterChannel, 1, 1, 1, 0, 0, 0);      // a flake colour counts even when switched off
  qzSetShaderColor(id, 1, diffuseChannel, 1e-6f, 1e-6f, 1e-6f);  // not above the threshold
  qzSetShaderFlake(id, 2, diffuseChannel, 0.5f, 0, 0, 0.1f, 0.5f, 0);
  qzSetShaderColor(id, 1, normalChannel, 1, 1, 1);
  qzSetShaderImage(id, 1, normalChannel, image.c_str(), 1, nullptr, nullptr);
  qzSetShaderImage(id, 2, normalChannel, "lost.png", 1, nullptr, nullptr);
  captureOutput([&] { prepareShader(shaders[id]); });
  const Shader& s = shaders[id];
  EXPECT_EQ(std::tuple(s.emissive[0], s.emissive[1], s.jittered[0], s.jittered[1], s.diffuse_present[0]),
            std::tuple(0, 1, 1, 1, 0));
  EXPECT_EQ(std::tuple(s.diffuse_present[1], s.normal_mapped[0]), std::tuple(1, 1));
  EXPECT_EQ(s.normal_mapped[1], 0);  // colour (0, 0, 1) but its image failed

  // Parameters after preparation change nothing until the record is reset.
  qzSetShaderColor(id, 1, emissionChannel, 5, 5, 5);
  prepareShader(shaders[id]);
  EXPECT_EQ(s.emissive[0], 0);
  resetShader(shaders[id]);
  EXPECT_EQ(std::tuple(s.prepared, s.enabled, s.name), std::tuple(0, 0, "undefined"));
  EXPECT_EQ(colorOf(id, emissionChannel, 0), black);
  EXPECT_EQ(colorOf(id, normalChannel, 0), Color3f(0, 0, 1));
  EXPECT_EQ(channelNode(s, normalChannel, 0).imageName, "");
}

TEST(ShaderPreparation, HairShaderTakesWidthsFromRoughness) {
  freshStartup();
  const int id = qzAddShader();
  qzSetShaderColor(id, 1, roughnessChannel, 0.5f, 0.25f, 1);
  qzSetShaderIOR(id, 1.6f);
  prepareHairShader(shaders[id]);
  EXPECT_EQ(shaders[id].prepared, 0);  // not used by hair: nothing happens
  shaders[id].used_by_hair = 1;
  prepareHairShader(shaders[id]);
  const ShaderHair& h = shaders[id].hair;
  EXPECT_EQ(shaders[id].prepared, 1);
  EXPECT_FLOAT_EQ(h.eta, 1.6f);
  EXPECT_EQ(h.absorption, black);
  const float widths[3] = {0.5f, 0.25f, 1};
  for (int p = 0; p < 3; ++p) {
    const double w = widths[p] * 1.5707963267948966, v = w * w;
    EXPECT_NEAR(h.width[p], w, 1e-6);
    EXPECT_NEAR(h.variance[p], v, 1e-6);
  }
  EXPECT_NEAR(h.f0, (0.6 / 2.6) * (0.6 / 2.6), 1e-7);
}

TEST(ShaderPreparation, InitializeReportsTexturesAndShaders) {
  freshStartup();
  qzAddShader();
  const int image = qzAddImage();
  qzCreateImage(image, 512, 512);  // 3 MiB of floats
  const std::string out = captureOutput([] { qzInitializeShaders(); });
  char shadersRow[128];
  std::snprintf(shadersRow, sizeof shadersRow, "shaders %10zu [bytes]%10d %10.3f [M bytes]\n", sizeof(Shader), 2,
                2.0 * sizeof(Shader) / 1048576.0);
  EXPECT_EQ(out, std::string("textures      3.000 [M bytes]\n") + shadersRow);
  EXPECT_EQ(shaders[0].prepared, 1);
  EXPECT_EQ(shaders[1].prepared, 1);
  qzFinalizeShaders();
  EXPECT_TRUE(shaders.empty());
  freeImages();
}
