#include "shading/surface_setup.h"

#include <algorithm>
#include <cmath>

#include "shading/fresnel.h"

namespace {
constexpr float pi = 3.14159265f;
constexpr int frontSideIndex = 0, backSideIndex = 1;

Vec3f multiply(const float* m, Vec3f v) {
  return {m[0] * v.x + m[1] * v.y + m[2] * v.z, m[3] * v.x + m[4] * v.y + m[5] * v.z,
          m[6] * v.x + m[7] * v.y + m[8] * v.z};
}

LobeWidth squaredRoughness(Color3f roughness) {
  return {std::pow(roughness.r, 2.0f), std::pow(roughness.g, 2.0f), std::pow(roughness.b, 2.0f)};
}

// A glossy lobe with no width is a mirror: its colour joins the specular one.
void foldSmoothGlossy(Surface& s, int lobe) {
  if (s.alpha[lobe].u < 1e-8f && s.alpha[lobe].v < 1e-8f) {
    s.specular[lobe] += s.glossy[lobe];
    s.glossy[lobe] = black;
  }
}
}  // namespace

void transformFrameToWorld(Surface& s, const float (*normalMatrices)[9], int depth) {
  depth = std::min(depth, maxInstanceDepth);
  if (depth <= 0) return;
  float product[9], next[9];
  std::copy(normalMatrices[0], normalMatrices[0] + 9, product);
  for (int i = 1; i < depth; ++i) {
    multiply3x3(product, normalMatrices[i], next);
    std::copy(next, next + 9, product);
  }
  for (Vec3f* v : {&s.geometric_normal, &s.normal, &s.tangent, &s.bitangent}) *v = normalize(multiply(product, *v));
}

void setupScattering(const Shader& shader, float facing, Surface& s) {
  s.cos_view = dot(s.view, s.normal);
  for (int i = 0; i < 2; ++i) s.diffuse[i] = s.glossy[i] = s.specular[i] = black;
  s.jitter = black;

  // A one-sided shader always shows its front, so a ray leaving it still counts as entering.
  const int near = shader.two_sided == 0 || facing > 0 ? frontSideIndex : backSideIndex, far = 1 - near;
  const bool entering = near == frontSideIndex;
  const float ior = shader.volume.ior;
  s.eta = entering ? 1 / ior : ior;

  auto evaluate = [&](int channel, int side) { return evaluateColor(channelNode(shader, channel, side), s); };
  const float coatIor = evaluate(clearCoatIorChannel, near).r;
  const Color3f coat = evaluate(clearCoatChannel, near);
  for (int lobe = 0; lobe < 2; ++lobe) {
    const int side = lobe == 0 ? near : far;
    s.diffuse[lobe] = evaluate(diffuseChannel, side);
    s.specular[lobe] = evaluate(specularChannel, side);
    s.glossy[lobe] = evaluate(glossyChannel, side);
  }

  // The coat takes its share from everything beneath it and adds a mirror of its own;
  // glossy colours get no F here, their Fresnel term is applied per microfacet.
  const float coatFresnel = fresnelSchlick(s.view, s.normal, entering ? 1 / coatIor : coatIor);
  const float fresnel = fresnelSchlick(s.view, s.normal, s.eta);
  const float under = 1 - coatFresnel;
  s.specular[0] = s.specular[0] * (under * fresnel) + coat * coatFresnel;
  s.specular[1] = s.specular[1] * (under * (1 - fresnel));
  for (int lobe = 0; lobe < 2; ++lobe) {
    s.diffuse[lobe] *= under;
    s.glossy[lobe] *= under;
  }

  s.alpha[0] = squaredRoughness(evaluate(roughnessChannel, near));
  s.alpha[1] = squaredRoughness(evaluate(roughnessChannel, far));
  foldSmoothGlossy(s, 0);
  foldSmoothGlossy(s, 1);

  // Only the near side's rotation turns the frame, for both lobes.
  if (s.alpha[0].rotation != 0) {
    const float a = 2 * pi * s.alpha[0].rotation, c = std::cos(a), si = std::sin(a);
    const Vec3f t = s.tangent, b = s.bitangent;
    s.tangent = c * t - si * b;
    s.bitangent = si * t + c * b;
  }
  if (shader.normal_mapped[near]) applyNormalNode(channelNode(shader, normalChannel, near), s);
  if (shader.jittered[near]) s.jitter = evaluate(jitterChannel, near);

  for (int lobe = 0; lobe < 2; ++lobe) {
    s.diffuse_on[lobe] = isOn(s.diffuse[lobe]);
    s.glossy_on[lobe] = isOn(s.glossy[lobe]);
    s.specular_on[lobe] = isOn(s.specular[lobe]);
  }
  // Reversed on purpose: a NaN radius keeps the jitter on.
  const Color3f j = s.jitter;
  s.jitter_on = !(j.r <= 1e-6f && j.g <= 1e-6f && j.b <= 1e-6f);
}
