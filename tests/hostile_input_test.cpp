// Inputs made to take the process down: instance graphs that nest or multiply
// without bound, matrices that are not affine, special files named like scene
// files, counts past their type and memory past the process's limit. Each run
// ends by itself, within seconds, with its message or its image.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfMultiPartOutputFile.h>
#include <ImfOutputPart.h>
#include <ImfPartType.h>
#include <ImfTiledOutputPart.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <filesystem>
#include <limits>

#include "geometry/object.h"
#include "geometry/scene_assembly.h"
#include "output/camera.h"
#include "output/exr_file.h"
#include "shading/exr_check.h"
#include "shading/image.h"
#include "qz.h"
#include "tests/command_fixture.h"
#include "tests/scene_writer.h"
#include "tests/test_util.h"

namespace fs = std::filesystem;

namespace {

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// A folder with a small camera looking at the origin and whatever geometry the
// test writes; `run` renders it with the command, under a time limit and,
// when asked, a limit on the address space in kilobytes.
class HostileInput : public testing::Test {
 protected:
  void SetUp() override {
    const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    work = scratchFolder("hostile-" + name);
    scene = work + "/scene/";
    writeSceneFile(scene + "camera", "camera.qz", stillCamera("  resolution 8 8\n  sample 1\n"));
    writeSceneFile(scene + "geometry", "triangle.obj", "v -1 -1 0\nv 1 -1 0\nv 0 1 0\nf 1 2 3\n");
  }
  ShellOutcome run(const std::string& limit = "") {
    const std::string prefix = limit.empty() ? "" : "ulimit -v " + limit + " && ";
    return shell("cd '" + work + "' && " + prefix + "timeout 60 '" + quazelBinary() + "' scene/ 2>&1");
  }
  bool rendered() {
    for (const auto& entry : fs::directory_iterator(work))
      if (entry.path().extension() == ".hdr") return true;
    return false;
  }
  std::string work, scene;
};

// Object `o<i>` places `o<i+1>` by each matrix given; the last holds the triangle.
std::string instanceGraph(int levels, const std::vector<std::string>& matrices) {
  std::string text;
  for (int i = 0; i < levels; ++i) {
    text += "object\n  name o" + std::to_string(i) + "\n";
    for (const std::string& matrix : matrices)
      text += "  instance\n    object o" + std::to_string(i + 1) + "\n    matrix " + matrix + "\n  end\n";
    text += "end\n";
  }
  return text + "object\n  name o" + std::to_string(levels) + "\n  obj \"geometry/triangle.obj\"\nend\n";
}

const std::string identity = "1 0 0 0 0 1 0 0 0 0 1 0 0 0 0 1";
const std::string deepWarning = "warning :( object - objects placed 64 instances deep or deeper are not drawn\n";

}  // namespace

TEST_F(HostileInput, DeepChainsRenderAndSayWhatIsNotDrawn) {
  for (int levels : {1000, 100000}) {
    SCOPED_TRACE(levels);
    writeSceneFile(scene + "geometry", "chain.qz", instanceGraph(levels, {identity}));
    const ShellOutcome out = run();
    EXPECT_EQ(out.status, 0) << out.out.substr(out.out.size() - std::min<size_t>(out.out.size(), 2000));
    EXPECT_TRUE(has(out.out, deepWarning));
    EXPECT_TRUE(rendered());
  }
  // Shallower than the limit: drawn, with no warning.
  writeSceneFile(scene + "geometry", "chain.qz", instanceGraph(40, {identity}));
  const ShellOutcome out = run();
  EXPECT_EQ(out.status, 0);
  EXPECT_FALSE(has(out.out, "warning :( object"));
  EXPECT_TRUE(has(out.out, "scene minimum     -1.000      -1.000       0.000 [n/a]")) << out.out;
}

TEST_F(HostileInput, ADoublingGraphOf64LevelsIsAssembledOnceAndRendered) {
  // Each object places the next twice, side by side: 2^64 placements in all.
  writeSceneFile(scene + "geometry", "dag.qz",
                 instanceGraph(64, {"0.5 0 0 -0.5 0 1 0 0 0 0 1 0 0 0 0 1", "0.5 0 0 0.5 0 1 0 0 0 0 1 0 0 0 0 1"}));
  ShellOutcome out = run();
  EXPECT_EQ(out.status, 0) << out.out;
  EXPECT_TRUE(has(out.out, deepWarning));
  EXPECT_TRUE(has(out.out, "scene minimum     -1.000      -1.000       0.000 [n/a]")) << out.out;
  // The same graph on top of itself: every walk meets every copy.
  writeSceneFile(scene + "geometry", "dag.qz", instanceGraph(64, {identity, identity}));
  out = run();
  EXPECT_EQ(out.status, 0) << out.out;
  EXPECT_TRUE(rendered());
}

