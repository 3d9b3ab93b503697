#include "shading/shader.h"

#include <algorithm>
#include <cmath>

#include "frame/report.h"
#include "qz.h"
#include "shading/image.h"

std::vector<Shader> shaders;

namespace {
Shader* shaderAt(int id) { return id >= 0 && size_t(id) < shaders.size() ? &shaders[id] : nullptr; }

// Runs `set` on the nodes of a channel that the side mask names.
template <typename Set>
void setNodes(int id, int side, int channel, Set set) {
  Shader* shader = shaderAt(id);
  if (!shader || channel < 0 || channel >= channelCount) return;
  for (int s = 0; s < 2; ++s)
    if (side & (1 << s)) set(channelNode(*shader, channel, s));
}

Color3f channelColor(int channel) {
  if (channel == clearCoatIorChannel) return white;
  if (channel == normalChannel) return {0, 0, 1};
  return black;
}

bool colorOn(const TextureNode& node) { return isOn(node.color); }
bool flakeOn(const TextureNode& node) { return isOn(node.flake.color); }
bool imageOn(const TextureNode& node) { return node.image >= 0; }

void prepareGeometry(ShaderGeometry& geometry) {
  geometry.reduction = std::clamp(geometry.reduction, 0.0f, 1.0f);
  geometry.round_corner = std::clamp(geometry.round_corner, 0.0f, 1.0f);
  prepareNode(geometry.opacity);
  geometry.opacity_textured = imageOn(geometry.opacity);
  // Displacement reads these nodes at vertices, where only a smooth filter makes sense.
  for (auto* nodes : {&geometry.vector, &geometry.radius, &geometry.length, &geometry.height})
    for (TextureNode& node : *nodes) {
      node.pixel_sampler = PixelSampler::bilinear;
      prepareNode(node);
    }
}

void deriveFlags(Shader& shader) {
  shader.textured = std::any_of(shader.channels.begin(), shader.channels.end(), imageOn);
  shader.anisotropic = 0;
  shader.needs_surface_normal = 0;
  shader.rough[0] = shader.rough[1] = 0;
  bool roughFound = false;
  for (int s = 0; s < 2; ++s) {
    const TextureNode& normal = channelNode(shader, normalChannel, s);
    const TextureNode& jitter = channelNode(shader, jitterChannel, s);
    const TextureNode& emission = channelNode(shader, emissionChannel, s);
    const TextureNode& diffuse = channelNode(shader, diffuseChannel, s);
    const TextureNode& roughness = channelNode(shader, roughnessChannel, s);
    const TextureNode& glossy = channelNode(shader, glossyChannel, s);
    shader.normal_mapped[s] = (colorOn(normal) && imageOn(normal)) || flakeOn(normal);
    shader.jittered[s] = colorOn(jitter) || flakeOn(jitter);
    shader.emissive[s] = colorOn(emission) || flakeOn(emission);
    shader.diffuse_present[s] = colorOn(diffuse) || flakeOn(diffuse);
    const Color3f r = roughness.color;
    // Only the first rough side is flagged, whatever the other side holds.
    if (!roughFound && (imageOn(roughness) || r.r > 0 || r.g > 0) && colorOn(glossy)) {
      shader.rough[s] = 1;
      roughFound = true;
    }
    if ((imageOn(roughness) || r.g != r.r) && colorOn(glossy)) shader.anisotropic = 1;
    if (imageOn(roughness) || r.r < 1 || r.g < 1) shader.needs_surface_normal = 1;
  }
  // Every prepared shader asks for tangents; the anisotropic test never decides it.
  shader.needs_tangents = 1;
  shader.spare = 0;
  shader.plain = !shader.textured && !shader.needs_surface_normal;
}
}  // namespace

std::array<TextureNode, 2 * channelCount> defaultChannels() {
  std::array<TextureNode, 2 * channelCount> channels;
  for (int i = 0; i < 2 * channelCount; ++i) channels[i].color = channelColor(i / 2);
  return channels;
}

int findOrAddShader(const std::string& name) {
  for (size_t i = 0; i < shaders.size(); ++i)
    if (shaders[i].name == name) return int(i);
  shaders.emplace_back().name = name;
  return int(shaders.size() - 1);
}

void resetShader(Shader& shader) {
  shader.name = "undefined";
  for (int i = 0; i < 2 * channelCount; ++i) {
    resetNode(shader.channels[i]);
    shader.channels[i].color = channelColor(i / 2);
  }
  shader.hair = ShaderHair{};
  shader.volume = ShaderVolume{};
  shader.geometry = ShaderGeometry{};
  shader.geometry_light[0] = shader.geometry_light[1] = 0;
  shader.emissive[0] = shader.emissive[1] = 0;
  shader.prepared = shader.enabled = shader.used_by_hair = 0;
  shader.two_sided = 1;
}

void createDefaultShader() {
  Shader& shader = shaders[findOrAddShader("undefined")];
  resetShader(shader);
  shader.enabled = 1;
  channelNode(shader, diffuseChannel, 0).color = {0.85f, 0.85f, 0.85f};
}

