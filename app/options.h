// The command line of quazel: a render of a scene directory, or the merge of tiles.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "app/tiling.h"

struct RenderOptions {
  bool preview = false;
  std::string scene;   // empty: the bundled example
  std::string output;  // empty: the working directory
  bool has_region = false;
  PixelRect region;
  int tile_index = 0, tile_count = 0;  // 0 of 0: not a tile
  int samples = 0;                     // 0: the camera's own
  int width = 0, height = 0;           // 0: the camera's own
  std::string sampler;                 // empty: the scene's own
  bool has_seed = false;
  uint32_t seed = 0;
  double noise_threshold = -1;  // below 0: the scene's own
  double time_limit = 0;        // seconds; 0: none
};

struct MergeOptions {
  std::string output;
  std::vector<std::string> tiles;
};

struct CommandLine {
  enum Kind { render, merge, help } kind = render;
  RenderOptions render_options;
  MergeOptions merge_options;
  std::string error;  // one line; set when the arguments cannot be used
};

extern const char* const usageText;

// Reads the arguments after the program name. Values are checked here as far
// as they can be without the scene; the rest waits for the scene to load.
CommandLine parseCommandLine(const std::vector<std::string>& arguments);
