#include "app/merge_exr.h"

#include <algorithm>
#include <cstring>

#include "output/exr_file.h"

namespace {
std::vector<std::string> layerNames(const ExrImage& image) {
  std::vector<std::string> names;
  for (const ExrLayer& layer : image.layers) names.push_back(layer.name);
  std::sort(names.begin(), names.end());
  return names;
}
}  // namespace

std::string checkExrTile(const std::string& path, const std::string& first, int width, int height) {
  ExrImage image, reference;
  std::string problem = readExr(path, image, false);
  if (!problem.empty()) return path + " cannot be read: " + problem;
  if (image.width != width || image.height != height)
    return path + " is " + std::to_string(image.width) + "x" + std::to_string(image.height) + ", but the frame is " +
           std::to_string(width) + "x" + std::to_string(height);
  problem = readExr(first, reference, false);
  if (!problem.empty()) return first + " cannot be read: " + problem;
  if (layerNames(image) != layerNames(reference)) return path + " holds other layers than " + first;
  return "";
}

std::string mergeExrTiles(const std::vector<ExrTile>& tiles, const std::string& target) {
  ExrImage frame;
  std::string problem = readExr(tiles[0].path, frame);
  if (!problem.empty()) return tiles[0].path + " cannot be read: " + problem;
  for (size_t t = 1; t < tiles.size(); ++t) {
    ExrImage part;
    problem = readExr(tiles[t].path, part);
    if (!problem.empty()) return tiles[t].path + " cannot be read: " + problem;
    if (part.width != frame.width || part.height != frame.height || layerNames(part) != layerNames(frame))
      return tiles[t].path + " does not fit " + tiles[0].path;
    const PixelRect& p = tiles[t].pixels;
    for (ExrLayer& layer : frame.layers) {
      const ExrLayer& from = *std::find_if(part.layers.begin(), part.layers.end(),
                                           [&](const ExrLayer& l) { return l.name == layer.name; });
      for (int y = std::max(p.y0, 0); y < std::min(p.y1, frame.height); ++y) {
        const size_t at = (size_t(y) * size_t(frame.width) + size_t(std::max(p.x0, 0))) * 3;
        const size_t count = size_t(std::max(std::min(p.x1, frame.width) - std::max(p.x0, 0), 0)) * 3;
        std::memcpy(&layer.rgb[at], &from.rgb[at], count * sizeof(float));
      }
    }
    frame.x0 = std::min(frame.x0, part.x0), frame.y0 = std::min(frame.y0, part.y0);
    frame.x1 = std::max(frame.x1, part.x1), frame.y1 = std::max(frame.y1, part.y1);
    frame.info.render_seconds += std::max(part.info.render_seconds, 0.0f);
  }
  frame.info.tile_index = frame.info.tile_count = 0;
  problem = writeExr(target, frame);
  return problem.empty() ? "" : target + " cannot be written: " + problem;
}
