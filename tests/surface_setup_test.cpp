#include "shading/surface_setup.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "shading/fresnel.h"
#include "tests/test_util.h"

namespace {
// A flat frame seen from 60 degrees off the normal.
Surface flatSurface() {
  Surface s;
  s.tangent = {1, 0, 0};
  s.bitangent = {0, 1, 0};
  s.normal = s.geometric_normal = {0, 0, 1};
  s.view = normalize({std::sqrt(3.0f), 0, 1});
  return s;
}

void setColor(Shader& shader, ShaderChannel channel, int side, Color3f c) { channelNode(shader, channel, side).color = c; }

// Front and back differ in every lobe so the chosen side shows.
Shader glassShader(float ior) {
  Shader shader;
  shader.volume.ior = ior;
  setColor(shader, diffuseChannel, 0, {0.1f, 0.2f, 0.3f});
  setColor(shader, diffuseChannel, 1, {0.3f, 0.2f, 0.1f});
  setColor(shader, specularChannel, 0, {1, 1, 1});
  setColor(shader, specularChannel, 1, {0.5f, 0.5f, 0.5f});
  setColor(shader, glossyChannel, 0, {0.4f, 0.4f, 0.4f});
  setColor(shader, glossyChannel, 1, {0.2f, 0.2f, 0.2f});
  setColor(shader, roughnessChannel, 0, {0.5f, 0.3f, 0});
  setColor(shader, roughnessChannel, 1, {0.2f, 0.4f, 0});
  return shader;
}
}  // namespace

TEST(SurfaceSetup, FresnelSplitsTheSpecularColours) {
  Shader shader = glassShader(1.5f);
  Surface s = flatSurface();
  setupScattering(shader, 1, s);
  EXPECT_NEAR(s.cos_view, 0.5f, 1e-6);
  EXPECT_NEAR(s.eta, 1 / 1.5f, 1e-7);
  const float f = 0.04f + 0.96f / 32;  // Schlick at 60 degrees for 1.5
  expectColorNear(s.specular[0], white * f);
  expectColorNear(s.specular[1], Color3f{0.5f, 0.5f, 0.5f} * (1 - f));
  // With no coat (clear_coat_ior 1) diffuse and glossy keep their colours: no F on them.
  expectColorNear(s.diffuse[0], {0.1f, 0.2f, 0.3f});
  expectColorNear(s.diffuse[1], {0.3f, 0.2f, 0.1f});
  expectColorNear(s.glossy[0], {0.4f, 0.4f, 0.4f});
  EXPECT_NEAR(s.alpha[0].u, 0.25f, 1e-7);
  EXPECT_NEAR(s.alpha[0].v, 0.09f, 1e-7);
  EXPECT_NEAR(s.alpha[1].u, 0.04f, 1e-7);
  for (int lobe = 0; lobe < 2; ++lobe) {
    EXPECT_TRUE(s.diffuse_on[lobe] && s.glossy_on[lobe] && s.specular_on[lobe]);
  }
  EXPECT_FALSE(s.jitter_on);

  // An index of 1 reflects nothing: the transmission keeps its whole colour.
  shader.volume.ior = 1;
  setupScattering(shader, 1, s);
  expectColorNear(s.specular[0], black);
  EXPECT_FALSE(s.specular_on[0]);
  expectColorNear(s.specular[1], {0.5f, 0.5f, 0.5f});
}

TEST(SurfaceSetup, ClearCoatTakesItsShareAndAddsAMirror) {
  Shader shader = glassShader(1.5f);
  setColor(shader, clearCoatChannel, 0, {0.8f, 0.6f, 0.4f});
  setColor(shader, clearCoatIorChannel, 0, {2, 9, 9});  // only red counts
  Surface s = flatSurface();
  setupScattering(shader, 1, s);
  const float f0c = std::pow((0.5f - 1) / (0.5f + 1), 2.0f);
  const float fc = f0c + (1 - f0c) / 32, f = 0.04f + 0.96f / 32, t = 1 - fc;
  expectColorNear(s.specular[0], white * (t * f) + Color3f{0.8f, 0.6f, 0.4f} * fc);
  expectColorNear(s.specular[1], Color3f{0.5f, 0.5f, 0.5f} * (t * (1 - f)));
  expectColorNear(s.diffuse[0], Color3f{0.1f, 0.2f, 0.3f} * t);
  expectColorNear(s.glossy[1], Color3f{0.2f, 0.2f, 0.2f} * t);
  // A coat index of 1 makes the coat vanish, however bright its colour.
  setColor(shader, clearCoatIorChannel, 0, white);
  setupScattering(shader, 1, s);
  expectColorNear(s.specular[0], white * f);
}

