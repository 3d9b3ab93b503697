#include "shading/hair_scattering.h"

#include <algorithm>
#include <cmath>

#include "frame/sampling.h"
#include "shading/texture_node.h"

namespace {
constexpr float pi = 3.14159265f;

float clampUnit(float x) { return std::clamp(x, -1.0f, 1.0f); }

// The cosine of an angle whose sine is s.
float cosineOf(float s) { return std::sqrt(std::max(0.0f, 1 - s * s)); }

// The part of v across the fibre, normalised.
Vec3f across(Vec3f v, Vec3f axis) { return normalize(v - dot(v, axis) * axis); }

// The signed angle from o' to i', negative when (axis x o') . i is not positive.
float signedAzimuth(Vec3f view, Vec3f l, Vec3f axis) {
  const Vec3f o = across(view, axis), i = across(l, axis);
  const float phi = std::acos(clampUnit(dot(o, i)));
  return dot(cross(axis, o), l) > 0 ? phi : -phi;
}

// The logistic's scale of lobe p and its cumulative function.
float logisticScale(const ShaderHair& hair, int p) { return 0.62665707f * hair.width[p]; }  // sqrt(pi / 8)
float logisticCdf(float x, float s) { return 1 / (1 + std::exp(-x / s)); }

float schlick(float cosine, float f0) { return std::pow(1 - cosine, 5.0f) * (1 - f0) + f0; }
}  // namespace

const ShaderHair& hairOfShader(uint32_t id) { return shaders[id < shaders.size() ? id : 0].hair; }

void evaluateHairSurface(const Shader& shader, Surface& surface) {
  for (int side = 0; side < 2; ++side) {
    surface.diffuse[side] = surface.glossy[side] = surface.specular[side] = black;
    surface.diffuse_on[side] = surface.glossy_on[side] = surface.specular_on[side] = 0;
  }
  surface.jitter_on = 0;
  const float t = surface.hair_t;
  // For a fibre the back node is the root and the front node the tip.
  auto blend = [&](int channel) {
    return (1 - t) * evaluateColor(channelNode(shader, channel, 1), surface) +
           t * evaluateColor(channelNode(shader, channel, 0), surface);
  };
  surface.diffuse[0] = blend(diffuseChannel);
  surface.glossy[0] = blend(glossyChannel);
  surface.diffuse_on[0] = isOn(surface.diffuse[0]);
  surface.glossy_on[0] = isOn(surface.glossy[0]);
}

float hairDiffuse(Vec3f view, Vec3f l, Vec3f axis) {
  float phi = signedAzimuth(view, l, axis);
  if (phi < 0) phi += 2 * pi;
  const float cosAcross = cosineOf(clampUnit(dot(l, axis)));  // l . l'
  return std::fabs(std::cos(phi) * (pi - phi) + std::sin(phi)) * cosAcross / (4 * pi);
}

float guardedLog(float x) { return x < 1e-32f ? -32.0f : std::log(x); }

float logisticNp(const ShaderHair& hair, int p, float x) {
  const float s = logisticScale(hair, p);
  // A lobe of no width has no value anywhere but at its centre.
  if (!(s > 0)) return 0;
  const float wrapped = (x + pi) / (2 * pi);
  const float xw = (wrapped - std::floor(wrapped)) * 2 * pi - pi;
  // The logistic is even: the form in |x| cannot overflow.
  const float e = std::exp(-std::fabs(xw) / s);
  return e / (s * (1 + e) * (1 + e)) / (logisticCdf(pi, s) - logisticCdf(-pi, s));
}

double besselI0(double x) {
  const double ax = std::fabs(x);
  if (ax < 3.75) {
    const double y = (x / 3.75) * (x / 3.75);
    return 1 + y * (3.5156229 + y * (3.0899424 + y * (1.2067492 + y * (0.2659732 + y * (0.0360768 + y * 0.0045813)))));
  }
  const double y = 3.75 / ax;
  return std::exp(ax) / std::sqrt(ax) *
         (0.39894228 +
          y * (0.01328592 +
               y * (0.00225319 +
                    y * (-0.00157565 +
                         y * (0.00916281 +
                              y * (-0.02057706 + y * (0.02635537 + y * (-0.01647633 + y * 0.00392377))))))));
}

