// Float EXR files: 32-bit float channels, one layer per output, the rendered
// pixels as the data window of the whole frame.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct ExrLayer {
  std::string name;          // empty: the plain R, G, B channels
  std::vector<float> rgb;    // three floats a pixel over the whole frame, row 0 at the top
};

// What a render records of itself in the header.
struct ExrInfo {
  int passes = -1;  // -1: not recorded
  std::string sampler;
  int64_t seed = -1;  // -1: not recorded
  float render_seconds = -1;
  int tile_index = 0, tile_count = 0;  // 0 of 0: not a tile
};

struct ExrImage {
  int width = 0, height = 0;          // the display window
  int x0 = 0, y0 = 0, x1 = 0, y1 = 0;  // the data window, maxima exclusive
  std::vector<ExrLayer> layers;
  ExrInfo info;
};

// Writes every layer as FLOAT channels "<layer>.R", ".G", ".B" (or "R", "G",
// "B" for an unnamed layer). Returns what went wrong, or an empty string.
std::string writeExr(const std::string& path, const ExrImage& image);
// Reads any EXR of RGB layers as floats; pixels outside the data window are 0.
// Without `pixels`, the layers are named and left empty. Returns what went
// wrong, or an empty string; a damaged file is an error, never a crash.
std::string readExr(const std::string& path, ExrImage& image, bool pixels = true);
