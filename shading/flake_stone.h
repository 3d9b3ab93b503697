// The procedural layers of a texture node: flakes (small mirrors in a coat)
// and stone (a many-level cellular pattern). Both rest on cellular noise.
#pragma once

#include <cstdint>
#include <istream>

#include "frame/vec.h"
#include "shading/surface.h"

struct FlakeLayer {
  int32_t id = 0;  // cache key, a hash of the three floats
  Color3f color;
  float density = 0;  // 0 or less switches the layer off
  float scale = 0;
  float depth = 0;
};

struct StoneLayer {
  int32_t id = 0;  // cache key, a hash of the three floats
  float weathering = 0.5f;
  float density = 0;  // 0 or less switches the layer off
  float scale = 0;
  uint32_t level = 0;
};

void readFlakeBlock(FlakeLayer& flake, std::istream& file);
// The stone block's `image` key is read and dropped.
void readStoneBlock(StoneLayer& stone, std::istream& file);
// Layers with equal values get the same id and so share cached results.
void prepareLayer(FlakeLayer& flake);
void prepareLayer(StoneLayer& stone);
// A unit direction of the flake hit, the zero vector where there is none.
Vec3f evaluateFlake(const FlakeLayer& flake, const Surface& surface);
// Accumulated stone coordinates; the zero vector where nothing was hit.
Vec3f evaluateStone(const StoneLayer& stone, const Surface& surface);