float longitudinalMp(const ShaderHair& hair, int p, float a, float b) {
  const float v = hair.variance[p];
  if (!(v > 0)) return 0;
  if (v >= 0.2f) return float(besselI0(a)) * std::exp(b) * hair.normalizer[p];
  // Small variances: the product of huge and tiny factors, added as logarithms.
  const float logI0 =
      a <= 12 ? guardedLog(float(besselI0(a))) : a + 0.5f * (-guardedLog(2 * pi) + guardedLog(1 / a) + 1 / (8 * a));
  return std::exp(logI0 + b - 1 / v + 0.6931472f + guardedLog(1 / (2 * v)));
}

FibreAngles fibreAngles(const ShaderHair& hair, Vec3f view, Vec3f l, Vec3f axis, float h) {
  FibreAngles f;
  f.sin_o = clampUnit(dot(view, axis));
  f.sin_i = clampUnit(dot(l, axis));
  f.cos_o = cosineOf(f.sin_o);
  f.cos_i = cosineOf(f.sin_i);
  f.cos_d = std::cos(0.5f * (std::acos(f.sin_i) - std::acos(f.sin_o)));
  f.phi = signedAzimuth(view, l, axis);
  f.gamma_o = std::asin(clampUnit(h));
  const float etaPrime = std::sqrt(std::max(0.0f, hair.eta * hair.eta - (1 - f.cos_d * f.cos_d)));
  f.gamma_t = std::asin(clampUnit(f.cos_d * h / etaPrime));
  const float sin_t = f.sin_o / hair.eta;
  f.cos_t = cosineOf(sin_t);
  return f;
}

float lobeShift(const FibreAngles& angles, int p) {
  return 2 * float(p) * angles.gamma_t - 2 * angles.gamma_o + float(p) * pi;
}

Color3f attenuation(const ShaderHair& hair, const FibreAngles& angles, int p) {
  const float path = (-2 - 2 * std::cos(2 * angles.gamma_t)) / std::max(angles.cos_t, 1e-8f);
  const float F = schlick(std::cos(angles.gamma_o) * angles.cos_d, hair.f0);
  const float fresnel = (1 - F) * (1 - F) * std::pow(F, float(p - 1));
  Color3f A;
  for (int c = 0; c < 3; ++c) A[c] = std::pow(std::exp(hair.absorption[c] * path), float(p)) * fresnel;
  return A;
}

float halfAngleFresnel(const ShaderHair& hair, Vec3f view, Vec3f l) {
  return schlick(std::cos(std::acos(clampUnit(dot(view, l))) / 2), hair.f0);
}

namespace {
// Azimuth times longitudinal function of lobe p.
float lobeValue(const ShaderHair& hair, const FibreAngles& f, int p) {
  const float v = hair.variance[p];
  const float a = f.cos_o * f.cos_i / v, b = -f.sin_o * f.sin_i / v;
  return logisticNp(hair, p, f.phi - lobeShift(f, p)) * longitudinalMp(hair, p, a, b);
}
}  // namespace

void evalHairLobes(const ShaderHair& hair, Vec3f view, Vec3f l, Vec3f axis, float h, Color3f colours[3],
                   float densities[3]) {
  const FibreAngles f = fibreAngles(hair, view, l, axis, h);
  for (int p = 0; p < 3; ++p) {
    const float v = lobeValue(hair, f, p);
    densities[p] = v * f.cos_i;
    colours[p] = p == 0 ? Color3f{v, v, v} : v * attenuation(hair, f, p);
  }
  colours[0] *= halfAngleFresnel(hair, view, l);
}

Color3f evalHairGlossy(const ShaderHair& hair, Vec3f view, Vec3f l, Vec3f axis, float h) {
  Color3f colours[3];
  float densities[3];
  evalHairLobes(hair, view, l, axis, h, colours, densities);
  return colours[0] + colours[1] + colours[2];
}

float pdfHairLobe(const ShaderHair& hair, Vec3f view, Vec3f l, Vec3f axis, float h, int lobe) {
  if (lobe < 0 || lobe > 2) return 0;
  const FibreAngles f = fibreAngles(hair, view, l, axis, h);
  return lobeValue(hair, f, lobe) * f.cos_i;
}

