// Tiles of a frame for a render farm: the camera's region cut into bands of
// whole rows, and the record a tile leaves beside its images.
#pragma once

#include <cstdint>
#include <string>

// Pixels from (x0, y0) up to (x1, y1), maxima exclusive.
struct PixelRect {
  int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  bool operator==(const PixelRect&) const = default;
};

int64_t area(const PixelRect& r);
bool overlap(const PixelRect& a, const PixelRect& b);
bool inside(const PixelRect& inner, const PixelRect& outer);

// The camera's region as preparation will clamp it to the image.
PixelRect clampToImage(const PixelRect& region, int width, int height);

// Tile `index` (1-based) of `count` bands of rows that cover `region` exactly once.
// Band heights differ by at most one row.
PixelRect tileBand(const PixelRect& region, int index, int count);

// What a finished tile folder holds besides its images.
struct TileRecord {
  int index = 0, count = 0;
  int width = 0, height = 0;  // of the whole frame
  PixelRect region;           // the region all tiles share
  PixelRect pixels;           // the rows this tile rendered
};

extern const char* const tileRecordName;

std::string formatTileRecord(const TileRecord& record);
// False when the text is not a whole, consistent record.
bool parseTileRecord(const std::string& text, TileRecord& record);
