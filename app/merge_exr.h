// The merge of a frame's EXR tiles: every layer of every tile, each tile's own
// pixels laid into the first tile's frame, floats copied as they are.
#pragma once

#include <string>
#include <vector>

#include "app/tiling.h"

struct ExrTile {
  std::string path;
  PixelRect pixels;  // the rows this tile rendered
};

// What keeps the tile's file from merging with the first tile's, or an empty
// string. Reads the headers only.
std::string checkExrTile(const std::string& path, const std::string& first, int width, int height);
// Writes the merged file; the data window spans the tiles' and the header keeps
// the first tile's render, less the tile. Returns what went wrong, or an empty string.
std::string mergeExrTiles(const std::vector<ExrTile>& tiles, const std::string& target);
