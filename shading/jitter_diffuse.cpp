#include "shading/jitter_diffuse.h"

#include <cmath>

#include "accel/fill.h"
#include "accel/traversal.h"
#include "frame/renderer.h"
#include "geometry/object.h"
#include "geometry/scene_assembly.h"
#include "shading/sampling_shapes.h"
#include "shading/shader.h"

namespace {
constexpr float pi = 3.14159265f;

// A point of the sphere of radius r about the centre.
Vec3f pointOnSphere(Vec3f centre, float r) {
  Vec3f d;
  const float u1 = drawLoose(), u2 = drawLoose();
  sampleSphere(d, u1, u2);
  return centre + r * d;
}

// The normal density at distance zero for the variance v. The numerator of
// the exponent is 0 on purpose: the weight depends on the radii alone.
float gauss(float v) { return std::exp(0.0f / (-2 * v)) / std::sqrt(2 * pi * v); }
}  // namespace

bool jitterDiffuse(const Ray& ray, const Surface& surface, Surface& jittered, Hit& jitteredHit, Color3f& weight) {
  const float largest = maxComponent(surface.jitter);
  const float R = drawLoose() * largest;
  const Vec3f p1 = pointOnSphere(surface.position, R);
  const Vec3f p2 = pointOnSphere(surface.position, R);

  Ray probe;
  probe.origin = p1;
  probe.direction = normalize(p2 - p1);
  probe.t = length(p2 - p1);
  probe.thread = ray.thread;
  updateInverseDirection(probe);
  countRay(rayCountersOf(ray.thread).probe);
  if (rootObject >= objects.size() || !intersectProbe(objects[rootObject], probe)) return false;
  if (probe.hit.shader != ray.hit.shader || probe.hit.shader >= shaders.size()) return false;

  jittered = Surface{};
  fillSurface(probe, shaders[probe.hit.shader], jittered);
  if (probe.facing * ray.facing < 0) {
    jittered.view = -jittered.view;
    jittered.geometric_normal = -jittered.geometric_normal;
    jittered.normal = -jittered.normal;
  }
  jitteredHit = probe.hit;
  const float g = gauss(largest);
  for (int c = 0; c < 3; ++c) weight[c] = g / gauss(surface.jitter[c]);
  return true;
}
