#include "app/display_png.h"

#include <FreeImage.h>

#include <algorithm>
#include <cmath>

#include "output/exr_file.h"

namespace {
// Float RGB of the whole image, top row first; false when it cannot be read.
bool readFloats(const std::string& path, int& width, int& height, std::vector<float>& rgb) {
  if (path.ends_with(".exr")) {
    ExrImage exr;
    if (!readExr(path, exr).empty() || exr.layers.empty()) return false;
    const auto beauty = std::find_if(exr.layers.begin(), exr.layers.end(),
                                     [](const ExrLayer& l) { return l.name == "beauty" || l.name.empty(); });
    width = exr.width, height = exr.height;
    rgb = std::move(beauty == exr.layers.end() ? exr.layers[0].rgb : beauty->rgb);
    return true;
  }
  FIBITMAP* source = FreeImage_Load(FreeImage_GetFileType(path.c_str(), 0), path.c_str(), 0);
  FIBITMAP* bitmap = source ? FreeImage_ConvertToRGBF(source) : nullptr;
  if (bitmap) {
    width = int(FreeImage_GetWidth(bitmap)), height = int(FreeImage_GetHeight(bitmap));
    rgb.resize(size_t(width) * size_t(height) * 3);
    // FreeImage keeps the bottom row first.
    for (int y = 0; y < height; ++y) {
      const FIRGBF* in = reinterpret_cast<const FIRGBF*>(FreeImage_GetScanLine(bitmap, height - 1 - y));
      for (int x = 0; x < width; ++x) {
        float* out = &rgb[(size_t(y) * size_t(width) + size_t(x)) * 3];
        out[0] = in[x].red, out[1] = in[x].green, out[2] = in[x].blue;
      }
    }
  }
  for (FIBITMAP* b : {bitmap, source})
    if (b) FreeImage_Unload(b);
  return bitmap;
}
}  // namespace

bool isFloatImage(const std::string& name) {
  return name.ends_with(".hdr") || name.ends_with(".pfm") || name.ends_with(".exr");
}

unsigned char srgbByte(float linear) {
  const float v = std::clamp(linear, 0.0f, 1.0f);  // NaN falls to 0 here too
  const float encoded = v <= 0.0031308f ? 12.92f * v : 1.055f * std::pow(v, 1 / 2.4f) - 0.055f;
  return static_cast<unsigned char>(encoded * 255 + 0.5f);
}

std::string writeDisplayPng(const std::string& path) {
  FreeImage_Initialise(FALSE);
  std::string result;
  int width = 0, height = 0;
  std::vector<float> rgb;
  FIBITMAP* png = readFloats(path, width, height, rgb) ? FreeImage_Allocate(width, height, 24) : nullptr;
  if (png) {
    for (int y = 0; y < height; ++y) {
      BYTE* out = FreeImage_GetScanLine(png, height - 1 - y);
      const float* in = &rgb[size_t(y) * size_t(width) * 3];
      for (int x = 0; x < width; ++x) {
        out[x * 3 + FI_RGBA_RED] = srgbByte(in[x * 3]);
        out[x * 3 + FI_RGBA_GREEN] = srgbByte(in[x * 3 + 1]);
        out[x * 3 + FI_RGBA_BLUE] = srgbByte(in[x * 3 + 2]);
      }
    }
    const std::string target = path.substr(0, path.rfind('.')) + ".png";
    if (FreeImage_Save(FIF_PNG, png, target.c_str(), 0)) result = target;
    FreeImage_Unload(png);
  }
  FreeImage_DeInitialise();
  return result;
}
