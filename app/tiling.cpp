#include "app/tiling.h"

#include <algorithm>
#include <sstream>

const char* const tileRecordName = "quazel-tile.txt";

int64_t area(const PixelRect& r) { return int64_t(std::max(r.x1 - r.x0, 0)) * std::max(r.y1 - r.y0, 0); }

bool overlap(const PixelRect& a, const PixelRect& b) {
  return area(a) > 0 && area(b) > 0 && a.x0 < b.x1 && b.x0 < a.x1 && a.y0 < b.y1 && b.y0 < a.y1;
}

bool inside(const PixelRect& inner, const PixelRect& outer) {
  return inner.x0 >= outer.x0 && inner.y0 >= outer.y0 && inner.x1 <= outer.x1 && inner.y1 <= outer.y1;
}

PixelRect clampToImage(const PixelRect& region, int width, int height) {
  return {std::max(region.x0, 0), std::max(region.y0, 0), std::min(region.x1, width), std::min(region.y1, height)};
}

PixelRect tileBand(const PixelRect& region, int index, int count) {
  const int64_t rows = std::max(region.y1 - region.y0, 0);
  const auto edge = [&](int i) { return region.y0 + int(rows * i / count); };
  return {region.x0, edge(index - 1), region.x1, edge(index)};
}

std::string formatTileRecord(const TileRecord& r) {
  std::ostringstream text;
  text << "tile " << r.index << " of " << r.count << "\n"
       << "frame " << r.width << " " << r.height << "\n"
       << "region " << r.region.x0 << " " << r.region.y0 << " " << r.region.x1 << " " << r.region.y1 << "\n"
       << "pixels " << r.pixels.x0 << " " << r.pixels.y0 << " " << r.pixels.x1 << " " << r.pixels.y1 << "\n";
  return text.str();
}

bool parseTileRecord(const std::string& text, TileRecord& r) {
  std::istringstream in(text);
  std::string tile, of, frame, region, pixels;
  in >> tile >> r.index >> of >> r.count >> frame >> r.width >> r.height >> region >> r.region.x0 >> r.region.y0 >>
      r.region.x1 >> r.region.y1 >> pixels >> r.pixels.x0 >> r.pixels.y0 >> r.pixels.x1 >> r.pixels.y1;
  if (!in || tile != "tile" || of != "of" || frame != "frame" || region != "region" || pixels != "pixels") return false;
  std::string rest;
  if (in >> rest) return false;
  const PixelRect image{0, 0, r.width, r.height};
  return r.count >= 1 && r.index >= 1 && r.index <= r.count && area(r.pixels) > 0 && inside(r.pixels, r.region) &&
         inside(r.region, image);
}
