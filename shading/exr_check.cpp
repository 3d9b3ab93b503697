#include "shading/exr_check.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <vector>

#include "shading/image_decode.h"

namespace {

constexpr uint32_t exrMagic = 20000630;
constexpr uint32_t tiledFlag = 0x200, longNamesFlag = 0x400, deepFlag = 0x800, multipartFlag = 0x1000;
// Scan lines a chunk holds, by compression: none, RLE, ZIPS, ZIP, PIZ, PXR24,
// B44, B44A, DWAA, DWAB.
constexpr int linesPerChunk[] = {1, 1, 1, 16, 32, 16, 32, 32, 32, 256};
// Each side of a window at most 2^30 pixels, as the readers hold positions in ints.
constexpr int64_t largestSide = int64_t(1) << 30;

struct Box {
  int32_t x0 = 0, y0 = 0, x1 = -1, y1 = -1;
  int64_t width() const { return int64_t(x1) - x0 + 1; }
  int64_t height() const { return int64_t(y1) - y0 + 1; }
};

// What one part's header says about its chunks.
struct PartHeader {
  Box data, display;
  int compression = -1, lineOrder = -1, channels = 0;
  bool hasAspect = false, hasCenter = false, hasWidth = false, hasTiles = false, hasType = false, hasName = false;
  bool tiled = false;
  uint32_t tileX = 0, tileY = 0;
  int levelMode = 0, rounding = 0;
  int64_t chunkCount = -1;  // -1: not given
  int64_t chunks = 0;       // implied by the window, the compression and the tiling
  int64_t levelsX = 1, levelsY = 1;
};

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

struct Reader {
  File file;
  int64_t length = 0;
  bool read(void* data, size_t size) { return std::fread(data, 1, size, file.get()) == size; }
  int64_t at() { return int64_t(ftello(file.get())); }
  bool seek(int64_t offset) { return fseeko(file.get(), off_t(offset), SEEK_SET) == 0; }
  template <typename T>
  bool value(T& v) {
    return read(&v, sizeof v);
  }
  // A NUL-terminated name of at most `longest` characters.
  bool name(std::string& text, size_t longest) {
    text.clear();
    for (int c; (c = std::fgetc(file.get())) != EOF;) {
      if (c == 0) return true;
      if (text.size() == longest) return false;
      text += char(c);
    }
    return false;
  }
};

template <typename T>
T take(const std::vector<char>& bytes, size_t at) {
  T v;
  std::memcpy(&v, bytes.data() + at, sizeof v);
  return v;
}

// A channel list: name, pixel type, linear flag, three reserved bytes and the
// two sampling rates per channel, up to an empty name.
bool readChannels(const std::vector<char>& value, size_t longestName, PartHeader& part) {
  size_t at = 0;
  for (;;) {
    const char* start = value.data() + at;
    const size_t room = value.size() - at;
    const size_t length = strnlen(start, room);
    if (length == room) return false;
    at += length + 1;
    if (length == 0) return at == value.size() && part.channels > 0;
    if (length > longestName || value.size() - at < 16) return false;
    const int32_t type = take<int32_t>(value, at), xSampling = take<int32_t>(value, at + 8),
                  ySampling = take<int32_t>(value, at + 12);
    if (type < 0 || type > 2 || xSampling < 1 || ySampling < 1) return false;
    at += 16;
    ++part.channels;
  }
}

bool readBox(const std::vector<char>& value, Box& box) {
  box = {take<int32_t>(value, 0), take<int32_t>(value, 4), take<int32_t>(value, 8), take<int32_t>(value, 12)};
  return box.width() >= 1 && box.height() >= 1 && box.width() <= largestSide && box.height() <= largestSide;
}

// Reads one attribute's value when it is one the chunk table depends on or
// one every reader needs; the others are passed over. False when a known
// attribute has the wrong type or size or a value out of range.
bool readAttribute(Reader& in, const std::string& name, const std::string& type, int32_t size, size_t longestName,
                   PartHeader& part) {
  struct Known {
    const char* name;
    const char* type;
    int32_t size;  // -1: any
  };
  static const Known known[] = {
      {"channels", "chlist", -1},      {"compression", "compression", 1}, {"dataWindow", "box2i", 16},
      {"displayWindow", "box2i", 16},  {"lineOrder", "lineOrder", 1},     {"pixelAspectRatio", "float", 4},
      {"screenWindowCenter", "v2f", 8}, {"screenWindowWidth", "float", 4}, {"tiles", "tiledesc", 9},
      {"type", "string", -1},           {"name", "string", -1},            {"chunkCount", "int", 4}};
  const Known* k = std::find_if(std::begin(known), std::end(known), [&](const Known& k) { return name == k.name; });
  if (k == std::end(known)) return in.seek(in.at() + size);
  if (type != k->type || (k->size >= 0 && size != k->size)) return false;
  std::vector<char> value(size_t(size) + 1, '\0');  // a NUL past the end for the strings
  if (!in.read(value.data(), size_t(size))) return false;
  value.pop_back();
  if (name == "channels") return (part.channels = 0, readChannels(value, longestName, part));
  if (name == "compression") return (part.compression = uint8_t(value[0])) < 10;
  if (name == "dataWindow") return readBox(value, part.data);
  if (name == "displayWindow") return readBox(value, part.display);
  if (name == "lineOrder") return (part.lineOrder = uint8_t(value[0])) < 3;
  if (name == "pixelAspectRatio") return part.hasAspect = true;
  if (name == "screenWindowCenter") return part.hasCenter = true;
  if (name == "screenWindowWidth") return part.hasWidth = true;
  if (name == "chunkCount") return (part.chunkCount = take<int32_t>(value, 0)) >= 0;
  if (name == "name") return part.hasName = true;
  if (name == "tiles") {
    part.hasTiles = true;
    part.tileX = take<uint32_t>(value, 0), part.tileY = take<uint32_t>(value, 4);
    part.levelMode = uint8_t(value[8]) & 15, part.rounding = uint8_t(value[8]) >> 4;
    return part.tileX >= 1 && part.tileY >= 1 && part.tileX <= largestSide && part.tileY <= largestSide &&
           part.levelMode < 3 && part.rounding < 2;
  }
  // The part's type: only images of flat samples are read.
  if (name != "type") return false;
  const std::string text(value.data(), value.size());
  part.hasType = true;
  part.tiled = text == "tiledimage";
  return text == "scanlineimage" || text == "tiledimage";
}

// log2 of `size` rounded down (0) or up (1).
int64_t log2Rounded(int64_t size, int rounding) {
  int64_t y = 0;
  while ((int64_t(1) << (y + 1)) <= size) ++y;
  return rounding && (int64_t(1) << y) < size ? y + 1 : y;
}

int64_t levelSize(int64_t size, int64_t level, int rounding) {
  const int64_t scaled = rounding ? (size + (int64_t(1) << level) - 1) >> level : size >> level;
  return std::max<int64_t>(scaled, 1);
}

int64_t tilesIn(int64_t size, uint32_t tile) { return (size + tile - 1) / tile; }

// The chunks the header implies, as the readers count them.
void countChunks(PartHeader& part) {
  const int64_t w = part.data.width(), h = part.data.height();
  if (!part.tiled) {
    const int lines = linesPerChunk[part.compression];
    part.chunks = (h + lines - 1) / lines;
    return;
  }
  const int r = part.rounding;
  if (part.levelMode == 1) {
    // Mipmap: each level halves both sides.
    part.levelsX = part.levelsY = log2Rounded(std::max(w, h), r) + 1;
    for (int64_t l = 0; l < part.levelsX; ++l)
      part.chunks += tilesIn(levelSize(w, l, r), part.tileX) * tilesIn(levelSize(h, l, r), part.tileY);
    return;
  }
  // Ripmap: every pair of an x level and a y level; one level is its corner.
  if (part.levelMode == 2) part.levelsX = log2Rounded(w, r) + 1, part.levelsY = log2Rounded(h, r) + 1;
  int64_t across = 0, down = 0;
  for (int64_t l = 0; l < part.levelsX; ++l) across += tilesIn(levelSize(w, l, r), part.tileX);
  for (int64_t l = 0; l < part.levelsY; ++l) down += tilesIn(levelSize(h, l, r), part.tileY);
  part.chunks = across * down;
}

// Reads one header up to its empty name; false when it is empty (the end of a
// multi-part file's headers) or malformed.
bool readHeader(Reader& in, uint32_t flags, PartHeader& part, bool& empty) {
  const size_t longestName = flags & longNamesFlag ? 255 : 31;
  std::string name, type;
  int attributes = 0;
  for (;;) {
    if (!in.name(name, longestName)) return false;
    if (name.empty()) break;
    int32_t size = 0;
    if (!in.name(type, longestName) || type.empty() || !in.value(size) || size < 0 || in.at() + size > in.length ||
        !readAttribute(in, name, type, size, longestName, part))
      return false;
    ++attributes;
  }
  empty = attributes == 0;
  if (empty) return true;
  const bool multipart = flags & multipartFlag;
  if (!multipart) part.tiled = flags & tiledFlag;
  if (part.channels == 0 || part.compression < 0 || part.lineOrder < 0 || part.data.width() < 1 ||
      part.display.width() < 1 || !part.hasAspect || !part.hasCenter || !part.hasWidth || part.tiled != part.hasTiles)
    return false;
  if (multipart && !(part.hasType && part.hasName && part.chunkCount >= 0)) return false;
  // Every decoder makes at least four bytes a channel a pixel.
  const double decoded = double(part.data.width()) * double(part.data.height()) * part.channels * 4;
  if (decoded > believableDecodedBytes(in.length)) return false;
  countChunks(part);
  return part.chunkCount < 0 || part.chunkCount == part.chunks;
}

// Whether the chunk at `offset` belongs to part `p`, names a place inside its
// window and lies whole within the file.
bool soundChunk(Reader& in, int64_t offset, bool multipart, size_t p, const PartHeader& part) {
  // Part number, then the scan line or the tile's column, row and levels, then the size.
  int32_t words[6] = {};
  const int count = (multipart ? 1 : 0) + (part.tiled ? 4 : 1) + 1;
  const ssize_t wanted = ssize_t(count * sizeof(int32_t));
  if (pread(fileno(in.file.get()), words, size_t(wanted), off_t(offset)) != wanted) return false;
  const int32_t* place = words + (multipart ? 1 : 0);
  const int32_t size = words[count - 1];
  if ((multipart && words[0] != int32_t(p)) || size <= 0 || offset + wanted + size > in.length) return false;
  if (!part.tiled) {
    const int64_t row = int64_t(place[0]) - part.data.y0;
    return row >= 0 && row < part.data.height() && row % linesPerChunk[part.compression] == 0;
  }
  const int64_t lx = place[2], ly = place[3];
  if (lx < 0 || ly < 0 || lx >= part.levelsX || ly >= part.levelsY || (part.levelMode == 1 && lx != ly)) return false;
  const int r = part.rounding;
  return place[0] >= 0 && place[1] >= 0 && place[0] < tilesIn(levelSize(part.data.width(), lx, r), part.tileX) &&
         place[1] < tilesIn(levelSize(part.data.height(), ly, r), part.tileY);
}

}  // namespace

