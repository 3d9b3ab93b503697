#include "geometry/hair_reader.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>

#include "geometry/obj_reader.h"

namespace {
constexpr size_t headerSize = 128;

// Reads `count` elements when the file still holds them; the size is checked
// first so that a header claiming more than the file holds allocates nothing.
template <typename T>
bool readArray(FILE* file, int64_t remaining, uint64_t count, size_t components, std::vector<T>& out) {
  const uint64_t bytes = count * components * 4;
  if (remaining < 0 || bytes > uint64_t(remaining)) return false;
  out.resize(count);
  return std::fread(out.data(), 4 * components, count, file) == count;
}

int64_t bytesLeft(FILE* file) {
  const long at = std::ftell(file);
  if (at < 0 || std::fseek(file, 0, SEEK_END) != 0) return -1;
  const long end = std::ftell(file);
  std::fseek(file, at, SEEK_SET);
  return int64_t(end) - at;
}

uint32_t wordAt(const unsigned char* bytes, size_t at) {
  uint32_t word;
  std::memcpy(&word, bytes + at, 4);
  return word;
}

float floatAt(const unsigned char* bytes, size_t at) {
  float value;
  std::memcpy(&value, bytes + at, 4);
  return value;
}

int64_t readArrays(FILE* file, HairFile& hair) {
  const uint64_t strands = hair.hair_count, points = hair.point_count;
  // The segments are 16-bit: two of them fill one 4-byte unit of readArray.
  if (hair.flags & 1) {
    if (int64_t left = bytesLeft(file); left < 0 || strands * 2 > uint64_t(left)) return -4;
    hair.segments.resize(strands);
    if (std::fread(hair.segments.data(), 2, strands, file) != strands) return -4;
  }
  if ((hair.flags & 2) && !readArray(file, bytesLeft(file), points, 3, hair.points)) return -5;
  if ((hair.flags & 4) && !readArray(file, bytesLeft(file), points, 1, hair.thickness)) return -6;
  if ((hair.flags & 8) && !readArray(file, bytesLeft(file), points, 1, hair.transparency)) return -7;
  if ((hair.flags & 16) && !readArray(file, bytesLeft(file), points, 3, hair.color)) return -8;
  return hair.hair_count;
}

void printHairFailure(int64_t code, const std::string& path) {
  std::cout << hairFailureText(code) << path << std::endl;
}
}  // namespace

const char* hairFailureText(int64_t code) {
  switch (code) {
    case -1: return "cannot open ";
    case -2: return "cannot open hair file header ";
    case -3: return "hair file has wrong signature ";
    case -4: return "cannot read hair segments ";
    case -5: return "cannot read hair points ";
    case -6: return "cannot read hair thickness ";
    case -7: return "cannot read hair transparency ";
    case -8: return "cannot read hair color ";
    default: return "";
  }
}

int64_t loadHairFile(const std::string& path, HairFile& hair) {
  hair = HairFile{};
  FILE* file = openInSearchFolders(path);
  if (!file) return -1;
  unsigned char header[headerSize];
  int64_t result = -2;
  if (std::fread(header, 1, headerSize, file) == headerSize) {
    result = -3;
    if (std::memcmp(header, "HAIR", 4) == 0) {
      hair.hair_count = wordAt(header, 4);
      hair.point_count = wordAt(header, 8);
      hair.flags = wordAt(header, 12);
      hair.default_segments = wordAt(header, 16);
      hair.default_thickness = floatAt(header, 20);
      hair.default_transparency = floatAt(header, 24);
      hair.default_color = {floatAt(header, 28), floatAt(header, 32), floatAt(header, 36)};
      result = readArrays(file, hair);
    }
  }
  std::fclose(file);
  if (result < 0) hair = HairFile{};
  return result;
}

void addStrand(CylinderSet& set, int64_t& base, int64_t size) {
  const int64_t vertices = int64_t(set.vectorChannels[0].values.size());
  if (size > 0) {
    // Only segments whose two vertices exist: a strand may begin before vertex 0
    // when earlier sizes were negative, or run past the last point.
    const int64_t from = std::max<int64_t>(0, -base), to = std::min(size, vertices - 1 - base);
    for (int64_t k = from; k < to; ++k) set.indices.push_back({uint32_t(base + k), 0});
  }
  base += size + 1;
}

int64_t readHairFile(CylinderSet& set, const std::string& path) {
  HairFile hair;
  const int64_t result = loadHairFile(path, hair);
  if (result < 0) {
    printHairFailure(result, path);
    return result;
  }
  // A file without points has nothing to place; such files are not supported.
  if (hair.points.empty()) return result;
  const size_t n = hair.points.size();
  set.vectorChannels[0].values = hair.points;
  std::vector<float>& radius = set.scalarChannels[0].values;
  radius.resize(n);
  for (size_t i = 0; i < n; ++i)
    radius[i] = 0.5f * (hair.thickness.empty() ? hair.default_thickness : hair.thickness[i]);
  // A placeholder until the hair takes the uv of the surface it grows from.
  std::vector<FloatPair>& uv = set.pairChannels[0].values;
  uv.resize(n);
  for (size_t i = 0; i < n; ++i) uv[i] = {float(i) / float(n), float(i + 1) / float(n)};
  int64_t base = 0;
  // Every strand spans at least one vertex, so the walk ends within the points.
  for (uint32_t s = 0; s < hair.hair_count && base < int64_t(n); ++s)
    addStrand(set, base, hair.segments.empty() ? int64_t(hair.default_segments) : int64_t(hair.segments[s]));
  return result;
}

void readFurFile(CylinderSet& set, const std::string& path) {
  FILE* file = openInSearchFolders(path);
  if (!file) return;
  std::vector<int64_t> sizes;
  // Read a line at a time: a longer line goes on as the next one, and no more
  // than one line's buffer is held.
  char line[4096];
  while (std::fgets(line, sizeof line, file)) {
    if (line[0] == '#') continue;
    std::istringstream words(line);
    std::string key;
    words >> key;
    if (key == "segment") {
      // Read signed: a negative size adds no cylinder but still moves the strand start.
      // Held to the 32-bit range so that the strand starts cannot overflow.
      if (int64_t size; words >> size) sizes.push_back(std::clamp<int64_t>(size, INT32_MIN, INT32_MAX));
    } else if (key == "position") {
      Vec3f p;
      if (words >> p.x >> p.y >> p.z) {
        set.vectorChannels[0].values.push_back(p);
        set.scalarChannels[0].values.push_back(0.003f);
      }
    }
  }
  std::fclose(file);
  // A second file's strands start at vertex 0 again, among the first file's points.
  int64_t base = 0;
  for (int64_t size : sizes) addStrand(set, base, size);
}
