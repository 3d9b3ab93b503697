#include <gtest/gtest.h>

#include <FreeImage.h>

#include <filesystem>

#include "qz.h"
#include "shading/image.h"
#include "tests/test_util.h"

namespace {
class Images : public testing::Test {
 protected:
  static void SetUpTestSuite() { quietStartup(); }
  void SetUp() override {
    images.clear();
    imageSearchPaths.assign(1, std::string());
    folder = scratchFolder("images");
  }
  std::string folder;
};

Color3f colorAt(int image, int x, int y) {
  Color3f c;
  qzGetImageColor(image, x, y, c.r, c.g, c.b);
  return c;
}

// Distinct, exactly representable colours for a 4 by 3 image.
Color3f pattern(int x, int y) { return {x * 0.25f + 0.125f, y * 0.25f + 0.25f, (x + y) * 0.0625f + 0.5f}; }

int savedPattern(const std::string& name) {
  int image = qzAddImage();
  qzSetImageName(image, name.c_str());
  qzCreateImage(image, 4, 3);
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 4; ++x) {
      Color3f c = pattern(x, y);
      qzSetImageColor(image, x, y, c.r, c.g, c.b);
    }
  EXPECT_TRUE(qzSaveImage(image));
  return image;
}

}  // namespace

TEST_F(Images, RoundTripsKeepPixelsInTheirRowOrder) {
  struct Case {
    const char* extension;
    bool upsideDown;
    float tolerance;
  };
  // Framebuffer row 0 is the top, texture row 0 the bottom: only .hdr (flipped both ways)
  // and .pfm (flipped neither way) come back as they went out.
  for (Case c : {Case{".hdr", false, 0.01f}, Case{".pfm", false, 0}, Case{".exr", true, 0.01f},
                 Case{".png", true, 1.0f / 255}, Case{".tif", true, 1.0f / 255}}) {
    SCOPED_TRACE(c.extension);
    const std::string name = folder + "/pattern" + c.extension;
    savedPattern(name);
    ASSERT_TRUE(std::filesystem::exists(name));
    int loaded = qzAddImage();
    qzSetImageName(loaded, name.c_str());
    ASSERT_TRUE(qzLoadImage(loaded));
    ASSERT_EQ(images[loaded].loaded, 1);
    ASSERT_EQ(images[loaded].width, 4);
    ASSERT_EQ(images[loaded].height, 3);
    for (int y = 0; y < 3; ++y)
      for (int x = 0; x < 4; ++x) expectColorNear(colorAt(loaded, x, y), pattern(x, c.upsideDown ? 2 - y : y), c.tolerance);
  }
}

TEST_F(Images, FloatRgbFilesArePackedWithASharedExponent) {
  savedPattern(folder + "/packed.hdr");
  int loaded = qzAddImage();
  qzSetImageName(loaded, (folder + "/packed.hdr").c_str());
  ASSERT_TRUE(qzLoadImage(loaded));
  const Image& image = images[loaded];
  EXPECT_EQ(image.sharedExponent, 1);
  EXPECT_EQ(image.shared.size(), 4u * 12);
  EXPECT_TRUE(image.floats.empty());
  // An exponent byte of 0 means black, whatever the other bytes hold.
  Image copy = image;
  copy.shared[0] = copy.shared[1] = copy.shared[2] = 200;
  copy.shared[3] = 0;
  EXPECT_EQ(readPixel(copy, 0), black);
}

TEST_F(Images, SixteenBitWhiteReadsAs257) {
  const std::string name = folder + "/white16.png";
  FIBITMAP* bitmap = FreeImage_AllocateT(FIT_RGB16, 2, 2);
  for (int y = 0; y < 2; ++y) {
    FIRGB16* line = reinterpret_cast<FIRGB16*>(FreeImage_GetScanLine(bitmap, y));
    for (int x = 0; x < 2; ++x) line[x] = FIRGB16{65535, 65535, 65535};
  }
  ASSERT_TRUE(FreeImage_Save(FIF_PNG, bitmap, name.c_str(), 0));
  FreeImage_Unload(bitmap);
  int image = qzAddImage();
  qzSetImageName(image, name.c_str());
  ASSERT_TRUE(qzLoadImage(image));
  EXPECT_EQ(images[image].depth, 16);
  expectColorNear(colorAt(image, 1, 1), {257, 257, 257}, 1e-3f);
}

