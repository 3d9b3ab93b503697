// Images: rasters at the bit depth of their source, named by their file path.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "frame/vec.h"
#include "shading/texture_node.h"

struct Image {
  uint8_t loaded = 0;
  std::vector<uint8_t> bits;  // depth 1
  std::vector<uint8_t> bytes;
  std::vector<uint16_t> words;
  std::vector<float> floats;
  std::vector<double> doubles;
  std::vector<uint8_t> shared;  // red, green, blue, shared exponent
  std::string name;
  int32_t depth = 32;
  int32_t channels = 3;
  int32_t width = 0;
  int32_t height = 0;
  uint8_t sharedExponent = 0;
  uint8_t packFloats = 1;
};

extern std::vector<Image> images;
extern std::vector<std::string> imageSearchPaths;
// Names of the images that were to be written and were not, each reported with an error line.
extern std::set<std::string> unsavedImages;

void startImages();
void stopImages();
void addImageSearchPath(const std::string& path);
int findOrAddImage(const std::string& name);
// Throws std::bad_alloc up front for a size beyond the machine's memory.
void allocateImage(Image& image, int width, int height, int channels, int depth, uint8_t sharedExponent);
Color3f readPixel(const Image& image, int64_t p);
void writePixel(Image& image, Color3f color, int64_t p);
bool loadImage(Image& image);
// The decoder's side of a load, unguarded: true when the file could be read,
// with `loaded` set when its pixel type converts. loadImage runs it in a child.
bool decodeImageFile(Image& image, const std::string& path);
// Writes by the extensions the name contains; false, with an error line, when a write fails.
bool saveImage(const Image& image);
void freeImage(Image& image);
// Loads every named record in array order; failures are reported and skipped.
void loadImages();
void freeImages();
int64_t addressPixel(const Image& image, int x, int y, uint8_t wrapU, uint8_t wrapV);
// The filtered lookup: the node gives addressing, filter, gamma and the uv and colour matrices.
Color3f sampleImage(const Image& image, float u, float v, const TextureNode& node);
// Bytes held by the pixel arrays.
int64_t imageMemory(const Image& image);
void imageStatistics(const Image& image, Color3f& mean, Color3f& variance);