TEST_F(HostileInput, SpecialFilesAreNotRead) {
  // A pipe named like a scene file and like an OBJ: opening either would wait
  // for a writer for ever.
  ASSERT_EQ(mkfifo((scene + "geometry/pipe.qz").c_str(), 0600), 0);
  ASSERT_EQ(mkfifo((scene + "geometry/pipe.obj").c_str(), 0600), 0);
  writeSceneFile(scene + "geometry", "pipe-user.qz", "object\n  obj \"geometry/pipe.obj\"\nend\n");
  // Endless devices as a scene file and as a fur file.
  fs::create_directories(scene + "render");
  fs::create_symlink("/dev/zero", scene + "render/zero.qz");
  writeSceneFile(scene + "geometry", "fur-user.qz",
                 "object\n  fur \"/dev/urandom\"\nend\nobject\n  obj \"geometry/triangle.obj\"\nend\n");
  // A regular file of one line far longer than the line limit.
  writeSceneFile(scene + "light", "long.qz", std::string(1 << 24, 'x') + "\npoint_light\n  position 0 0 2\nend\n");
  const ShellOutcome out = run("1000000");
  EXPECT_EQ(out.status, 0) << out.out;
  EXPECT_TRUE(has(out.out, "error :( object - cannot open geometry/pipe.obj\n")) << out.out;
  EXPECT_TRUE(has(out.out, "point    lights    ")) << out.out;
  EXPECT_TRUE(rendered());
}

namespace {
// A triangle placed by `matrix` and a floor, lit by the sky, a point light and
// the geometry light, all casting photons.
void placedTriangleWithPhotons(const float* matrix) {
  const float corners[] = {-1, -1, 0, 1, -1, 0, 0, 1, 0, -5, -2, -5, 5, -2, -5, 5, -2, 5};
  const unsigned face[] = {0, 1, 2}, floor[] = {3, 4, 5};
  const int child = qzAddObject();
  qzSetObjectName(child, "child");
  qzAddVertexData(child, 3, "position", 3, 3, corners);
  qzAddPrimitives(child, 3, 1, face);
  const int root = qzAddObject();
  qzAddVertexData(root, 3, "position", 6, 3, corners);
  qzAddPrimitives(root, 3, 1, floor);
  qzSetInstance(root, qzAddInstance(root), child, matrix);
  const int light = qzAddPointLight();
  qzSetPointLightPosition(light, 0, 3, 0);
  qzSetPointLightPhoton(light, 2000);
  qzSetSkyLightPhoton(2000);
  qzSetGeometryLightPhoton(2000);
  const int camera = qzAddCamera();
  qzSetCameraResolution(camera, 8, 8);
  qzSetCameraSample(camera, 1);
  qzSetRendererRadius(0.1f);
}
}  // namespace

// Scenes one after the other with no startup between them: qzFinalize frees
// every shader, also the fallback that startup made, and the next scene's
// faces fall back to it all the same. Placed by odd matrices, the triangle
// leaves the scene's bounds finite; placed as it is, it renders alike each time.
TEST(HostileScene, OddMatricesKeepTheBoundsFiniteAndScenesFollowWithoutAStartup) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float unchanged[] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  const float projective[] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0.7f, 0.3f, 0, 0.1f};
  const float notANumber[] = {nan, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  const float huge[] = {3e38f, 0, 0, 0, 0, 3e38f, 0, 0, 0, 0, 3e38f, 0, 0, 0, 0, 1};
  objects.clear();
  quietStartup();
  std::vector<double> brightness;
  for (const float* matrix : {unchanged, projective, notANumber, huge, unchanged}) {
    placedTriangleWithPhotons(matrix);
    double sum = 0;
    const std::string out = captureOutput([&] {
      qzInitialize();
      qzRender();
      for (float v : cameras[0].aovs[0].image.floats) sum += v;
    });
    brightness.push_back(sum);
    EXPECT_TRUE(std::isfinite(sceneRadius)) << out;
    for (float v : {sceneCenter.x, sceneCenter.y, sceneCenter.z, sceneMin.x, sceneMax.z})
      EXPECT_TRUE(std::isfinite(v)) << out;
    captureOutput(qzFinalize);
  }
  EXPECT_GT(brightness[0], 0);
  EXPECT_NEAR(brightness.back(), brightness[0], 0.1 * brightness[0]);
  captureOutput(qzShutdown);
}

