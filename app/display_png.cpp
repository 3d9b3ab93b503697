#include "app/display_png.h"

#include <FreeImage.h>

#include <algorithm>
#include <cmath>

bool isFloatImage(const std::string& name) {
  return name.ends_with(".hdr") || name.ends_with(".pfm") || name.ends_with(".exr");
}

std::string writeDisplayPng(const std::string& path, float gamma) {
  FreeImage_Initialise(FALSE);
  std::string result;
  FIBITMAP* source = FreeImage_Load(FreeImage_GetFileType(path.c_str(), 0), path.c_str(), 0);
  FIBITMAP* rgb = source ? FreeImage_ConvertToRGBF(source) : nullptr;
  const unsigned width = rgb ? FreeImage_GetWidth(rgb) : 0, height = rgb ? FreeImage_GetHeight(rgb) : 0;
  FIBITMAP* png = rgb ? FreeImage_Allocate(int(width), int(height), 24) : nullptr;
  if (png) {
    for (unsigned y = 0; y < height; ++y) {
      const FIRGBF* in = reinterpret_cast<const FIRGBF*>(FreeImage_GetScanLine(rgb, int(y)));
      BYTE* out = FreeImage_GetScanLine(png, int(y));
      auto toByte = [gamma](float v) {
        return BYTE(std::clamp(std::pow(std::max(v, 0.0f), 1 / gamma), 0.0f, 1.0f) * 255 + 0.5f);
      };
      for (unsigned x = 0; x < width; ++x) {
        out[x * 3 + FI_RGBA_RED] = toByte(in[x].red);
        out[x * 3 + FI_RGBA_GREEN] = toByte(in[x].green);
        out[x * 3 + FI_RGBA_BLUE] = toByte(in[x].blue);
      }
    }
    const std::string target = path.substr(0, path.rfind('.')) + ".png";
    if (FreeImage_Save(FIF_PNG, png, target.c_str(), 0)) result = target;
  }
  for (FIBITMAP* bitmap : {png, rgb, source})
    if (bitmap) FreeImage_Unload(bitmap);
  FreeImage_DeInitialise();
  return result;
}
