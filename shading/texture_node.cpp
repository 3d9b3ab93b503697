#include "shading/texture_node.h"

#include <algorithm>

#include "frame/scene_file.h"
#include "shading/image.h"

namespace {
struct SideWord {
  const char* word;
  int32_t side;
};
const SideWord sideWords[] = {{"both", bothSides}, {"face", frontSide}, {"back", backSide}, {"outer", frontSide},
                              {"inner", backSide}, {"tip", frontSide},  {"root", backSide}};

struct SamplerWord {
  const char* word;
  PixelSampler sampler;
};
const SamplerWord samplerWords[] = {
    {"stochastic", PixelSampler::stochastic}, {"bilinear", PixelSampler::bilinear}, {"nearest", PixelSampler::nearest}};

void readSamplerBlock(TextureNode& node, std::istream& file) {
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "pixel_sampler") {
      const std::string word = readQuotedString(line);
      for (const SamplerWord& entry : samplerWords)
        if (word == entry.word) node.pixel_sampler = entry.sampler;
    } else if (line.key == "gamma") {
      line.words >> node.gamma;
    } else if (line.key == "uv_matrix") {
      readFloats(line, node.uv_matrix, 9);
      node.uvIdentity = 0;
    } else if (line.key == "color_matrix") {
      readFloats(line, node.color_matrix.m, 16);
      node.colorIdentity = 0;
    }
  }
}

// The node's image at (u, v) through its sampler. A stone layer reaches this
// without an image of its own; it then counts as white.
Color3f lookupImage(const TextureNode& node, float u, float v) {
  if (node.image < 0 || size_t(node.image) >= images.size()) return white;
  return sampleImage(images[node.image], u, v, node);
}
}  // namespace

void resetNode(TextureNode& node) {
  node.imageName.clear();
  node.color = black;
  node.image = -1;
  node.level = 1;
  node.side = frontSide;
  node.flake = FlakeLayer{};
  node.stone = StoneLayer{};
  std::fill(&node.shift[0][0], &node.shift[0][0] + 9, 0.0f);
}

void readNodeBlock(TextureNode& node, std::istream& file) {
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "color") {
      line.words >> node.color.r >> node.color.g >> node.color.b;
    } else if (line.key == "level") {
      line.words >> node.level;
    } else if (line.key == "image") {
      node.imageName = readQuotedString(line);
    } else if (line.key == "sampler") {
      readSamplerBlock(node, file);
    } else if (line.key == "flake") {
      readFlakeBlock(node.flake, file);
    } else if (line.key == "stone") {
      readStoneBlock(node.stone, file);
    } else if (line.key == "side" || line.key == "sideness") {
      const std::string word = readQuotedString(line);
      for (const SideWord& entry : sideWords)
        if (word == entry.word) node.side = entry.side;
    }
  }
}

void prepareNode(TextureNode& node) {
  if (!node.imageName.empty()) {
    node.image = findOrAddImage(node.imageName);
    if (node.image >= 0) {
      loadImage(images[node.image]);
      if (!images[node.image].loaded) node.image = -1;
    }
  }
  prepareLayer(node.flake);
  prepareLayer(node.stone);
  std::for_each(&node.shift[0][0], &node.shift[0][0] + 9, [](float& v) { v = std::clamp(v, 0.0f, 1.0f); });
}

Color3f evaluateLayeredColor(const TextureNode& node, const Surface& surface) {
  // A layer that is off answers zero, and its evaluation is spared.
  if (node.flake.density > 0 && !(evaluateFlake(node.flake, surface) == zeroVector)) return node.flake.color;
  // A stone hit replaces the surface's texture coordinates.
  if (node.stone.density > 0) {
    const Vec3f stone = evaluateStone(node.stone, surface);
    if (!(stone == zeroVector)) return lookupImage(node, stone.x, stone.y) * node.color;
  }
  if (node.image >= 0) return lookupImage(node, surface.uv[0], surface.uv[1]) * node.color;
  return node.color;
}

Vec3f evaluateVector(const TextureNode& node, const Surface& surface) {
  if (node.image < 0) return {0, 0, 1};
  const Color3f c = (lookupImage(node, surface.uv[0], surface.uv[1]) - Color3f{0.5f, 0.5f, 0.5f}) * node.color;
  return {c.r, c.g, c.b};
}

void applyNormalNode(const TextureNode& node, Surface& surface) {
  const Vec3f f = evaluateFlake(node.flake, surface);
  Vec3f n;
  if (!(f == zeroVector)) {
    // A flake tilts the normal towards its own direction; it stays on the viewer's side.
    const Color3f c = node.flake.color;
    n = normalize(f.x * c.r * surface.tangent + f.y * c.g * surface.bitangent + (f.z + 1) * c.b * surface.normal);
    if (dot(n, surface.geometric_normal) < 0) n = -n;
  } else {
    const Vec3f d = evaluateVector(node, surface);
    n = normalize(d.x * surface.tangent + d.y * surface.bitangent + d.z * surface.normal);
  }
  setShadingNormal(surface, n);
}
