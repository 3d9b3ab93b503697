// Image files as a scene's textures meet them: the first byte picks the file
// name's extension (which decides the flip of Radiance files and nothing
// else: the decoder goes by content), the rest is the file, and the load runs
// the checks and the contained decoder.
#include <cstdint>

#include "fuzz/fuzz_util.h"
#include "qz.h"
#include "shading/image.h"
#include "shading/image_decode.h"

namespace {
const char* const extensions[] = {".hdr", ".exr", ".png", ".tif", ".tga", ".jpg", ".bmp", ".pfm",
                                  ".psd", ".gif", ".ppm", ".sgi", ".ras", ".dds", ".ico", ".xpm"};
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  muteReport();
  // A decoder that hangs is given up well inside the fuzzer's own limit.
  imageDecodeSeconds = 3;
  qzStartup();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string path = scratchFolder() + "/texture" + extensions[data[0] % std::size(extensions)];
  writeFile(path, data + 1, size - 1);
  images.clear();
  const int image = qzAddImage();
  qzSetImageName(image, path.c_str());
  if (qzLoadImage(image) && images[image].loaded) {
    // Every pixel of what was taken over is readable, and a lookup on it works.
    Color3f mean, variance;
    imageStatistics(images[image], mean, variance);
  }
  freeImages();
  return 0;
}
