#include "tests/test_util.h"

#include <cstdlib>

#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <vector>

#include <unistd.h>

#include "qz.h"

std::string captureOutput(const std::function<void()>& body) {
  std::cout.flush();
  testing::internal::CaptureStdout();
  body();
  std::cout.flush();
  return testing::internal::GetCapturedStdout();
}

namespace {
// Folders made by this process, removed when it ends so /tmp does not fill up.
struct ScratchFolders {
  std::vector<std::filesystem::path> paths;
  ~ScratchFolders() {
    std::error_code error;
    for (const auto& path : paths) std::filesystem::remove_all(path, error);
  }
} scratchFolders;
}  // namespace

std::string scratchFolder(const std::string& name) {
  // The process id keeps parallel test runs out of each other's folders.
  auto path = std::filesystem::temp_directory_path() / ("quazel-test-" + std::to_string(getpid()) + "-" + name);
  std::filesystem::remove_all(path);
  std::filesystem::create_directories(path);
  scratchFolders.paths.push_back(path);
  return path.string();
}

void quietStartup() {
  captureOutput([] { qzStartup(); });
  // The known-answer suites run a second time in the sobol sampler (tests/CMakeLists.txt).
  const char* sampler = std::getenv("QZ_TEST_SAMPLER");
  if (sampler && std::string(sampler) == "sobol") {
    qzSetRendererSampler(1);
    qzSetRendererSeed(20261123);
  }
}

void expectColorNear(Color3f c, Color3f expected, float tolerance) {
  EXPECT_NEAR(c.r, expected.r, tolerance);
  EXPECT_NEAR(c.g, expected.g, tolerance);
  EXPECT_NEAR(c.b, expected.b, tolerance);
}

size_t occurrences(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

Image colourImage(int width, int height, const std::function<Color3f(float u, float v)>& color) {
  Image image;
  allocateImage(image, width, height, 3, 32, 0);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      writePixel(image, color((float(x) + 0.5f) / float(width), (float(y) + 0.5f) / float(height)),
                 int64_t(y) * width + x);
  return image;
}

void expectVecNear(Vec3f v, Vec3f expected, float tolerance) {
  EXPECT_NEAR(v.x, expected.x, tolerance);
  EXPECT_NEAR(v.y, expected.y, tolerance);
  EXPECT_NEAR(v.z, expected.z, tolerance);
}
