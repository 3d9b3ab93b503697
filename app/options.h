// The command line of quazel: a render of a scene directory, or the merge of tiles.
#pragma once

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
  std::string camera, sky;             // a model file's camera and environment image
};

struct MergeOptions {
  std::string output;
  std::vector<std::string> tiles;
};

struct CommandLine {
  enum Kind { render, merge, import, help } kind = render;
  RenderOptions render_options;  // also those of import: the model and -o
  MergeOptions merge_options;
  std::string error;  // one line; set when the arguments cannot be used
};

extern const char* const usageText;

// Reads the arguments after the program name. Values are checked here as far
// as they can be without the scene; the rest waits for the scene to load.
CommandLine parseCommandLine(const std::vector<std::string>& arguments);