TEST_F(HostileInput, MergeRefusesACorruptTileImageAndLives) {
  writeSceneFile(scene + "light", "sky.qz", "sky_light\n  color 0.5 0.5 0.5\nend\n");
  std::string tiles;
  for (int i = 1; i <= 2; ++i) {
    const std::string folder = "out/tile-" + std::to_string(i);
    const ShellOutcome tile = shell("cd '" + work + "' && '" + quazelBinary() + "' --tile " + std::to_string(i) +
                                    "/2 --resolution 16 8 --samples 1 --exr all.exr -o " + folder + " scene/");
    ASSERT_EQ(tile.status, 0) << tile.out;
    tiles += " " + folder;
  }
  // A Radiance header whose height overflows, over the pixels of a real tile.
  const std::string path = work + "/out/tile-2/beauty.hdr";
  const std::string hdr = readFile(path);
  const size_t resolution = hdr.find("-Y");
  ASSERT_NE(resolution, std::string::npos);
  std::ofstream(path, std::ios::binary) << hdr.substr(0, resolution) << "-Y 8888888888888888881 +X 3\n"
                                        << hdr.substr(hdr.find('\n', resolution) + 1);
  // An EXR cut inside its header, which its decoder would wait on for ever.
  const std::string exr = readFile(work + "/out/tile-2/all.exr");
  std::ofstream(work + "/out/tile-2/all.exr", std::ios::binary) << exr.substr(0, 100);
  const ShellOutcome merged =
      shell("cd '" + work + "' && timeout 60 '" + quazelBinary() + "' merge -o out/frame" + tiles + " 2>&1");
  EXPECT_EQ(merged.status, 2) << merged.out;
  EXPECT_TRUE(has(merged.out, "quazel: merge: out/tile-2/beauty.hdr cannot be read\n")) << merged.out;
  EXPECT_TRUE(has(merged.out, "quazel: merge: out/tile-2/all.exr cannot be read: its headers or chunk table are "
                              "damaged\n")) << merged.out;
}

TEST_F(HostileInput, CountsPastTheirTypeAreRefusedAndEndlessOnesAnnounced) {
  writeSceneFile(scene + "geometry", "triangle.qz", "object\n  obj \"geometry/triangle.obj\"\nend\n");
  // Past the type: refused, and the render goes on with the defaults.
  writeSceneFile(scene + "light", "lights.qz",
                 "geometry_light\n  photon 99999999999999999999\nend\n"
                 "point_light\n  position 0 0 2\n  photon -99999999999999999999\nend\n");
  writeSceneFile(scene + "render", "render.qz", "render\n  final_gather\n    photon_depth 2147483648\n"
                 "    ray_depth 256\n  end\nend\n");
  ShellOutcome out = run();
  EXPECT_EQ(out.status, 0) << out.out;
  for (const char* line : {"warning :( geometry_light - photon is out of range\n", "warning :( light - photon is out of range\n",
                           "warning :( render - photon_depth is out of range\n",
                           "warning :( render - ray_depth is out of range\n"})
    EXPECT_TRUE(has(out.out, line)) << line << out.out;
  EXPECT_TRUE(rendered());
  // Within the type but beyond any render's end: said when the scene is read.
  // The command takes a first stop signal at the end of a pass, and casting
  // has none: the second one ends it.
  writeSceneFile(scene + "light", "lights.qz", "point_light\n  position 0 0 2\n  photon 2147483647\nend\n");
  writeSceneFile(scene + "render", "render.qz", "render\n  final_gather\n    sample 2147483647\n  end\nend\n");
  writeSceneFile(scene + "camera", "camera.qz", stillCamera("  resolution 8 8\n  sample 2147483647\n"));
  out = shell("cd '" + work + "' && timeout -k 1 5 '" + quazelBinary() + "' scene/ 2>&1");
  EXPECT_TRUE(has(out.out, "warning :( camera - sample is out of range\n")) << out.out;
  for (const char* block : {"light - photon", "render - sample"})
    EXPECT_TRUE(has(out.out, std::string("warning :( ") + block + " asks for more work than a render can finish\n"))
        << block << out.out;
}

