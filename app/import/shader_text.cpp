#include "app/import/shader_text.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

std::string exact(float value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", double(value));
  return text;
}

bool isEmissive(const ImportedMaterial& m) {
  const aiColor3D e = m.emission * m.emission_strength;
  return std::max({e.r, e.g, e.b}) > 1e-6f;
}

namespace {
// Below this roughness a lobe is a mirror: the glossy lobe would join the
// mirror lobe without its Fresnel term.
constexpr float mirrorRoughness = 0.01f;

// A roughness value for the Phong exponent Ns: the Beckmann width
// sqrt(2 / (Ns + 2)) is the square of the value written.
float roughnessOfShininess(float shininess) { return std::pow(2 / (std::max(shininess, 0.0f) + 2), 0.25f); }

// The index of refraction whose Fresnel term at normal incidence is the blend
// of the dielectric's and a metal's (0.999) by `metallic`.
float metallicIor(float ior, float metallic) {
  const float r = (ior - 1) / (ior + 1), f0 = r * r + (0.999f - r * r) * metallic;
  const float s = std::sqrt(f0);
  return (1 + s) / (1 - s);
}

std::string triple(aiColor3D c) { return exact(c.r) + " " + exact(c.g) + " " + exact(c.b); }

// One texture node: a colour, and an image with its gamma and matrices.
struct Node {
  aiColor3D color;
  const TextureSlot* slot = nullptr;
  float gamma = 1;
  const float* color_matrix = nullptr;  // 16 floats, row by row
  const char* side = nullptr;
};

std::string nodeText(const char* channel, const Node& node, const ImportedScene& scene) {
  std::string text = std::string(channel) + "\ncolor " + triple(node.color) + "\n";
  if (node.side) text += "side \"" + std::string(node.side) + "\"\n";
  if (node.slot && node.slot->image >= 0) {
    text += "image \"image/" + scene.images[size_t(node.slot->image)].file_name + "\"\nsampler\ngamma " +
            exact(node.gamma) + "\n";
    if (node.slot->transformed) {
      text += "uv_matrix";
      for (const float v : node.slot->uv_matrix) text += " " + exact(v);
      text += "\n";
    }
    if (node.color_matrix) {
      text += "color_matrix";
      for (int i = 0; i < 16; ++i) text += " " + exact(node.color_matrix[i]);
      text += "\n";
    }
    text += "end\n";
  }
  return text + "end\n";
}

bool hasImage(const TextureSlot& slot) { return slot.image >= 0; }
}  // namespace

std::string shaderText(const ImportedMaterial& m, const ImportedScene& scene) {
  const aiColor3D white(1, 1, 1), base = m.base;
  const bool mr = m.metallic_roughness;
  // How much of the surface lets light through, and the tint it gives.
  const float through = mr ? m.transmission : 1 - m.opacity;
  const float metallic = mr ? m.metallic : 0;
  float roughness = mr ? m.roughness : roughnessOfShininess(m.shininess);
  // glTF's texture holds roughness in green and metallic in blue.
  const bool mr_texture = mr && hasImage(m.metallic_roughness_texture);
  std::string text = "shader\nname \"" + m.name + "\"\n";
  // Opaque surfaces use their front for both sides, as glTF's two-sided
  // materials do; a surface that lets light through needs both sides to know
  // when a ray enters and when it leaves.
  if (through <= 0) text += "single_sided\n";
  if (isEmissive(m)) text += "geometry_light\n";

  // Diffuse: the base colour, less what metal and transmission take.
  const float diffuse_share = (1 - metallic) * (1 - through);
  text += nodeText("diffuse", {base * diffuse_share, &m.base_texture, 2.2f}, scene);

  // The reflection lobe: white for a dielectric (the Fresnel term weights it),
  // the base colour for a metal; for the specular kind, Ks.
  const char* lobe = roughness < mirrorRoughness && !mr_texture ? "specular" : "glossy";
  if (through > 0) {
    // Reflection and transmission of a clear surface share one tint on both sides.
    text += nodeText(lobe, {(mr ? base : white) * through, mr ? &m.base_texture : nullptr, 2.2f, nullptr, "both"}, scene);
  } else if (mr && mr_texture) {
    // glossy = 1 - m + m base, m the texture's blue times the factor.
    const float k = m.metallic;
    const float matrix[16] = {0, 0, k * (base.r - 1), 1, 0, 0, k * (base.g - 1), 1,
                              0, 0, k * (base.b - 1), 1, 0, 0, 0,               1};
    text += nodeText(lobe, {white, &m.metallic_roughness_texture, 1, matrix}, scene);
  } else if (mr && metallic > 0 && hasImage(m.base_texture)) {
    const float k = metallic;
    const float matrix[16] = {k, 0, 0, 1 - k, 0, k, 0, 1 - k, 0, 0, k, 1 - k, 0, 0, 0, 1};
    text += nodeText(lobe, {base, &m.base_texture, 2.2f, matrix}, scene);
  } else if (mr && (metallic > 0 || m.ior > 1.0001f)) {
    // An index of 1 is a surface without reflection (the Fresnel term is 0).
    text += nodeText(lobe, {white * (1 - metallic) + base * metallic}, scene);
  } else if (std::max({m.specular.r, m.specular.g, m.specular.b}) > 1e-6f) {
    text += nodeText(lobe, {m.specular, &m.specular_texture, 2.2f}, scene);
  }
  if (mr_texture) {
    // The roughness is the texture's green times the factor, in both directions.
    static const float green[16] = {0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    text += nodeText("roughness", {{roughness, roughness, 0}, &m.metallic_roughness_texture, 1, green}, scene);
  } else {
    roughness = std::max(roughness, 0.0f);
    text += nodeText("roughness", {{roughness, roughness, 0}}, scene);
  }
  text += "volume\nior " + exact(mr_texture ? m.ior : metallicIor(m.ior, metallic)) + "\nend\n";

  if (isEmissive(m))
    text += nodeText("emission", {m.emission * m.emission_strength, &m.emission_texture, 2.2f}, scene);
  if (hasImage(m.normal_texture)) {
    // The node gives (texel - 0.5) times its colour: 2 makes the unit normal,
    // and the scale leans it.
    const float s = 2 * m.normal_scale;
    text += nodeText("normal", {{s, s, 2}, &m.normal_texture, 1}, scene);
  }
  if (m.clear_coat > 0) {
    text += nodeText("clear_coat", {white * m.clear_coat}, scene);
    text += nodeText("clear_coat_ior", {{1.5f, 1.5f, 1.5f}}, scene);
  }
  return text + "end\n\n";
}
