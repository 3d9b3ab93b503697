// The `shader` block of scene files and its `geometry` sub-block.
#include <algorithm>
#include <utility>

#include "frame/scene_file.h"
#include "shading/shader.h"

namespace {
struct ChannelKey {
  const char* key;
  int channel;
};
const ChannelKey channelKeys[] = {{"diffuse", diffuseChannel},
                                  {"emission", emissionChannel},
                                  {"specular", specularChannel},
                                  {"glossy", glossyChannel},
                                  {"roughness", roughnessChannel},
                                  {"clear_coat", clearCoatChannel},
                                  {"clear_coat_ior", clearCoatIorChannel},
                                  {"jitter", jitterChannel},
                                  {"normal", normalChannel}};

int channelOfKey(const std::string& key) {
  for (const ChannelKey& entry : channelKeys)
    if (key == entry.key) return entry.channel;
  return -1;
}

// One scratch node serves every channel of a block. Colour, layers, matrices,
// image and side start afresh on each line; gamma and filter carry over.
void clearScratchNode(TextureNode& node) {
  node.color = black;
  node.flake = FlakeLayer{};
  node.stone = StoneLayer{};
  node.color_matrix = Matrix4f{};
  std::copy_n(TextureNode{}.uv_matrix, 9, node.uv_matrix);
  node.colorIdentity = node.uvIdentity = 1;
  node.imageName.clear();
  node.image = -1;
  node.side = frontSide;
}

void readShaderGeometryBlock(ShaderGeometry& geometry, std::istream& file) {
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "opacity")
      readNodeBlock(geometry.opacity, file);
    else if (line.key == "vector")
      readNodeBlock(geometry.vector.emplace_back(), file);
    else if (line.key == "radius")
      readNodeBlock(geometry.radius.emplace_back(), file);
    else if (line.key == "length")
      readNodeBlock(geometry.length.emplace_back(), file);
    else if (line.key == "height")
      readNodeBlock(geometry.height.emplace_back(), file);
    else if (line.key == "round_corner")
      line.words >> geometry.round_corner;
    else if (line.key == "smooth_angle")
      line.words >> geometry.smooth_angle;
    else if (line.key == "reduction")
      line.words >> geometry.reduction;
    else if (line.key == "camera_primary")
      geometry.primary_visibility = 2;
    else if (line.key == "light_primary")
      geometry.primary_visibility = 1;
    else if (line.key == "flip_face")
      geometry.flip_face = 1;
    else if (line.key == "automatic_hair_uv")
      geometry.automatic_hair_uv = 1;
  }
}
}  // namespace

void readShaderBlock(Shader& shader, std::istream& file) {
  TextureNode scratch;
  SceneLine line;
  while (nextKey(file, line)) {
    clearScratchNode(scratch);
    if (const int channel = channelOfKey(line.key); channel >= 0) {
      readNodeBlock(scratch, file);
      for (int s = 0; s < 2; ++s)
        if (scratch.side & (1 << s)) channelNode(shader, channel, s) = scratch;
    } else if (line.key == "name") {
      shader.name = readQuotedString(line);
    } else if (line.key == "geometry_light" || line.key == "virtual_light") {
      shader.geometry_light[0] = shader.geometry_light[1] = 1;
    } else if (line.key == "geometry") {
      readShaderGeometryBlock(shader.geometry, file);
    } else if (line.key == "volume") {
      readShaderVolumeBlock(shader.volume, file);
    } else if (line.key == "single_sided") {
      shader.two_sided = 0;
    }
  }
}

void defineShaderFromBlock(std::istream& file) {
  Shader shader;
  shader.enabled = 1;
  readShaderBlock(shader, file);
  // A later block of the same name replaces the earlier one whole and keeps its index.
  const int id = findOrAddShader(shader.name);
  shaders[id] = std::move(shader);
}