TEST_F(HostileInput, DisplacementPastTheProcessLimitIsRefused) {
  writeSceneFile(scene + "geometry", "quad.obj",
                 "v -1 -1 0\nv 1 -1 0\nv 1 1 0\nv -1 1 0\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\nvn 0 0 1\nusemtl d\n"
                 "f 1/1/1 2/2/1 3/3/1\nf 1/1/1 3/3/1 4/4/1\n");
  writeSceneFile(scene + "geometry", "quad.qz", "object\n  obj \"geometry/quad.obj\"\nend\n");
  // Some 5 GB of vertices, records and hierarchy, with 2 GB of address space.
  writeSceneFile(scene + "shader", "shader.qz",
                 "shader\n  name \"d\"\n  geometry\n    smooth_angle 30\n    vector\n      level 3000\n"
                 "      color 1 1 1\n    end\n  end\nend\n");
  const ShellOutcome out = run("2000000");
  EXPECT_EQ(out.status, 0) << out.out;
  EXPECT_TRUE(has(out.out, "error :( mesh - displacement level 3000 needs more memory than there is\n")) << out.out;
  EXPECT_TRUE(rendered());
}

namespace {
// Writes one part a header, each of one float channel over a 37 x 23 window,
// in scan lines or in tiles of every level, as the header says.
void writeParts(const std::string& path, std::vector<Imf::Header> headers) {
  const int width = 37, height = 23;
  std::vector<float> pixels(size_t(width) * height, 0.25f);
  Imf::FrameBuffer buffer;
  buffer.insert("R", Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(pixels.data()), 4, 4 * width));
  for (size_t p = 0; p < headers.size(); ++p) {
    headers[p].channels().insert("R", Imf::Channel(Imf::FLOAT));
    headers[p].setName("part" + std::to_string(p));
    headers[p].setType(headers[p].hasTileDescription() ? Imf::TILEDIMAGE : Imf::SCANLINEIMAGE);
  }
  Imf::MultiPartOutputFile file(path.c_str(), headers.data(), int(headers.size()));
  for (size_t p = 0; p < headers.size(); ++p) {
    if (!headers[p].hasTileDescription()) {
      Imf::OutputPart part(file, int(p));
      part.setFrameBuffer(buffer);
      part.writePixels(height);
      continue;
    }
    Imf::TiledOutputPart part(file, int(p));
    part.setFrameBuffer(buffer);
    for (int ly = 0; ly < part.numYLevels(); ++ly)
      for (int lx = 0; lx < part.numXLevels(); ++lx)
        if (part.isValidLevel(lx, ly))
          part.writeTiles(0, part.numXTiles(lx) - 1, 0, part.numYTiles(ly) - 1, lx, ly);
  }
}

Imf::Header scanLines(Imf::Compression compression) {
  Imf::Header header(37, 23);
  header.compression() = compression;
  return header;
}

Imf::Header tiles(int x, int y, Imf::LevelMode mode, Imf::LevelRoundingMode rounding) {
  Imf::Header header(37, 23);
  header.setTileDescription(Imf::TileDescription(x, y, mode, rounding));
  return header;
}

template <typename T>
void poke(std::string& bytes, size_t at, T value) {
  std::memcpy(&bytes[at], &value, sizeof value);
}

// Where the value of the first part's attribute `name` starts.
size_t valueOf(const std::string& exr, const std::string& name) {
  const size_t at = exr.find(name + '\0');
  return exr.find('\0', at + name.size() + 1) + 1 + 4;
}

// Where the first header ends: past its last value and the empty name.
size_t headerEnd(const std::string& exr) {
  size_t at = 8;
  while (exr[at] != '\0') {
    at = exr.find('\0', exr.find('\0', at) + 1) + 1;
    int32_t size = 0;
    std::memcpy(&size, &exr[at], 4);
    at += 4 + size_t(size);
  }
  return at + 1;
}

class HostileExr : public testing::Test {
 protected:
  static void SetUpTestSuite() { quietStartup(); }
  void SetUp() override { folder = scratchFolder("hostile-exr-" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name())); }
  std::string write(const std::string& name, const std::string& bytes) {
    const std::string path = folder + "/" + name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  // Whether a texture loads from the file, and what the load printed.
  bool loads(const std::string& path, std::string& said) {
    const int image = qzAddImage();
    qzSetImageName(image, path.c_str());
    said = captureOutput([&] { qzLoadImage(image); });
    return images[image].loaded;
  }
  std::string folder;
};
}  // namespace

