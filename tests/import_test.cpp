// Model files through the importer and the whole command: glTF files written
// here (JSON with a base64 buffer) rendered to known answers, what the scene
// directory holds, and what bad input prints.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>

#include "tests/command_fixture.h"

namespace fs = std::filesystem;

namespace {
std::string base64(const std::string& bytes) {
  static const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t n = uint32_t(uint8_t(bytes[i])) << 16;
    if (i + 1 < bytes.size()) n |= uint32_t(uint8_t(bytes[i + 1])) << 8;
    if (i + 2 < bytes.size()) n |= uint32_t(uint8_t(bytes[i + 2]));
    const size_t chunk = std::min<size_t>(3, bytes.size() - i);
    out += digits[(n >> 18) & 63];
    out += digits[(n >> 12) & 63];
    out += chunk > 1 ? digits[(n >> 6) & 63] : '=';
    out += chunk > 2 ? digits[n & 63] : '=';
  }
  return out;
}

std::string list(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : ",") + item;
  return "[" + text + "]";
}

struct V3 {
  float x, y, z;
};
V3 operator+(V3 a, V3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
V3 operator-(V3 a, V3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }

// A glTF 2.0 file assembled from JSON parts, its one buffer inline.
struct Gltf {
  std::string buffer;
  std::vector<std::string> views, accessors, meshes, materials, nodes, cameras, lights, used;
  std::string images, textures;

  int accessor(const std::vector<float>& values, const char* type, int components) {
    views.push_back(R"({"buffer":0,"byteOffset":)" + std::to_string(buffer.size()) +
                    R"(,"byteLength":)" + std::to_string(values.size() * 4) + "}");
    buffer.append(reinterpret_cast<const char*>(values.data()), values.size() * 4);
    std::string bounds;
    if (components == 3) {
      float low[3] = {1e30f, 1e30f, 1e30f}, high[3] = {-1e30f, -1e30f, -1e30f};
      for (size_t i = 0; i < values.size(); ++i)
        low[i % 3] = std::min(low[i % 3], values[i]), high[i % 3] = std::max(high[i % 3], values[i]);
      bounds = ",\"min\":[" + std::to_string(low[0]) + "," + std::to_string(low[1]) + "," + std::to_string(low[2]) +
               "],\"max\":[" + std::to_string(high[0]) + "," + std::to_string(high[1]) + "," +
               std::to_string(high[2]) + "]";
    }
    accessors.push_back(R"({"bufferView":)" + std::to_string(views.size() - 1) + R"(,"componentType":5126,"count":)" +
                        std::to_string(values.size() / size_t(components)) + R"(,"type":")" + type + "\"" + bounds +
                        "}");
    return int(accessors.size()) - 1;
  }
  int indices(const std::vector<uint32_t>& values) {
    views.push_back(R"({"buffer":0,"byteOffset":)" + std::to_string(buffer.size()) +
                    R"(,"byteLength":)" + std::to_string(values.size() * 4) + "}");
    buffer.append(reinterpret_cast<const char*>(values.data()), values.size() * 4);
    accessors.push_back(R"({"bufferView":)" + std::to_string(views.size() - 1) +
                        R"(,"componentType":5125,"count":)" + std::to_string(values.size()) + R"(,"type":"SCALAR"})");
    return int(accessors.size()) - 1;
  }
  // A rectangle centre +- u +- v, facing u x v; the corner at -u +v has uv (0, 0).
  int quad(V3 c, V3 u, V3 v, int material) {
    const V3 p[4] = {c - u - v, c + u - v, c + u + v, c - u + v};
    const V3 n{u.y * v.z - u.z * v.y, u.z * v.x - u.x * v.z, u.x * v.y - u.y * v.x};
    const float l = std::sqrt(n.x * n.x + n.y * n.y + n.z * n.z);
    std::vector<float> positions, normals;
    for (const V3& q : p) positions.insert(positions.end(), {q.x, q.y, q.z}), normals.insert(normals.end(), {n.x / l, n.y / l, n.z / l});
    const int P = accessor(positions, "VEC3", 3), N = accessor(normals, "VEC3", 3);
    const int T = accessor({0, 1, 1, 1, 1, 0, 0, 0}, "VEC2", 2), I = indices({0, 1, 2, 0, 2, 3});
    meshes.push_back(R"({"primitives":[{"attributes":{"POSITION":)" + std::to_string(P) + R"(,"NORMAL":)" +
                     std::to_string(N) + R"(,"TEXCOORD_0":)" + std::to_string(T) + R"(},"indices":)" +
                     std::to_string(I) + R"(,"material":)" + std::to_string(material) + "}]}");
    return int(meshes.size()) - 1;
  }
  int material(const std::string& json) {
    materials.push_back(json);
    return int(materials.size()) - 1;
  }
  // Diffuse only: an index of 1 gives the surface no reflection lobe.
  int matte() {
    if (std::find(used.begin(), used.end(), "\"KHR_materials_ior\"") == used.end())
      used.push_back("\"KHR_materials_ior\"");
    return material(R"({"pbrMetallicRoughness":{"baseColorFactor":[0.5,0.6,0.7,1],"metallicFactor":0},)"
                    R"("extensions":{"KHR_materials_ior":{"ior":1}}})");
  }
  void node(const std::string& json) { nodes.push_back(json); }
  // A camera at `position` looking down -y (the node turns its -z down).
  void downCamera(V3 position, float yfov_degrees) {
    cameras.push_back(R"({"type":"perspective","perspective":{"yfov":)" + std::to_string(yfov_degrees * M_PI / 180) +
                      R"(,"aspectRatio":1,"znear":0.01}})");
    node(R"({"name":"down","camera":)" + std::to_string(cameras.size() - 1) + R"(,"translation":[)" +
         std::to_string(position.x) + "," + std::to_string(position.y) + "," + std::to_string(position.z) +
         R"(],"rotation":[-0.70710678,0,0,0.70710678]})");
  }
  void light(const std::string& json, const std::string& placement) {
    lights.push_back(json);
    node(R"({"extensions":{"KHR_lights_punctual":{"light":)" + std::to_string(lights.size() - 1) + "}}" + placement +
         "}");
  }

  std::string json() const {
    std::vector<std::string> roots;
    for (size_t i = 0; i < nodes.size(); ++i) roots.push_back(std::to_string(i));
    std::string text = R"({"asset":{"version":"2.0"},"scene":0,"scenes":[{"nodes":)" + list(roots) + "}]";
    text += R"(,"buffers":[{"byteLength":)" + std::to_string(buffer.size()) +
            R"(,"uri":"data:application/octet-stream;base64,)" + base64(buffer) + "\"}]";
    text += ",\"bufferViews\":" + list(views) + ",\"accessors\":" + list(accessors) + ",\"meshes\":" + list(meshes) +
            ",\"materials\":" + list(materials) + ",\"nodes\":" + list(nodes);
    if (!cameras.empty()) text += ",\"cameras\":" + list(cameras);
    if (!images.empty()) text += ",\"images\":" + images + ",\"textures\":" + textures;
    std::vector<std::string> extensions = used;
    if (!lights.empty()) {
      extensions.push_back("\"KHR_lights_punctual\"");
      text += R"(,"extensions":{"KHR_lights_punctual":{"lights":)" + list(lights) + "}}";
    }
    if (!extensions.empty()) text += ",\"extensionsUsed\":" + list(extensions);
    return text + "}";
  }
  std::string save(const std::string& path) const {
    std::ofstream(path) << json();
    return path;
  }
};

