// Shaders: how one kind of surface looks. Plain records in one array,
// addressed by index; shader 0, "undefined", is the fallback of the system.
#pragma once

#include <array>
#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "frame/vec.h"
#include "shading/texture_node.h"
#include "shading/volume.h"

enum ShaderChannel {
  emissionChannel = 0,
  diffuseChannel = 1,
  specularChannel = 2,
  glossyChannel = 3,
  roughnessChannel = 4,  // red, green: widths along the tangents; blue: tangent rotation
  clearCoatChannel = 5,
  clearCoatIorChannel = 6,  // red only
  normalChannel = 7,
  jitterChannel = 8,
  channelCount = 9,
};

struct ShaderHair {
  float eta = 1.55f;
  Color3f absorption{0.01f, 0.01f, 0.01f};
  float width[3] = {0, 0.1f * 1.5707964f, 0.2f * 1.5707964f};  // lobes R, TT, TRT: (0, 0.1, 0.2) times pi/2
  float variance[3] = {0, 0, 0};                               // derived
  float normalizer[3] = {0, 0, 0};                             // derived
  float f0 = 0;                                                // derived
};

struct ShaderGeometry {
  std::vector<TextureNode> radius;
  std::vector<TextureNode> length;
  std::vector<TextureNode> vector;
  std::vector<TextureNode> height;
  TextureNode opacity = constantNode(white);
  float smooth_angle = -1;
  float round_corner = 1;
  float reduction = infinity;      // clamped to [0, 1] at preparation, so it acts as 1
  uint8_t primary_visibility = 0;  // 1 hidden from first light segments, 2 hidden from camera rays
  uint8_t flip_face = 0;
  uint8_t automatic_hair_uv = 0;
  uint8_t opacity_textured = 0;  // derived
};

// The 18 channel nodes with their channel colours: front and back of each channel in turn.
std::array<TextureNode, 2 * channelCount> defaultChannels();

struct Shader {
  ShaderHair hair;
  ShaderVolume volume;
  ShaderGeometry geometry;
  std::array<TextureNode, 2 * channelCount> channels = defaultChannels();
  // Per side, front then back.
  uint8_t geometry_light[2] = {0, 0};  // sampled as an area light
  uint8_t emissive[2] = {0, 0};        // derived from here on
  uint8_t diffuse_present[2] = {0, 0};
  uint8_t normal_mapped[2] = {0, 0};
  uint8_t jittered[2] = {0, 0};
  uint8_t rough[2] = {0, 0};  // nothing reads these
  uint8_t textured = 0;
  uint8_t needs_surface_normal = 0;
  uint8_t needs_tangents = 0;
  uint8_t anisotropic = 0;
  uint8_t spare = 0;
  uint8_t sky_shader = 0;  // set by the sky light, read by nothing
  uint8_t plain = 0;       // a cheap query may stop the fill early
  uint8_t two_sided = 1;   // 0: the front nodes serve both sides
  uint8_t prepared = 0;
  uint8_t enabled = 0;  // really defined: by a block, by qzAddShader or at startup
  uint8_t used_by_hair = 0;
  std::string name = "undefined";
};

extern std::vector<Shader> shaders;

// The node of a channel on side 0 (front) or 1 (back).
inline TextureNode& channelNode(Shader& shader, int channel, int side) { return shader.channels[channel * 2 + side]; }
inline const TextureNode& channelNode(const Shader& shader, int channel, int side) {
  return shader.channels[channel * 2 + side];
}

// Index of the first shader with this name; a missing one is appended, not yet enabled.
int findOrAddShader(const std::string& name);
void resetShader(Shader& shader);
void readShaderBlock(Shader& shader, std::istream& file);
// The top-level block: a fresh record replaces, whole, the shader of its name.
void defineShaderFromBlock(std::istream& file);
void prepareShader(Shader& shader);
void prepareHairShader(Shader& shader);
void prepareShaders();
// The fallback shader 0, made by startup.
void createDefaultShader();