TEST_F(HostileExr, EveryLayoutPassesTheStructureCheckAndLoads) {
  ExrImage ours;
  ours.width = ours.x1 = 16, ours.height = 8, ours.y0 = 2, ours.y1 = 7;
  ours.layers = {{"", std::vector<float>(16 * 8 * 3, 0.5f)}, {"diffuse", std::vector<float>(16 * 8 * 3, 0.25f)}};
  ASSERT_EQ(writeExr(folder + "/ours.exr", ours), "");
  std::vector<std::string> paths{folder + "/ours.exr"};
  const std::pair<const char*, std::vector<Imf::Header>> layouts[] = {
      {"none", {scanLines(Imf::NO_COMPRESSION)}},
      {"piz", {scanLines(Imf::PIZ_COMPRESSION)}},
      {"dwab", {scanLines(Imf::DWAB_COMPRESSION)}},
      {"tiled", {tiles(8, 8, Imf::ONE_LEVEL, Imf::ROUND_DOWN)}},
      {"mipmap", {tiles(8, 4, Imf::MIPMAP_LEVELS, Imf::ROUND_DOWN)}},
      {"ripmap", {tiles(5, 7, Imf::RIPMAP_LEVELS, Imf::ROUND_UP)}},
      {"parts", {scanLines(Imf::PIZ_COMPRESSION), tiles(16, 16, Imf::MIPMAP_LEVELS, Imf::ROUND_UP)}}};
  for (const auto& [name, headers] : layouts) {
    paths.push_back(folder + "/" + name + ".exr");
    writeParts(paths.back(), headers);
  }
  for (const std::string& path : paths) {
    SCOPED_TRACE(path);
    EXPECT_TRUE(soundOpenExrFile(path));
    ExrImage read;
    EXPECT_EQ(readExr(path, read), "");
    std::string said;
    EXPECT_TRUE(loads(path, said)) << said;
  }
}

TEST_F(HostileExr, DamagedStructuresAreRefusedBeforeAnyDecoder) {
  ExrImage small;
  small.width = small.x1 = 8, small.height = small.y1 = 40;
  small.layers = {{"", std::vector<float>(8 * 40 * 3, 0.5f)}};
  ASSERT_EQ(writeExr(folder + "/good.exr", small), "");
  const std::string good = readFile(folder + "/good.exr");
  writeParts(folder + "/tiled.exr", {tiles(8, 8, Imf::ONE_LEVEL, Imf::ROUND_DOWN)});
  const std::string tiled = readFile(folder + "/tiled.exr");
  writeParts(folder + "/parts.exr", {scanLines(Imf::ZIP_COMPRESSION), scanLines(Imf::NO_COMPRESSION)});
  const std::string parts = readFile(folder + "/parts.exr");
  // Three ZIP chunks of 16 lines; the first offset follows the header.
  const size_t table = headerEnd(good), firstChunk = table + 3 * 8;
  std::vector<std::pair<std::string, std::string>> damaged;
  auto edit = [&](const std::string& name, std::string bytes, auto change) {
    change(bytes);
    damaged.emplace_back(name, bytes);
  };
  // Headers cut short: the image decoder waits on these for ever.
  for (size_t cut : {size_t(4), size_t(20), size_t(100), table - 1}) damaged.emplace_back("cut", good.substr(0, cut));
  damaged.emplace_back("cut table", good.substr(0, table + 12));
  edit("size past the end", good, [&](std::string& b) { poke<int32_t>(b, valueOf(b, "pixelAspectRatio") - 4, 1 << 30); });
  edit("no compression", good, [&](std::string& b) { b[b.find("compression") + 10] = 'm'; });
  edit("unknown compression", good, [&](std::string& b) { b[valueOf(b, "compression")] = char(200); });
  edit("huge window", good, [&](std::string& b) { poke<int32_t>(b, valueOf(b, "dataWindow") + 12, 1 << 30); });
  edit("inverted window", good, [&](std::string& b) { poke<int32_t>(b, valueOf(b, "dataWindow") + 8, -5); });
  edit("zero sampling", good, [&](std::string& b) { poke<int32_t>(b, valueOf(b, "channels") + 2 + 8, 0); });
  edit("zero offset", good, [&](std::string& b) { poke<uint64_t>(b, table + 8, 0); });
  edit("offset past the end", good, [&](std::string& b) { poke<uint64_t>(b, table, uint64_t(1) << 40); });
  edit("offset into the header", good, [&](std::string& b) { poke<uint64_t>(b, table, 8); });
  edit("chunk of another line", good, [&](std::string& b) { poke<int32_t>(b, firstChunk, 5); });
  edit("chunk past the end", good, [&](std::string& b) { poke<int32_t>(b, firstChunk + 4, 1 << 30); });
  // A million one-pixel tiles claimed by a file of a few hundred bytes.
  edit("tiny tiles", tiled, [&](std::string& b) {
    poke<uint32_t>(b, valueOf(b, "tiles"), 1);
    poke<uint32_t>(b, valueOf(b, "tiles") + 4, 1);
    poke<int32_t>(b, valueOf(b, "dataWindow") + 8, 1023);
    poke<int32_t>(b, valueOf(b, "dataWindow") + 12, 1023);
  });
  edit("unknown level mode", tiled, [&](std::string& b) { b[valueOf(b, "tiles") + 8] = 7; });
  edit("tile outside the level", tiled, [&](std::string& b) { poke<int32_t>(b, headerEnd(b) + 15 * 8, 99); });
  edit("chunk count", parts, [&](std::string& b) { poke<int32_t>(b, valueOf(b, "chunkCount"), 4); });
  for (const auto& [name, bytes] : damaged) {
    SCOPED_TRACE(name);
    const std::string path = write("damaged.exr", bytes);
    EXPECT_FALSE(soundOpenExrFile(path));
    ExrImage read;
    EXPECT_EQ(readExr(path, read), "its headers or chunk table are damaged");
    std::string said;
    EXPECT_FALSE(loads(path, said));
    EXPECT_EQ(said, "error :( image - " + path + "\tcannot be read\n");
  }
}

