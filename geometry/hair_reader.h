// Hair files into an object's cylinders: the binary format with the signature
// "HAIR" and the line-based `fur` text. Each strand of points becomes a run of
// vertices and one cylinder for each segment between two of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "geometry/object.h"

// The binary file as read: a header of 128 bytes, then the arrays that the
// flags select. Absent arrays stay empty and the defaults stand for them.
struct HairFile {
  uint32_t hair_count = 0;
  uint32_t point_count = 0;
  uint32_t flags = 0;  // 1 segments, 2 points, 4 thickness, 8 transparency, 16 colour
  uint32_t default_segments = 0;
  float default_thickness = 1;
  float default_transparency = 0;
  Color3f default_color = white;
  std::vector<uint16_t> segments;
  std::vector<Vec3f> points;
  std::vector<float> thickness;
  std::vector<float> transparency;  // read and checked, not used
  std::vector<Color3f> color;       // read and checked, not used
};

// Reads the file into `hair`: hair_count on success, otherwise -1 (cannot open),
// -2 (short header), -3 (wrong signature), -4 to -8 (too few segments, points,
// thickness, transparency or colour values), with every array freed.
int64_t loadHairFile(const std::string& path, HairFile& hair);
// The console text of a failure code, to which the path is appended.
const char* hairFailureText(int64_t code);

// The `hair` key: reads the binary file and adds its strands to the set, or
// prints the failure line and adds nothing. Callable on any path, no scene needed.
int64_t readHairFile(CylinderSet& set, const std::string& path);
// The `fur` key: `segment n` and `position x y z` lines in any order; a file
// that cannot be opened is passed over in silence.
void readFurFile(CylinderSet& set, const std::string& path);

// Appends the cylinders of one strand of `size` segments whose root is vertex
// `base`, and moves `base` past its size + 1 vertices. A size of 0 or less
// adds no cylinder. Cylinders that would reach past the set's vertices are
// left out, as preparation would drop them.
void addStrand(CylinderSet& set, int64_t& base, int64_t size);