// Runs the command in `folder`, its two outputs together.
ShellOutcome quazel(const std::string& folder, const std::string& arguments) {
  return shell("cd '" + folder + "' && '" + quazelBinary() + "' " + arguments + " 2>&1");
}

// The one beauty image that a render left in `folder`.
Image beauty(const std::string& folder) {
  for (const auto& entry : fs::directory_iterator(folder))
    if (std::regex_match(entry.path().filename().string(), std::regex(R"(beauty-\d{8}-\d{6}\.hdr)")))
      return loadStoredImage(entry.path().string());
  ADD_FAILURE() << "no beauty image in " << folder;
  return {};
}

Color3f meanOf(const Image& image) {
  Color3f sum;
  const int n = image.width * image.height;
  for (int p = 0; p < n; ++p) sum += readPixel(image, p);
  return sum * (1.0f / float(n));
}

// Renders the glTF file at a small size into a fresh folder; the beauty image.
Image render(const Gltf& model, const std::string& name, const std::string& options = "--resolution 8 8 --samples 2") {
  const std::string work = scratchFolder("import-" + name);
  model.save(work + "/model.gltf");
  const ShellOutcome run = quazel(work, "model.gltf -o out " + options);
  EXPECT_EQ(run.status, 0) << run.out;
  return beauty(work + "/out");
}
}  // namespace