namespace {
// A closed white box around a point light, faces inward, with the final
// gather on: every photon lands on a patch at each of its 255 bounces.
void photonsInAClosedBox() {
  const float corners[] = {-1, -1, -1, 1, -1, -1, 1, 1, -1, -1, 1, -1, -1, -1, 1, 1, -1, 1, 1, 1, 1, -1, 1, 1};
  const unsigned faces[] = {0, 1, 2, 3, 4, 7, 6, 5, 0, 4, 5, 1, 1, 5, 6, 2, 2, 6, 7, 3, 3, 7, 4, 0};
  const int box = qzAddObject();
  qzAddVertexData(box, 3, "position", 8, 3, corners);
  qzAddPrimitives(box, kindTetragon, 6, faces);
  const int light = qzAddPointLight();
  qzSetPointLightPhoton(light, 1000000);
  qzSetRendererPhotonDepth(255);
  qzSetRendererResolution(0.5f);
  const int camera = qzAddCamera();
  qzSetCameraResolution(camera, 8, 8);
  qzSetCameraSample(camera, 1);
}

size_t addressSpaceBytes() {
  std::ifstream status("/proc/self/status");
  std::string key;
  for (size_t kilobytes = 0; status >> key;)
    if (key == "VmSize:" && status >> kilobytes) return kilobytes * 1024;
  return 0;
}

// Held to the address space it has, and 2 MB more, the process casts: the
// batch that the first block of photons fills cannot grow, and the exception
// must not leave the casting loop, which would end the process. Exits with 0,
// or 1 without the message, 2 with nothing rendered.
[[noreturn]] void castHeldToTheAddressSpaceItHas() {
  quietStartup();
  photonsInAClosedBox();
  const rlimit limit{addressSpaceBytes() + (2 << 20), RLIM_INFINITY};
  setrlimit(RLIMIT_AS, &limit);
  const std::string out = captureOutput([] {
    qzInitialize();
    qzRender();
  });
  const bool said = has(out, "error :( qzInitialize() - out of memory\n");
  _exit(said ? (cameras[0].aovs[0].image.floats.empty() ? 2 : 0) : 1);
}
}  // namespace

TEST(HostileScene, AnAllocationThatFailsInsideAParallelLoopEndsItsStepWithTheMessage) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the address sanitizer ends the process on a failed allocation";
#endif
  // A fresh process: the thread pool does not survive a plain fork.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(castHeldToTheAddressSpaceItHas(), testing::ExitedWithCode(0), "");
}