void prepareShader(Shader& shader) {
  if (shader.prepared) return;
  shader.prepared = 1;
  prepareGeometry(shader.geometry);
  prepareVolume(shader.volume);
  for (TextureNode& node : shader.channels) prepareNode(node);
  deriveFlags(shader);
}

void prepareHairShader(Shader& shader) {
  if (!shader.used_by_hair) return;
  prepareShader(shader);
  ShaderHair& hair = shader.hair;
  hair.eta = shader.volume.ior;
  const Color3f width = channelNode(shader, roughnessChannel, 0).color;
  // Fibre colours come from the diffuse and glossy channels, never from absorption.
  hair.absorption = black;
  for (int p = 0; p < 3; ++p) {
    hair.width[p] = 1.5707964f * width[p];
    hair.variance[p] = hair.width[p] * hair.width[p];
    hair.normalizer[p] = 1 / (std::sinh(1 / hair.variance[p]) * 2 * hair.variance[p]);
  }
  const float f = (hair.eta - 1) / (hair.eta + 1);
  hair.f0 = f * f;
}

void prepareShaders() {
  for (Shader& shader : shaders) prepareShader(shader);
  int64_t textureBytes = 0;
  for (const Image& image : images) textureBytes += imageMemory(image);
  printRow("textures", float(textureBytes) * 9.536743e-7f, "M bytes", 3);
  printArrayRow("shaders", sizeof(Shader), int64_t(shaders.size()), "M bytes");
}

int qzAddShader() {
  shaders.emplace_back().enabled = 1;
  return int(shaders.size() - 1);
}

void qzSetShaderName(int id, const char* name) {
  if (Shader* shader = shaderAt(id)) shader->name = name ? name : "";
}

void qzSetShaderIOR(int id, float ior) {
  if (Shader* shader = shaderAt(id)) shader->volume.ior = ior;
}

void qzSetShaderDensity(int id, float density) {
  if (Shader* shader = shaderAt(id)) shader->volume.density = density;
}

void qzSetShaderAverageCosine(int id, float g) {
  if (Shader* shader = shaderAt(id)) shader->volume.average_cosine = g;
}

void qzSetShaderParticleColor(int id, float r, float g, float b) {
  if (Shader* shader = shaderAt(id)) shader->volume.albedo = {r, g, b};
}

void qzSetShaderTransmittance(int id, float r, float g, float b) {
  if (Shader* shader = shaderAt(id)) shader->volume.transmittance = {r, g, b};
}

void qzSetShaderRoundCorner(int id, float v) {
  if (Shader* shader = shaderAt(id)) shader->geometry.round_corner = v;
}

void qzSetShaderSmoothAngle(int id, float v) {
  if (Shader* shader = shaderAt(id)) shader->geometry.smooth_angle = v;
}

void qzSetShaderVisibility(int id, int v) {
  if (Shader* shader = shaderAt(id)) shader->geometry.primary_visibility = uint8_t(v);
}

void qzSetShaderTwoSided(int id, bool v) {
  if (Shader* shader = shaderAt(id)) shader->two_sided = v;
}

void qzSetShaderGeometryLight(int id, int side, bool v) {
  if (Shader* shader = shaderAt(id))
    for (int s = 0; s < 2; ++s)
      if (side & (1 << s)) shader->geometry_light[s] = v;
}

void qzSetShaderColor(int id, int side, int channel, float r, float g, float b) {
  setNodes(id, side, channel, [&](TextureNode& node) { node.color = {r, g, b}; });
}

void qzSetShaderShift(int id, int side, int channel, int component, float a, float b, float c) {
  if (component < 0 || component > 2) return;
  setNodes(id, side, channel, [&](TextureNode& node) {
    float* shift = node.shift[component];
    shift[1] = a, shift[2] = b, shift[0] = c;
  });
}

void qzSetShaderFlake(int id, int side, int channel, float r, float g, float b, float p, float q, float s) {
  setNodes(id, side, channel, [&](TextureNode& node) {
    node.flake.color = {r, g, b};
    node.flake.scale = p, node.flake.density = q, node.flake.depth = s;
  });
}

void qzSetShaderStone(int id, int side, int channel, float a, float b, float c, int level) {
  setNodes(id, side, channel, [&](TextureNode& node) {
    node.stone.weathering = a, node.stone.scale = b, node.stone.density = c;
    node.stone.level = uint32_t(level);
  });
}

void qzSetShaderImage(int id, int side, int channel, const char* image, float gamma, const float* color_matrix,
                      const float* uv_matrix) {
  // The identity flags stay as they are: matrices given here count only once a scene key cleared them.
  setNodes(id, side, channel, [&](TextureNode& node) {
    node.imageName = image ? image : "";
    node.gamma = gamma;
    if (color_matrix) std::copy(color_matrix, color_matrix + 16, node.color_matrix.m);
    if (uv_matrix) std::copy(uv_matrix, uv_matrix + 9, node.uv_matrix);
  });
}

void qzInitializeShaders() { prepareShaders(); }

void qzFinalizeShaders() {
  shaders.clear();
  shaders.shrink_to_fit();
}