TEST(SurfaceSetup, SidesFollowFacingAndTwoSidedness) {
  Shader shader = glassShader(1.5f);
  Surface s = flatSurface();
  // From behind a two-sided surface the back nodes are near and the ray leaves the medium.
  setupScattering(shader, -1, s);
  EXPECT_NEAR(s.eta, 1.5f, 1e-7);
  expectColorNear(s.diffuse[0], {0.3f, 0.2f, 0.1f});
  expectColorNear(s.diffuse[1], {0.1f, 0.2f, 0.3f});
  EXPECT_NEAR(s.alpha[0].u, 0.04f, 1e-7);
  EXPECT_NEAR(s.alpha[1].u, 0.25f, 1e-7);
  // A one-sided shader seen from behind still uses its front nodes and enters.
  shader.two_sided = 0;
  setupScattering(shader, -1, s);
  EXPECT_NEAR(s.eta, 1 / 1.5f, 1e-7);
  expectColorNear(s.diffuse[0], {0.1f, 0.2f, 0.3f});
  expectColorNear(s.diffuse[1], {0.3f, 0.2f, 0.1f});
}

TEST(SurfaceSetup, SmoothGlossyBecomesMirrorAndBlueRoughnessTurnsTheFrame) {
  Shader shader = glassShader(1);
  setColor(shader, roughnessChannel, 0, {0, 0, 0.5f});
  setColor(shader, roughnessChannel, 1, {0.3f, 0, 0.7f});
  Surface s = flatSurface();
  setupScattering(shader, 1, s);
  // Both widths 0: the glossy colour moves to the mirror, after the coat's scaling.
  expectColorNear(s.specular[0], {0.4f, 0.4f, 0.4f});
  expectColorNear(s.glossy[0], black);
  EXPECT_FALSE(s.glossy_on[0]);
  // One width left: the lobe stays glossy, with zero width across.
  expectColorNear(s.glossy[1], {0.2f, 0.2f, 0.2f});
  EXPECT_EQ(s.alpha[1].v, 0.0f);
  // Blue 0.5 squares to a quarter turn; the far side's rotation is stored but unused.
  // new tangent = cos a t - sin a b, new bitangent = sin a t + cos a b
  expectVecNear(s.tangent, {0, -1, 0}, 1e-6f);
  expectVecNear(s.bitangent, {1, 0, 0}, 1e-6f);
  expectVecNear(s.normal, {0, 0, 1}, 1e-6f);
  EXPECT_NEAR(s.alpha[1].rotation, 0.49f, 1e-6);
}

TEST(SurfaceSetup, JitterOnlyWhereTheNearSideAsksForIt) {
  Shader shader = glassShader(1.5f);
  setColor(shader, jitterChannel, 0, {0.1f, 0.2f, 0.3f});
  Surface s = flatSurface();
  setupScattering(shader, 1, s);
  EXPECT_FALSE(s.jitter_on);
  expectColorNear(s.jitter, black);
  shader.jittered[0] = 1;
  setupScattering(shader, 1, s);
  EXPECT_TRUE(s.jitter_on);
  expectColorNear(s.jitter, {0.1f, 0.2f, 0.3f});
  // A NaN radius is not "off", unlike a NaN colour of a lobe.
  const float nan = std::numeric_limits<float>::quiet_NaN();
  setColor(shader, jitterChannel, 0, {nan, 0, 0});
  setColor(shader, diffuseChannel, 0, {nan, 0, 0});
  setupScattering(shader, 1, s);
  EXPECT_TRUE(s.jitter_on);
  EXPECT_FALSE(s.diffuse_on[0]);
}

TEST(SurfaceSetup, InstanceNormalMatricesChainOutermostFirst) {
  // Outer placement turns a quarter about z, the inner one scales x by 2 (its normal matrix halves x).
  const float matrices[2][9] = {{0, -1, 0, 1, 0, 0, 0, 0, 1}, {0.5f, 0, 0, 0, 1, 0, 0, 0, 1}};
  Surface s;
  s.normal = s.geometric_normal = normalize({1, 0, 1});
  s.tangent = normalize({1, 0, -1});
  s.bitangent = {0, 1, 0};
  transformFrameToWorld(s, matrices, 2);
  // Inner first: (1, 0, 1) -> (0.5, 0, 1), then the turn: (0, 0.5, 1).
  expectVecNear(s.normal, normalize({0, 0.5f, 1}), 1e-6f);
  expectVecNear(s.geometric_normal, normalize({0, 0.5f, 1}), 1e-6f);
  expectVecNear(s.tangent, normalize({0, 0.5f, -1}), 1e-6f);
  expectVecNear(s.bitangent, {-1, 0, 0}, 1e-6f);
  // At the root nothing changes.
  Surface root = flatSurface();
  transformFrameToWorld(root, matrices, 0);
  expectVecNear(root.normal, {0, 0, 1}, 1e-6f);
}
