#include "shading/microfacet.h"

#include <cmath>

#include "shading/fresnel.h"
#include "shading/slope_tables.h"

namespace {
constexpr float pi = 3.14159265f;

Vec3f reflectionHalf(Vec3f view, Vec3f light) { return normalize(view + light); }
Vec3f transmissionHalf(const Surface& s, Vec3f view, Vec3f light) { return normalize(-(s.eta * view + light)); }

// Visible-normal density of half seen from view, for either lobe.
float visibleNormalDensity(const Surface& s, int lobe, Vec3f half, Vec3f view) {
  return smithG1(s, lobe, half, view) * beckmannD(s, lobe, half) * std::fabs(dot(view, half)) /
         std::fabs(dot(view, s.normal));
}
}  // namespace

float beckmannD(const Surface& s, int lobe, Vec3f half) {
  const LobeWidth& alpha = s.alpha[lobe];
  float hn = dot(half, s.normal);
  float a = dot(half, s.tangent) / (alpha.u * hn);
  float b = dot(half, s.bitangent) / (alpha.v * hn);
  float hn2 = hn * hn;
  return std::exp(-a * a - b * b) / (alpha.u * pi * alpha.v * hn2 * hn2);
}

float smithG1(const Surface& s, int lobe, Vec3f half, Vec3f direction) {
  const LobeWidth& alpha = s.alpha[lobe];
  float vn = dot(direction, s.normal);
  if (dot(direction, half) * vn < 1e-8f) return 0;
  float phi = std::atan2(dot(direction, s.bitangent), dot(direction, s.tangent));
  float cu = std::cos(phi) * alpha.u, sv = std::sin(phi) * alpha.v;
  float w = cu * cu + sv * sv;
  float a2 = vn * vn / (w * (1 - vn * vn));
  float a = a2 > 0 ? std::sqrt(a2) : 0;
  float lambda = a >= 1.6f ? 0 : (1 - 1.259f * a + 0.396f * a2) / (3.535f * a + 2.181f * a2);
  return 1 / (1 + lambda);
}

bool sampleVisibleNormal(const Surface& s, int lobe, const SampleCursor& sample, Vec3f v, Vec3f& half) {
  const LobeWidth& alpha = s.alpha[lobe];
  float u1, u2;
  drawPair(sample, u1, u2);
  // In the stretched space the distribution is the one of unit width that the tables hold.
  Vec3f stretched = normalize({alpha.u * v.x, alpha.v * v.y, v.z});
  float theta = 0, phi = 0;
  if (stretched.z < 0.99999f) {
    theta = std::acos(std::fmin(std::fmax(stretched.z, -1.0f), 1.0f));
    phi = std::atan2(stretched.y, stretched.x);
  }
  float sx = lookupSlopeX(beckmannSlopeX, theta, u1);
  float sy = lookupSlopeY(beckmannSlopeY, sx, u2);
  float c = std::cos(phi), si = std::sin(phi);
  float mu = -(c * sx - si * sy) * alpha.u;
  float mv = -(si * sx + c * sy) * alpha.v;
  half = normalize(mu * s.tangent + mv * s.bitangent + s.normal);
  return true;
}

float evalGlossyReflection(const Surface& s, Vec3f view, Vec3f light) {
  Vec3f h = reflectionHalf(view, light);
  return fresnelSchlick(view, h, s.eta) * 0.25f * smithG1(s, 0, h, view) * smithG1(s, 0, h, light) *
         beckmannD(s, 0, h) / std::fabs(dot(view, s.normal)) / std::fabs(dot(light, s.normal));
}

float evalGlossyTransmission(const Surface& s, Vec3f view, Vec3f light) {
  Vec3f h = transmissionHalf(s, view, light);
  Vec3f ng = s.geometric_normal;
  if (!(dot(h, ng) >= 0 && dot(view, ng) >= 0 && dot(light, ng) <= 0)) return 0;
  float co = dot(view, h), ci = dot(light, h);
  float denominator = s.eta * co + ci;
  return (1 - fresnelSchlick(view, h, s.eta)) * smithG1(s, 1, h, view) * smithG1(s, 1, h, light) *
         beckmannD(s, 1, h) * std::fabs(co / dot(view, s.normal)) * std::fabs(ci / dot(light, s.normal)) /
         (denominator * denominator);
}

float pdfGlossyReflection(const Surface& s, Vec3f view, Vec3f light) {
  return visibleNormalDensity(s, 0, reflectionHalf(view, light), view);
}

float pdfGlossyTransmission(const Surface& s, Vec3f view, Vec3f light) {
  return visibleNormalDensity(s, 1, transmissionHalf(s, view, light), view);
}