float fibreDensity(const Surface& fibre, uint32_t shader, uint8_t event, Vec3f direction) {
  if (event == diffuseReflectionEvent) return hairDiffuse(fibre.view, direction, fibre.tangent);
  if (event != glossyReflectionEvent) return 0;
  return pdfHairLobe(hairOfShader(shader), fibre.view, direction, fibre.tangent, fibre.hair_h, fibre.hair_lobe);
}

float sampleHairLongitudinal(const ShaderHair& hair, int p, float u) {
  u = std::clamp(u, 1e-8f, 1.0f);
  const float v = hair.variance[p], w = 1 / v;
  if (w <= 10) return v * guardedLog(std::exp(-w) + 2 * u * std::sinh(w));
  return v * (guardedLog(u) + std::exp(-2 * w) * guardedLog(1 - (u - 1) / u)) + 1;
}

float sampleHairAzimuth(const ShaderHair& hair, int p, float u) {
  const float s = logisticScale(hair, p);
  if (!(s > 0)) return 0;
  const float low = logisticCdf(-pi, s), d = logisticCdf(pi, s) - low;
  const float y = u * d + low;
  return -s * guardedLog(1 / y - 1);
}

Frame hairFrame(Vec3f axis, Vec3f view) {
  Frame frame;
  frame.tangent = axis;
  frame.bitangent = across(view, axis);
  // Seen along the axis the view has no part across it: any perpendicular will do.
  if (lengthSquared(frame.bitangent) < 0.5f) {
    Vec3f unused;
    buildOrthonormalBasis(axis, frame.bitangent, unused);
  }
  frame.normal = cross(axis, frame.bitangent);
  return frame;
}

HairCandidates hairCandidates(const ShaderHair& hair, float u0, float u1, float uc, float theta_o, const Frame& frame,
                              const Surface& surface) {
  HairCandidates out;
  const Vec3f axis = frame.tangent;
  const float x = pi / 2 - theta_o;
  for (int p = 0; p < 3; ++p) {
    const float c = clampUnit(sampleHairLongitudinal(hair, p, uc));
    const float sin_i =
        clampUnit(std::sin(x) * std::cos(2 * pi * u0) * std::sqrt(std::max(0.0f, 1 - c * c)) + std::cos(x) * c);
    const float cos_i = cosineOf(sin_i);
    // theta d and gamma t depend on the inclination alone; then the azimuth about the lobe's shift.
    const FibreAngles f = fibreAngles(hair, surface.view, sin_i * axis + cos_i * frame.bitangent, axis, surface.hair_h);
    const float phi = lobeShift(f, p) + sampleHairAzimuth(hair, p, u1);
    out.direction[p] = sin_i * axis + cos_i * (std::cos(phi) * frame.bitangent + std::sin(phi) * frame.normal);
    if (p == 0) {
      const float F = halfAngleFresnel(hair, surface.view, out.direction[p]);
      out.A[p] = {F, F, F};
    } else {
      out.A[p] = attenuation(hair, f, p);
    }
  }
  return out;
}

int chooseHairLobe(const HairCandidates& candidates, float u2, Color3f& weight) {
  float w[3], total = 0;
  for (int p = 0; p < 3; ++p) {
    const Color3f& A = candidates.A[p];
    w[p] = (A.r + A.g + A.b) / 3;
    total += w[p];
  }
  weight = black;
  if (!(total > 0)) return 2;
  int chosen = 2;
  for (int p = 0; p < 2; ++p) {
    if (u2 < w[p] / total) {
      chosen = p;
      break;
    }
    u2 -= w[p] / total;
  }
  // Rounding may walk past the last lobe with a share; one without has no weight.
  if (w[chosen] > 0) weight = candidates.A[chosen] * (total / w[chosen]);
  return chosen;
}

int sampleHair(const ShaderHair& hair, const float u[4], Vec3f& direction, Color3f& weight, float theta_o,
               const Frame& frame, const Surface& surface) {
  const HairCandidates candidates = hairCandidates(hair, u[0], u[1], u[2], theta_o, frame, surface);
  const int lobe = chooseHairLobe(candidates, u[3], weight);
  direction = candidates.direction[lobe];
  return lobe;
}