TEST_F(Images, SearchPathsAreTriedInOrderAndAMissingFileIsReported) {
  std::filesystem::create_directories(folder + "/textures");
  savedPattern(folder + "/textures/found.pfm");
  addImageSearchPath(folder + "/nothing");
  addImageSearchPath(folder + "/textures");
  addImageSearchPath(folder + "/textures");
  EXPECT_EQ(imageSearchPaths.size(), 3u);
  int image = qzAddImage();
  qzSetImageName(image, "found.pfm");
  EXPECT_TRUE(qzLoadImage(image));
  expectColorNear(colorAt(image, 3, 2), pattern(3, 2), 0);
  EXPECT_EQ(findOrAddImage("found.pfm"), image);
  EXPECT_EQ(findOrAddImage(""), -1);
  EXPECT_EQ(findOrAddImage("other.png"), image + 1);

  qzSetImageName(image + 1, "nowhere.png");
  bool result = true;
  std::string text = captureOutput([&] { result = qzLoadImage(image + 1); });
  EXPECT_FALSE(result);
  EXPECT_EQ(text, "error :( image - nowhere.png\tcannot be found\n" + std::string(80, '_') + "\n\n");
  EXPECT_EQ(images[image + 1].loaded, 0);
}

TEST_F(Images, NamesWithTwoExtensionsSaveTwice) {
  savedPattern(folder + "/both.hdr.png");
  EXPECT_TRUE(std::filesystem::exists(folder + "/both.hdr.png"));
  int image = qzAddImage();
  EXPECT_FALSE(qzSaveImage(image));  // no name, no save
  qzSetImageName(image, (folder + "/unknown.xyz").c_str());
  qzCreateImage(image, 2, 2);
  EXPECT_TRUE(qzSaveImage(image));
  EXPECT_FALSE(std::filesystem::exists(folder + "/unknown.xyz"));
}

TEST_F(Images, PixelWritesFollowTheirDepth) {
  Image image;
  allocateImage(image, 2, 1, 3, 8, 0);
  writePixel(image, {1.5f, -0.5f, 0.5f}, 0);
  EXPECT_EQ(std::tuple(image.bytes[0], image.bytes[1], image.bytes[2]), std::tuple(255, 0, 127));
  allocateImage(image, 2, 1, 3, 16, 0);
  writePixel(image, {1.0f, 0.5f, 0.0f}, 1);
  EXPECT_EQ(image.words[3], 65535);
  EXPECT_EQ(image.words[4], 32767);
  // Reading scales sixteen bits by 1/255 too.
  EXPECT_NEAR(readPixel(image, 1).r, 257.0f, 1e-3f);
  // Three writes from the last pixel of a one-channel image stop at its end.
  Image grey;
  allocateImage(grey, 2, 2, 1, 32, 0);
  writePixel(grey, {0.25f, 0.5f, 0.75f}, 3);
  EXPECT_EQ(grey.floats.size(), 4u);
  EXPECT_EQ(readPixel(grey, 3), (Color3f{0.25f, 0.25f, 0.25f}));
  // A width of 0 allocates nothing and still marks the image loaded.
  int empty = qzAddImage();
  qzCreateImage(empty, 0, 5);
  EXPECT_EQ(images[empty].loaded, 1);
  EXPECT_TRUE(images[empty].floats.empty());
  // An image of no pixels has black statistics, not NaN.
  Color3f mean{1, 1, 1}, variance;
  imageStatistics(images[empty], mean, variance);
  EXPECT_EQ(mean, black);
}

TEST_F(Images, AddressingWrapsOrClamps) {
  Image image;
  allocateImage(image, 5, 4, 3, 32, 0);
  EXPECT_EQ(addressPixel(image, -1, 0, 0, 0), 4);
  EXPECT_EQ(addressPixel(image, -6, -1, 0, 0), 3 * 5 + 4);
  EXPECT_EQ(addressPixel(image, 7, 9, 0, 0), 1 * 5 + 2);
  EXPECT_EQ(addressPixel(image, -3, 9, 1, 1), 3 * 5);
  EXPECT_EQ(addressPixel(image, 6, 1, 2, 2), 1 * 5 + 6);
}
