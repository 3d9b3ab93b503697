// One colour source: a constant colour, optionally times an image lookup,
// optionally overruled by a flake or a stone layer.
#pragma once

#include <cstdint>
#include <istream>
#include <string>

#include "frame/vec.h"
#include "shading/flake_stone.h"
#include "shading/surface.h"

enum class PixelSampler : uint8_t { nearest = 0, stochastic = 1, bilinear = 2 };

// Side masks: which of a surface's two nodes a setting goes to.
constexpr int frontSide = 1;
constexpr int backSide = 2;
constexpr int bothSides = 3;

struct TextureNode {
  float gamma = 1;
  Matrix4f color_matrix;
  float uv_matrix[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // row-major
  uint8_t wrapU = 0, wrapV = 0;                      // 0 repeat, 1 clamp; no key sets them
  PixelSampler pixel_sampler = PixelSampler::stochastic;
  uint8_t colorIdentity = 1, uvIdentity = 1;  // the lookup skips identity matrices
  float shift[3][3] = {};                     // one triple per colour component; stored, not evaluated
  FlakeLayer flake;
  StoneLayer stone;
  Color3f color;
  int32_t image = -1;
  int32_t level = 1;  // displacement tessellation level
  int32_t side = frontSide;
  std::string imageName;
};

inline TextureNode constantNode(Color3f color) {
  TextureNode node;
  node.color = color;
  return node;
}

void resetNode(TextureNode& node);
void readNodeBlock(TextureNode& node, std::istream& file);
// Loads the image (falling back to the colour when it fails) and prepares the layers.
void prepareNode(TextureNode& node);
// The colour of a node with a flake or stone layer or an image.
Color3f evaluateLayeredColor(const TextureNode& node, const Surface& surface);
// Most nodes are a plain colour, and a hit evaluates many of them: that case
// costs a few compares here instead of a call.
inline Color3f evaluateColor(const TextureNode& node, const Surface& surface) {
  if (node.flake.density > 0 || node.stone.density > 0 || node.image >= 0) return evaluateLayeredColor(node, surface);
  return node.color;
}
Vec3f evaluateVector(const TextureNode& node, const Surface& surface);
// Perturbs the surface's shading normal and rebuilds its frame about it.
void applyNormalNode(const TextureNode& node, Surface& surface);
