// The medium inside a shader's surface: homogeneous, single scattering, and
// the surface's index of refraction.
#pragma once

#include <istream>

#include "frame/vec.h"

struct ShaderVolume {
  Color3f albedo;                 // colour of scattered light
  Color3f transmittance = white;  // fraction left per unit of distance
  Color3f attenuation = white;    // derived: (1 - density) transmittance
  float average_cosine = 0;       // phase asymmetry, clamped to [-1, 1] at preparation
  float density = 0;              // fraction of rays that scatter per unit of distance
  float sigma = 0;                // derived: -ln(1 - density)
  float ior = 1;
};

// Starts from the defaults, then reads keys up to `end`.
void readShaderVolumeBlock(ShaderVolume& volume, std::istream& file);
void prepareVolume(ShaderVolume& volume);

// Free path length for a uniform number u; a result at or beyond the hit means no scattering.
float sampleVolumeDistance(const ShaderVolume& volume, float u);
// Per-colour weight of a scattering event at distance d.
Color3f volumeScatterWeight(const ShaderVolume& volume, float d);
// New direction about `direction` by the Schlick phase function; forward for a positive average cosine.
Vec3f sampleVolumePhase(const ShaderVolume& volume, Vec3f direction, float u1, float u2);
// Factor for glossy and specular results of a ray that travelled s inside the medium.
Color3f volumeAttenuation(const ShaderVolume& volume, float s);
