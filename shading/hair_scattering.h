// Fibres: a diffuse cylinder term and three glossy lobes of a dielectric
// cylinder, R, TT and TRT, each a longitudinal function times a trimmed
// logistic in azimuth. Colours come from the shader's diffuse and glossy
// channels, blended from root to tip; absorption is cleared at preparation.
#pragma once

#include "shading/sampling_shapes.h"
#include "shading/shader.h"
#include "shading/surface.h"

// The hair block of shader `id`, or of shader 0 for an index that names none.
const ShaderHair& hairOfShader(uint32_t id);

// The fibre's colours at `hair_t`: the back (root) and front (tip) nodes of
// the diffuse and glossy channels, blended; every other lobe is off.
void evaluateHairSurface(const Shader& shader, Surface& surface);

// The Lambertian cylinder towards l, seen along `view`; a density over the
// sphere, whose integral is 1.
float hairDiffuse(Vec3f view, Vec3f l, Vec3f axis);

// The azimuthal function of lobe p at the angle x, wrapped into [-pi, pi).
float logisticNp(const ShaderHair& hair, int p, float x);
// The longitudinal function of lobe p with a = cos(theta o) cos(theta i) / v
// and b = -sin(theta o) sin(theta i) / v: the closed form with sinh from a
// variance of 0.2, the logarithmic forms below it.
float longitudinalMp(const ShaderHair& hair, int p, float a, float b);
// The modified Bessel function of order 0, by the two polynomial fits.
double besselI0(double x);
// Natural logarithm with every value below 1e-32 taken as 1e-32.
float guardedLog(float x);

// The angles of one pair of directions about a fibre, in the notation of
// the lobes: sines and cosines of the longitudinal angles, theta d, the signed
// azimuth phi from view to light, and the offsets gamma o and gamma t.
struct FibreAngles {
  float sin_o = 0, cos_o = 1, sin_i = 0, cos_i = 1;
  float cos_d = 1;  // cosine of theta d, half the difference of the angles to the axis
  float phi = 0;
  float gamma_o = 0, gamma_t = 0;
  float cos_t = 1;  // longitudinal cosine inside the fibre
};
FibreAngles fibreAngles(const ShaderHair& hair, Vec3f view, Vec3f l, Vec3f axis, float h);
// The azimuth at which lobe p leaves: 2 p gamma t - 2 gamma o + p pi.
float lobeShift(const FibreAngles& angles, int p);
// Absorption and Fresnel of lobe p from 1 on: T^p (1 - F)^2 F^(p - 1).
Color3f attenuation(const ShaderHair& hair, const FibreAngles& angles, int p);
// Schlick's Fresnel at the half angle of two directions, for the R lobe.
float halfAngleFresnel(const ShaderHair& hair, Vec3f view, Vec3f l);

// The three glossy lobes towards l: their colours and their densities.
void evalHairLobes(const ShaderHair& hair, Vec3f view, Vec3f l, Vec3f axis, float h, Color3f colours[3],
                   float densities[3]);
// Sum of the three lobe colours: the glossy term at a light sample.
Color3f evalHairGlossy(const ShaderHair& hair, Vec3f view, Vec3f l, Vec3f axis, float h);
// The density of one lobe towards l, for weighting against light sampling.
float pdfHairLobe(const ShaderHair& hair, Vec3f view, Vec3f l, Vec3f axis, float h, int lobe);

// The density with which a fibre's lobe made a ray of `event` in `direction`:
// the diffuse cylinder for a diffuse reflection, the lobe in `hair_lobe` for a
// glossy one, and 0 for any other event. `shader` is the fibre's.
float fibreDensity(const Surface& fibre, uint32_t shader, uint8_t event, Vec3f direction);

// cos of the angle to the centre of lobe p's cone, from u in [0, 1].
float sampleHairLongitudinal(const ShaderHair& hair, int p, float u);
// An azimuth offset of lobe p from its shift, by inverting the trimmed logistic.
float sampleHairAzimuth(const ShaderHair& hair, int p, float u);

// The hair frame: `tangent` the axis, `bitangent` the view projected across
// the fibre, `normal` the axis crossed with it.
Frame hairFrame(Vec3f axis, Vec3f view);
// One candidate direction for each glossy lobe from three numbers in [0, 1]:
// u0 turns about the lobe's cone, u1 gives the azimuth, uc the cone's width;
// with the attenuation each would carry. theta o is the inclination, from the
// plane across the fibre, of the centre of the lobes' cones: minus the view's,
// where the longitudinal function peaks, makes the sampler follow `evalHairLobes`.
struct HairCandidates {
  Vec3f direction[3];
  Color3f A[3];  // R: Schlick at the half angle, grey; TT and TRT: `attenuation`
};
HairCandidates hairCandidates(const ShaderHair& hair, float u0, float u1, float uc, float theta_o, const Frame& frame,
                              const Surface& surface);
// Picks lobe p with the chance of its mean attenuation among the three, by
// walking u2 down; the weight is its attenuation over that chance.
int chooseHairLobe(const HairCandidates& candidates, float u2, Color3f& weight);
// Both, from the numbers u0, u1, uc and u2 in that order. Returns the lobe chosen.
int sampleHair(const ShaderHair& hair, const float u[4], Vec3f& direction, Color3f& weight, float theta_o,
               const Frame& frame, const Surface& surface);
