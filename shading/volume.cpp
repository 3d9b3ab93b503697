#include "shading/volume.h"

#include <algorithm>
#include <cmath>

#include "frame/sampling.h"
#include "frame/scene_file.h"

void readShaderVolumeBlock(ShaderVolume& volume, std::istream& file) {
  volume = ShaderVolume{};
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "transmittance")
      line.words >> volume.transmittance.r >> volume.transmittance.g >> volume.transmittance.b;
    else if (line.key == "average_cosine")
      line.words >> volume.average_cosine;
    else if (line.key == "albedo")
      line.words >> volume.albedo.r >> volume.albedo.g >> volume.albedo.b;
    else if (line.key == "density")
      line.words >> volume.density;
    else if (line.key == "ior")
      line.words >> volume.ior;
  }
}

void prepareVolume(ShaderVolume& volume) {
  volume.average_cosine = std::clamp(volume.average_cosine, -1.0f, 1.0f);
  const float t = 1 - volume.density;
  // A density of 1 or more scatters everything: the coefficient stops at 32.
  volume.sigma = t < 1e-32f ? 32.0f : -std::log(t);
  volume.attenuation = t * volume.transmittance;
}

float sampleVolumeDistance(const ShaderVolume& volume, float u) {
  const float logU = u < 1e-32f ? -32.0f : std::log(u);
  return -logU / volume.sigma;
}

Color3f volumeScatterWeight(const ShaderVolume& volume, float d) {
  const Color3f& t = volume.transmittance;
  return Color3f{std::pow(t.r, d), std::pow(t.g, d), std::pow(t.b, d)} * volume.albedo;
}

Vec3f sampleVolumePhase(const ShaderVolume& volume, Vec3f direction, float u1, float u2) {
  const float k = volume.average_cosine;
  float c = 1;
  if (u1 >= 1e-8f) {
    const float denominator = 2 * k * u1 - k + 1;
    // Only k = -1 with u1 = 1 divides by zero; the limit there is straight back.
    c = denominator == 0 ? -1.0f : std::clamp((2 * u1 + k - 1) / denominator, -1.0f, 1.0f);
  }
  const float s = std::sqrt(std::fmax(1 - c * c, 0.0f)), phi = 6.2831855f * u2;
  Vec3f t, b;
  buildOrthonormalBasis(direction, t, b);
  return s * std::cos(phi) * t + s * std::sin(phi) * b + c * direction;
}

Color3f volumeAttenuation(const ShaderVolume& volume, float s) {
  const Color3f& a = volume.attenuation;
  return {std::pow(a.r, s), std::pow(a.g, s), std::pow(a.b, s)};
}