TEST(Import, PunctualLightsInPhotometricUnitsLightAPlaneAsTheirRadiantValues) {
  const Color3f albedo{0.5f, 0.6f, 0.7f};
  {
    SCOPED_TRACE("a point light of I cd at height h gives I / 683 / h^2");
    Gltf model;
    model.node(R"({"mesh":)" + std::to_string(model.quad({0, 0, 0}, {500, 0, 0}, {0, 0, -500}, model.matte())) + "}");
    model.downCamera({0, 1, 0}, 1);
    model.light(R"({"type":"point","intensity":2049})", R"(,"translation":[0,2,0])");
    const Color3f mean = meanOf(render(model, "point"));
    // The stored image keeps 8 bits of each value under a shared exponent: 1/256 of 0.5 to 1.
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(mean[i], albedo[i] * 2049 / 683 / 4, 4e-3f) << i;
  }
  {
    SCOPED_TRACE("a directional light of E lux gives E / 683 times the albedo");
    Gltf model;
    model.node(R"({"mesh":)" + std::to_string(model.quad({0, 0, 0}, {500, 0, 0}, {0, 0, -500}, model.matte())) + "}");
    model.downCamera({0, 1, 0}, 1);
    model.light(R"({"type":"directional","intensity":1366,"color":[1,0.5,0.25]})",
                R"(,"rotation":[-0.70710678,0,0,0.70710678])");
    const Color3f mean = meanOf(render(model, "directional")), tint{1, 0.5f, 0.25f};
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(mean[i], albedo[i] * tint[i] * 2, 8e-3f) << i;
  }
}

TEST(Import, CameraFromTheFileFramesAnEmissiveUnitQuad) {
  // A glowing unit quad one unit in front of a camera with a vertical angle of
  // 90 degrees: it covers exactly the middle half of the rows and columns.
  Gltf model;
  const int glow = model.material(R"({"pbrMetallicRoughness":{"baseColorFactor":[0,0,0,1]},"emissiveFactor":[1,1,1],)"
                                  R"("extensions":{"KHR_materials_emissive_strength":{"emissiveStrength":3}}})");
  model.used.push_back("\"KHR_materials_emissive_strength\"");
  model.node(R"({"mesh":)" + std::to_string(model.quad({0, 0, 0}, {0.5f, 0, 0}, {0, 0.5f, 0}, glow)) + "}");
  model.cameras.push_back(R"({"type":"perspective","perspective":{"yfov":1.5707963,"aspectRatio":1,"znear":0.01}})");
  model.node(R"({"camera":0,"translation":[0,0,1]})");
  const Image image = render(model, "camera", "--resolution 16 16 --samples 1");
  ASSERT_EQ(image.width, 16);
  for (int y = 0; y < 16; ++y)
    for (int x = 0; x < 16; ++x) {
      const bool inside = x >= 4 && x < 12 && y >= 4 && y < 12;
      // Emission 1 times its strength 3 inside; outside the sky of radiance 1, the file having no light.
      EXPECT_NEAR(readPixel(image, y * 16 + x).g, inside ? 3.0f : 1.0f, 1e-5f) << x << " " << y;
    }
}

TEST(Import, TextureTransformsMoveTheImageAsGltfDefinesThem) {
  // Four quadrants, the file's first row at the top: red, green over blue, white.
  const std::string work = scratchFolder("import-texture");
  std::string texels;
  for (int y = 0; y < 64; ++y)
    for (int x = 0; x < 64; ++x) {
      const int q = (y >= 32) * 2 + (x >= 32);
      const char rgb[4][3] = {{'\xff', 0, 0}, {0, '\xff', 0}, {0, 0, '\xff'}, {'\xff', '\xff', '\xff'}};
      texels.append(rgb[q], 3);
    }
  std::ofstream(work + "/quadrants.ppm", std::ios::binary) << "P6\n64 64\n255\n" << texels;
  const Color3f red{1, 0, 0}, green{0, 1, 0}, blue{0, 0, 1}, white{1, 1, 1};
  const struct {
    const char* transform;
    Color3f top_left, top_right, bottom_left, bottom_right;
  } cases[] = {
      {"", red, green, blue, white},
      {R"("offset":[0.5,0])", green, red, white, blue},
      // A quarter turn: u' = -v, v' = u.
      {R"("rotation":1.5707963)", green, white, red, blue},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.transform);
    Gltf model;
    model.used.push_back("\"KHR_texture_transform\"");
    model.used.push_back("\"KHR_materials_ior\"");
    model.images = R"([{"uri":"quadrants.ppm"}])";
    model.textures = R"([{"source":0}])";
    const int paint = model.material(
        R"({"pbrMetallicRoughness":{"baseColorTexture":{"index":0,"extensions":{"KHR_texture_transform":{)" +
        std::string(k.transform) + R"(}}},"metallicFactor":0},"extensions":{"KHR_materials_ior":{"ior":1}}})");
    model.node(R"({"mesh":)" + std::to_string(model.quad({0, 0, 0}, {0.5f, 0, 0}, {0, 0.5f, 0}, paint)) + "}");
    model.cameras.push_back(R"({"type":"perspective","perspective":{"yfov":1.5707963,"aspectRatio":1,"znear":0.01}})");
    model.node(R"({"camera":0,"translation":[0,0,1]})");
    model.save(work + "/model.gltf");
    fs::remove_all(work + "/out");
    const ShellOutcome run = quazel(work, "model.gltf -o out --resolution 16 16 --samples 2");
    ASSERT_EQ(run.status, 0) << run.out;
    // The quad covers pixels 4 to 11; the sky of radiance 1 shows its colours as they are.
    const Image image = beauty(work + "/out");
    expectColorNear(readPixel(image, 5 * 16 + 5), k.top_left, 1e-2f);
    expectColorNear(readPixel(image, 5 * 16 + 10), k.top_right, 1e-2f);
    expectColorNear(readPixel(image, 10 * 16 + 5), k.bottom_left, 1e-2f);
    expectColorNear(readPixel(image, 10 * 16 + 10), k.bottom_right, 1e-2f);
  }
}

