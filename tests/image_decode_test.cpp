// Broken image files made here, byte by byte: each load ends with the error
// line, the record stays empty and the process goes on, also through a render.
#include "shading/image_decode.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "output/camera.h"
#include "qz.h"
#include "tests/command_fixture.h"
#include "tests/scene_writer.h"

namespace {

class ImageDecode : public testing::Test {
 protected:
  static void SetUpTestSuite() { quietStartup(); }
  void SetUp() override {
    images.clear();
    imageSearchPaths.assign(1, std::string());
    const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    folder = scratchFolder("image-decode-" + name);
  }
  void TearDown() override { imageDecodeSeconds = 30; }

  std::string write(const std::string& name, const std::string& bytes) {
    const std::string path = folder + "/" + name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }
  // A small valid file of the given extension, as this library saves it.
  std::string saved(const std::string& name) {
    const int image = qzAddImage();
    const std::string path = folder + "/" + name;
    qzSetImageName(image, path.c_str());
    qzCreateImage(image, 8, 8);
    for (int y = 0; y < 8; ++y)
      for (int x = 0; x < 8; ++x) qzSetImageColor(image, x, y, x / 8.0f, y / 8.0f, 0.5f);
    qzSaveImage(image);
    return readFile(path);
  }
  // Loads the file and expects exactly the refusal.
  void expectRefused(const std::string& path) {
    SCOPED_TRACE(path);
    const int image = qzAddImage();
    qzSetImageName(image, path.c_str());
    bool found = false;
    const std::string text = captureOutput([&] { found = qzLoadImage(image); });
    EXPECT_TRUE(found);
    EXPECT_EQ(text, "error :( image - " + path + "\tcannot be read\n");
    EXPECT_EQ(images[image].loaded, 0);
    EXPECT_EQ(imageMemory(images[image]), 0);
  }
  std::string folder;
};

template <typename T>
std::string bytesOf(T value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

uint32_t crc32(const std::string& bytes) {
  uint32_t crc = ~0u;
  for (unsigned char c : bytes) {
    crc ^= c;
    for (int k = 0; k < 8; ++k) crc = crc & 1 ? (crc >> 1) ^ 0xedb88320u : crc >> 1;
  }
  return ~crc;
}

uint32_t bigEndian(uint32_t v) { return __builtin_bswap32(v); }

// A PNG of one IHDR, one IDAT of a few bytes and IEND, claiming width x height.
std::string pngClaiming(uint32_t width, uint32_t height) {
  auto chunk = [](const std::string& type, const std::string& data) {
    return bytesOf(bigEndian(uint32_t(data.size()))) + type + data + bytesOf(bigEndian(crc32(type + data)));
  };
  const std::string header = bytesOf(bigEndian(width)) + bytesOf(bigEndian(height)) + std::string("\x08\x02\0\0\0", 5);
  return "\x89PNG\r\n\x1a\n" + chunk("IHDR", header) + chunk("IDAT", std::string("\x78\x9c\x03\0\0\0\0\x01", 8)) +
         chunk("IEND", "");
}

// A little-endian TIFF of one uncompressed grey strip, claiming width x height.
std::string tiffClaiming(uint32_t width, uint32_t height, uint32_t stripOffset) {
  struct Entry {
    uint16_t tag, type;
    uint32_t count, value;
  };
  const Entry entries[] = {{256, 4, 1, width}, {257, 4, 1, height}, {258, 3, 1, 8},
                           {259, 3, 1, 1},     {262, 3, 1, 1},      {273, 4, 1, stripOffset},
                           {277, 3, 1, 1},     {278, 4, 1, height}, {279, 4, 1, 16}};
  std::string file = std::string("II*\0", 4) + bytesOf(uint32_t(8)) + bytesOf(uint16_t(std::size(entries)));
  for (const Entry& e : entries) file += bytesOf(e);
  return file + bytesOf(uint32_t(0)) + std::string(16, '\x7f');
}

// A 23-byte targa that claims 22560 x 19792 pixels.
std::string hugeTarga() {
  std::string tga(18, '\0');
  tga[2] = 2;
  std::memcpy(&tga[12], "\x20\x58\x50\x4d", 4);
  tga[16] = 32;
  return tga + "\x01\x02\x03\x04\x05";
}

const std::string radianceStart = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n";

}  // namespace

TEST_F(ImageDecode, RadianceResolutionLinesAreCheckedFirst) {
  const std::string pixels(3 * 8 * 4, '\x40');
  EXPECT_TRUE(soundRadianceHeader(write("good.hdr", radianceStart + "-Y 3 +X 8\n" + pixels)));
  EXPECT_TRUE(soundRadianceHeader(write("crlf.hdr", "#?RGBE\r\n\r\n-Y 3 +X 8\r\n" + pixels)));
  const std::string refused[] = {"-Y 8888888888888888881 +X 3\n",
                                 "-Y -3 +X 8\n",
                                 "-Y 3 +X -8\n",
                                 "-Y 0 +X 8\n",
                                 "+Y 3 +X 8\n",
                                 "-Y 3 -X 8\n",
                                 "-Y 3 +X 8 junk\n",
                                 "-Y 3\n",
                                 "-Y 9999999 +X 9999999\n",
                                 "",
                                 "-Y 3 +X 99999999\n"};
  for (const std::string& line : refused) {
    SCOPED_TRACE(line);
    EXPECT_FALSE(soundRadianceHeader(write("bad.hdr", radianceStart + line + pixels)));
  }
  EXPECT_FALSE(soundRadianceHeader(write("unsigned.hdr", "FORMAT=32-bit_rle_rgbe\n\n-Y 3 +X 8\n" + pixels)));
  EXPECT_FALSE(soundRadianceHeader(write("endless.hdr", "#?RADIANCE\n" + std::string(5000, 'x'))));
  EXPECT_FALSE(soundRadianceHeader(folder + "/missing.hdr"));
}

TEST_F(ImageDecode, CorruptFilesOfEveryKindAreRefused) {
  std::vector<std::string> paths;
  // Radiance: sizes that overflow, are negative or that the file cannot hold.
  const std::string hdr = saved("good.hdr");
  const size_t resolution = hdr.find("-Y");
  ASSERT_NE(resolution, std::string::npos);
  const std::string body = hdr.substr(hdr.find('\n', resolution) + 1);
  for (const char* line : {"-Y 8888888888888888881 +X 3\n", "-Y -3 +X 8\n", "-Y 60000 +X 60000\n"})
    paths.push_back(write("bad" + std::to_string(paths.size()) + ".hdr", hdr.substr(0, resolution) + line + body));
  // OpenEXR: cut short, and a data window far larger than the file.
  const std::string exr = saved("good.exr");
  paths.push_back(write("cut.exr", exr.substr(0, exr.size() / 3)));
  const size_t window = exr.find("dataWindow");
  ASSERT_NE(window, std::string::npos);
  std::string huge = exr;
  // Name, type "box2i", size, then xMin yMin xMax yMax.
  const size_t box = window + std::strlen("dataWindow") + 1 + std::strlen("box2i") + 1 + 4;
  std::memcpy(&huge[box + 8], "\xff\xff\xff\x3f\xff\xff\xff\x3f", 8);
  paths.push_back(write("huge.exr", huge));
  // Not an image at all, and a PNG cut in half.
  paths.push_back(write("garbage.png", "this is not an image at all\x01\x02\x03"));
  const std::string png = saved("good.png");
  paths.push_back(write("half.png", png.substr(0, png.size() / 2)));
  // PNG and TIFF headers that claim ten thousand megapixels.
  paths.push_back(write("huge.png", pngClaiming(100000, 100000)));
  paths.push_back(write("huge.tif", tiffClaiming(100000, 100000, 8)));
  paths.push_back(write("huge.tga", hugeTarga()));
  for (const std::string& path : paths) expectRefused(path);
  // The library is whole: a good file still loads.
  const int good = qzAddImage();
  const std::string path = folder + "/good.exr";
  qzSetImageName(good, path.c_str());
  ASSERT_TRUE(qzLoadImage(good));
  EXPECT_EQ(images[good].width, 8);
}

TEST_F(ImageDecode, OpenExrCutAnywhereNeverHangs) {
  const std::string exr = saved("good.exr");
  const size_t headerEnd = exr.find(std::string("\0\0", 2), exr.find("screenWindowWidth"));
  ASSERT_NE(headerEnd, std::string::npos);
  // Cut inside the header: refused before the decoder sees it.
  for (size_t cut = 0; cut < headerEnd; cut += 13)
    expectRefused(write("cut" + std::to_string(cut) + ".exr", exr.substr(0, cut)));
  // Cut in the offsets or the pixels: read in part or refused, within the time
  // limit.
  imageDecodeSeconds = 5;
  for (size_t cut = headerEnd + 1; cut < exr.size(); cut += exr.size() / 5) {
    SCOPED_TRACE(cut);
    const int image = qzAddImage();
    const std::string path = write("tail" + std::to_string(cut) + ".exr", exr.substr(0, cut));
    qzSetImageName(image, path.c_str());
    const std::string text = captureOutput([&] { qzLoadImage(image); });
    if (images[image].loaded)
      EXPECT_EQ(images[image].width, 8);
    else
      EXPECT_EQ(text, "error :( image - " + path + "\tcannot be read\n");
  }
}

namespace {
bool crashes(Image&, const std::string&) {
  std::raise(SIGSEGV);
  return true;
}
bool aborts(Image&, const std::string&) { std::abort(); }
bool hangs(Image&, const std::string&) {
  for (;;) pause();
}
bool exits(Image&, const std::string&) { _exit(0); }
// Every layout the module stores, with a pattern that shows any shift.
bool makesPixels(Image& image, const std::string& path) {
  const int depth = path == "8" ? 8 : path == "16" ? 16 : 32;
  const int channels = path == "8" ? 3 : path == "16" ? 4 : 1;
  allocateImage(image, 7, 5, channels, depth, path == "shared");
  size_t size = 0;
  uint8_t* pixels = pixelBytes(image, size);
  for (size_t i = 0; i < size; ++i) pixels[i] = uint8_t(i * 7 + 3);
  image.loaded = 1;
  return true;
}
bool unsupported(Image&, const std::string&) { return true; }
}  // namespace

TEST_F(ImageDecode, DecoderCrashesAndHangsCostOneFile) {
  imageDecodeSeconds = 0.5;
  for (auto decode : {crashes, aborts, hangs, exits}) {
    Image image;
    image.name = "kept";
    EXPECT_FALSE(decodeContained(image, "any", decode));
    EXPECT_EQ(image.name, "kept");
    EXPECT_EQ(image.loaded, 0);
    EXPECT_EQ(imageMemory(image), 0);
  }
  // A file that reads but converts to nothing is readable and stays unloaded.
  Image image;
  EXPECT_TRUE(decodeContained(image, "any", unsupported));
  EXPECT_EQ(image.loaded, 0);
}

TEST_F(ImageDecode, PixelsComeBackExactlyInEveryLayout) {
  for (const char* layout : {"8", "16", "32", "shared"}) {
    SCOPED_TRACE(layout);
    Image expected, image;
    makesPixels(expected, layout);
    image.name = "texture.png";
    ASSERT_TRUE(decodeContained(image, layout, makesPixels));
    EXPECT_EQ(std::tuple(image.loaded, image.name, image.width, image.height, image.channels, image.depth),
              std::tuple(1, "texture.png", 7, 5, expected.channels, expected.depth));
    EXPECT_EQ(image.sharedExponent, expected.sharedExponent);
    size_t size = 0, expectedSize = 0;
    const uint8_t* pixels = pixelBytes(image, size);
    const uint8_t* expectedPixels = pixelBytes(expected, expectedSize);
    ASSERT_EQ(size, expectedSize);
    EXPECT_EQ(std::memcmp(pixels, expectedPixels, size), 0);
  }
}

TEST_F(ImageDecode, SizesNoMachineHoldsAreRefused) {
  const int image = qzAddImage();
  qzSetImageName(image, "huge.exr");
  const std::string text = captureOutput([&] { qzCreateImage(image, 2000000000, 2000000000); });
  EXPECT_EQ(text, "error :( image - huge.exr\tcannot be allocated\n" + std::string(80, '_') + "\n\n");
  EXPECT_EQ(images[image].width, 0);
  EXPECT_EQ(imageMemory(images[image]), 0);
  EXPECT_EQ(images[image].loaded, 1);
  // Nothing to save, nothing read or written outside the record.
  qzSetImageColor(image, 5, 5, 1, 1, 1);
  float r = 1, g = 1, b = 1;
  qzGetImageColor(image, 5, 5, r, g, b);
  EXPECT_EQ(r + g + b, 0.0f);
}

TEST_F(ImageDecode, ARenderGoesOnWithoutItsBrokenTextures) {
  const std::string scene = folder + "/scene/";
  writeSceneFile(scene + "image", "broken.tga", hugeTarga());
  writeSceneFile(scene + "image", "broken.hdr", radianceStart + "-Y -3 +X 8\n" + std::string(96, '\x40'));
  writeSceneFile(scene + "shader", "shaders.qz",
                 "shader\nname \"undefined\"\ndiffuse\ncolor 0.5 0.5 "
                 "0.5\nimage \"broken.tga\"\nend\nend\nend\n");
  writeSceneFile(scene + "light", "lights.qz",
                 "sky_light\ncolor 1 1 1\nimage \"broken.hdr\"\nend\n"
                 "point_light\nposition 0 0 4\ncolor 20 20 20\nend\n");
  writeSceneFile(scene + "geometry", "plane.obj", "v -9 -9 0\nv 9 -9 0\nv 9 9 0\nv -9 9 0\nf 1 2 3 4\n");
  writeSceneFile(scene + "geometry", "plane.qz", "object\nobj \"plane.obj\"\nend\n");
  const std::string output = folder + "/beauty.pfm";
  writeSceneFile(
      scene + "camera", "camera.qz",
      stillCamera("resolution 8 8\nsample 1\naov\nimage \"" + output + "\"\ntype \"diffuse\"\nend\n", "0 0 5"));
  // The beauty of every camera lands in the working folder.
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(folder);
  const std::string text = captureOutput([&] { qzGo(scene.c_str()); });
  std::filesystem::current_path(before);
  for (const char* name : {"broken.tga", "broken.hdr"})
    EXPECT_NE(text.find(std::string("error :( image - ") + name + "\tcannot be read\n"), std::string::npos) << text;
  // The plane was rendered with its colour and written out.
  quietStartup();
  const int beauty = qzAddImage();
  qzSetImageName(beauty, output.c_str());
  ASSERT_TRUE(qzLoadImage(beauty));
  ASSERT_EQ(images[beauty].width, 8);
  float r = 0, g = 0, b = 0;
  qzGetImageColor(beauty, 4, 4, r, g, b);
  EXPECT_GT(r, 0.05f);
}