bool soundOpenExrFile(const std::string& path) {
  Reader in{File(std::fopen(path.c_str(), "rb"), &std::fclose)};
  if (!in.file || fseeko(in.file.get(), 0, SEEK_END) != 0) return false;
  in.length = in.at();
  uint32_t magic = 0, version = 0;
  if (!in.seek(0) || !in.value(magic) || !in.value(version) || magic != exrMagic || (version & 0xff) != 2 ||
      (version & ~uint32_t(0xff | tiledFlag | longNamesFlag | deepFlag | multipartFlag)) || (version & deepFlag))
    return false;
  const bool multipart = version & multipartFlag;
  if (multipart && (version & tiledFlag)) return false;
  std::vector<PartHeader> parts;
  for (;;) {
    PartHeader part;
    bool empty = false;
    if (!readHeader(in, version, part, empty)) return false;
    if (empty) break;
    parts.push_back(part);
    if (!multipart) break;
  }
  if (parts.empty()) return false;
  // The tables follow the headers, one offset a chunk; the chunks follow the tables.
  const int64_t tables = in.at();
  int64_t entries = 0;
  for (const PartHeader& part : parts) {
    entries += part.chunks;
    if (entries > (in.length - tables) / 8) return false;
  }
  const int64_t chunksStart = tables + 8 * entries;
  std::vector<uint64_t> offsets;
  int64_t table = tables;
  for (size_t p = 0; p < parts.size(); ++p) {
    offsets.resize(size_t(parts[p].chunks));
    if (!in.seek(table) || !in.read(offsets.data(), offsets.size() * sizeof(uint64_t))) return false;
    table += int64_t(offsets.size() * sizeof(uint64_t));
    for (uint64_t offset : offsets)
      if (offset < uint64_t(chunksStart) || offset >= uint64_t(in.length) ||
          !soundChunk(in, int64_t(offset), multipart, p, parts[p]))
        return false;
  }
  return true;
}