TEST(Import, SceneDirectoryStoresAnInstancedMeshOnceAndPlacesItByInstances) {
  Gltf model;
  const int mesh = model.quad({0, 0, 0}, {0.5f, 0, 0}, {0, 0.5f, 0}, model.matte());
  for (int i = 0; i < 3; ++i)
    model.node(R"({"mesh":)" + std::to_string(mesh) + R"(,"translation":[)" + std::to_string(2 * i) + ",0,0]}");
  model.cameras.push_back(R"({"type":"perspective","perspective":{"yfov":1,"aspectRatio":1,"znear":0.1}})");
  model.node(R"({"name":"first","camera":0,"translation":[0,0,9]})");
  model.cameras.push_back(R"({"type":"perspective","perspective":{"yfov":0.5,"aspectRatio":2,"znear":0.1}})");
  model.node(R"({"name":"wide","camera":1,"translation":[0,0,5]})");
  const std::string work = scratchFolder("import-instances");
  model.save(work + "/model.gltf");
  const ShellOutcome run = quazel(work, "import model.gltf -o scene --camera wide");
  ASSERT_EQ(run.status, 0) << run.out;
  int objs = 0;
  for (const auto& entry : fs::directory_iterator(work + "/scene/geometry")) objs += entry.path().extension() == ".obj";
  EXPECT_EQ(objs, 1);
  const std::string geometry = readFile(work + "/scene/geometry/scene.qz");
  EXPECT_EQ(occurrences(geometry, "\ninstance\n"), 3u) << geometry;
  EXPECT_NE(geometry.find("matrix 1 0 0 4 0 1 0 0 0 0 1 0 0 0 0 1"), std::string::npos) << geometry;
  // No light in the file: a uniform sky of radiance 1.
  EXPECT_NE(readFile(work + "/scene/light/lights.qz").find("color 1 1 1"), std::string::npos);
  // The camera's aspect ratio 2 decides the resolution; its vertical angle of
  // 0.5 radians is a horizontal one of 2 atan(2 tan 0.25).
  // The camera that --camera names, not the first.
  const std::string camera = readFile(work + "/scene/camera/camera.qz");
  EXPECT_NE(camera.find("# camera wide"), std::string::npos) << camera;
  EXPECT_NE(camera.find("resolution 960 480"), std::string::npos) << camera;
  const float horizontal = float(2 * std::atan(2 * std::tan(0.25)) * 180 / M_PI);
  std::smatch match;
  std::regex_search(camera, match, std::regex(R"(field_of_view (\S+))"));
  EXPECT_NEAR(std::stof(match[1]), horizontal, 1e-4f) << camera;
}

TEST(Import, ObjWithMtlUnderTheDefaultSkyShowsItsDiffuseColour) {
  // No light and no camera: the sky of radiance 1 lights a box, which every
  // face of shows Kd (a white furnace), and a camera frames it.
  const std::string work = scratchFolder("import-obj");
  std::ofstream(work + "/box.mtl") << "newmtl paint\nKd 0.25 0.5 0.75\nKs 0 0 0\nNs 10\n";
  std::ofstream(work + "/box.obj") << "mtllib box.mtl\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nv 0 0 1\nv 1 0 1\nv 1 1 1\n"
                                      "v 0 1 1\nusemtl paint\nf 1 4 3 2\nf 5 6 7 8\nf 1 2 6 5\nf 4 8 7 3\nf 1 5 8 4\n"
                                      "f 2 3 7 6\n";
  const ShellOutcome run = quazel(work, "box.obj -o out --resolution 8 8 --samples 2");
  ASSERT_EQ(run.status, 0) << run.out;
  const Image image = beauty(work + "/out");
  for (const int p : {27, 28, 35, 36}) {
    const Color3f c = readPixel(image, p);
    // The stored image keeps 8 bits of each value under a shared exponent.
    EXPECT_NEAR(c.r, 0.25f, 4e-3f) << p;
    EXPECT_NEAR(c.g, 0.5f, 4e-3f) << p;
    EXPECT_NEAR(c.b, 0.75f, 4e-3f) << p;
  }
}

TEST(Import, WhatCannotBeMappedIsWarnedOfAndWhatCannotBeReadEndsTheRun) {
  const std::string work = scratchFolder("import-bad");
  {
    SCOPED_TRACE("an unknown extension and an alpha-blended material: a warning each, and the rest renders");
    Gltf model;
    model.used.push_back("\"EXT_made_up\"");
    model.node(R"({"mesh":)" +
               std::to_string(model.quad({0, 0, 0}, {1, 0, 0}, {0, 1, 0},
                                         model.material(R"({"name":"glass","alphaMode":"BLEND"})"))) +
               "}");
    model.save(work + "/odd.gltf");
    const ShellOutcome run = quazel(work, "odd.gltf -o out --resolution 8 8 --samples 1");
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_NE(run.out.find("warning :( import - the glTF extension EXT_made_up is not supported"), std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("warning :( import - material glass: alpha BLEND cannot be mapped"), std::string::npos)
        << run.out;
    EXPECT_GT(meanOf(beauty(work + "/out")).g, 0);
  }
  {
    SCOPED_TRACE("a file that cannot be read: one error line and status 2");
    std::ofstream(work + "/broken.gltf") << "{\"asset\":{\"version\":\"2.0\"},\"meshes\":[{\"primitives\":[{";
    const ShellOutcome run = quazel(work, "broken.gltf -o broken");
    EXPECT_EQ(run.status, 2) << run.out;
    EXPECT_EQ(occurrences(run.out, "\n"), 1u) << run.out;
    EXPECT_EQ(run.out.rfind("error :( import - cannot read broken.gltf", 0), 0u) << run.out;
  }
}

TEST(Import, ImportedDirectoryRendersTheSameImageAsTheModelFile) {
  // Bit for bit needs a seeded sampler.
  if (shell("'" + quazelBinary() + "' --help").out.find("--seed") == std::string::npos)
    GTEST_SKIP() << "the command has no --seed yet";
  Gltf model;
  model.node(R"({"mesh":)" + std::to_string(model.quad({0, 0, 0}, {500, 0, 0}, {0, 0, -500}, model.matte())) + "}");
  model.downCamera({0, 1, 0}, 60);
  model.light(R"({"type":"spot","intensity":2000,"spot":{"outerConeAngle":0.5}})", R"(,"translation":[0,2,0],"rotation":[-0.70710678,0,0,0.70710678])");
  const std::string work = scratchFolder("import-same");
  model.save(work + "/model.gltf");
  const std::string options = " --resolution 16 16 --samples 4 --sampler sobol --seed 7";
  ASSERT_EQ(quazel(work, "model.gltf -o direct" + options).status, 0);
  ASSERT_EQ(quazel(work, "import model.gltf -o scene").status, 0);
  ASSERT_EQ(quazel(work, "scene -o imported" + options).status, 0);
  const Image a = beauty(work + "/direct"), b = beauty(work + "/imported");
  ASSERT_EQ(a.floats.size(), b.floats.size());
  EXPECT_GT(meanOf(a).g, 0);
  EXPECT_EQ(0, std::memcmp(a.floats.data(), b.floats.data(), a.floats.size() * sizeof(float)));
}

TEST(Import, ExampleGltfSceneImportsWithoutAWarning) {
  const char* source = std::getenv("QZ_SOURCE_DIR");
  const std::string model = std::string(source ? source : "../..") + "/scenes/gltf/still-life.gltf";
  const std::string work = scratchFolder("import-example");
  const ShellOutcome run = quazel(work, "import '" + model + "' -o scene");
  ASSERT_EQ(run.status, 0) << run.out;
  EXPECT_EQ(run.out.find("warning"), std::string::npos) << run.out;
  // Three marbles, one mesh.
  EXPECT_EQ(occurrences(readFile(work + "/scene/geometry/scene.qz"), "\nobject marble\n"), 3u);
  EXPECT_TRUE(fs::exists(work + "/scene/image/checker.png"));
}
