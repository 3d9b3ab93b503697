// One photon's path: every lobe that is on branches, with no random choice
// and no roulette, until its colour fades or the photon depth is reached.
#include <cmath>
#include <iostream>

#include "accel/bbvh.h"
#include "accel/fill.h"
#include "lights/light.h"
#include "shading/fresnel.h"
#include "transport/child_ray.h"
#include "transport/density_estimator.h"
#include "transport/glossy_sample.h"
#include "transport/photon.h"
#include "transport/thread_stack.h"

namespace {
// The child of a lobe: traced when it lies within the photon depth.
void followChild(const Ray& parent, const Surface& surface, uint8_t event, Vec3f direction, Color3f throughput,
                 const LightLink& link) {
  if (int(parent.bounces) + 1 >= photonDepthLimit()) return;
  Ray child = childRay(parent, surface, event, parent.cursor.index, 1);
  // Only a diffuse bounce moves on to the next numbers of the sequence.
  if (event != diffuseReflectionEvent && event != diffuseTransmissionEvent)
    child.cursor.dimension = parent.cursor.dimension;
  child.direction = direction;
  child.throughput = throughput;
  tracePhoton(child, link);
}

void storeCaustic(const Ray& ray, const Surface& surface) {
  // A position that is not a number would break the ordering that the tree's build sorts by.
  const Vec3f p = surface.position;
  if (!std::isfinite(p.x) || !std::isfinite(p.y) || !std::isfinite(p.z)) return;
  Photon photon;
  photon.position = surface.position;
  encodePower(ray.weight * ray.throughput, photon.power);
  photon.direction = packUnitVector(surface.view);
  photon.geometric = packUnitVector(surface.geometric_normal);
  if (photonBatch) {
    photonBatch->photons.push_back(photon);
    return;
  }
#pragma omp critical(photonStore)
  photonStore.photons.push_back(photon);
}

void specularLobes(const Ray& ray, const Surface& s, const LightLink& link) {
  if (s.specular_on[1]) {
    Vec3f d;
    refractAtSurface(d, ray.direction, s);
    // Total internal reflection gives the zero direction: that photon goes no further.
    if (!(d == zeroVector) && dot(d, s.geometric_normal) < 0)
      followChild(ray, s, specularTransmissionEvent, d, ray.throughput * s.specular[1], link);
  }
  if (s.specular_on[0]) {
    const Vec3f d = normalize(ray.direction + 2 * s.cos_view * s.normal);
    if (dot(d, s.geometric_normal) > 0)
      followChild(ray, s, specularReflectionEvent, d, ray.throughput * s.specular[0], link);
  }
}

void glossyLobes(const Ray& ray, const Surface& s, const LightLink& link) {
  const Vec3f out = -ray.direction;
  const Vec3f local{dot(out, s.tangent), dot(out, s.bitangent), dot(out, s.normal)};
  if (local.z < 1e-6f) return;
  for (int lobe : {1, 0}) {
    Vec3f d;
    float w;
    if (sampleGlossyLobe(s, lobe, ray.cursor, local, ray.direction, true, d, w))
      followChild(ray, s, lobe == 0 ? glossyReflectionEvent : glossyTransmissionEvent, d,
                  w * ray.throughput * s.glossy[lobe], link);
  }
}

void diffuseLobes(const Ray& ray, const Surface& s, const LightLink& link) {
  for (int side = 0; side < 2; ++side) {
    if (!s.diffuse_on[side]) continue;
    const Color3f c = ray.throughput * s.diffuse[side];
    if (!isOn(c)) continue;
    if (side == 0 && ray.specular_bounces > 0) {
#pragma omp critical(photonStore)
      std::cout << " " << ray.throughput.r << " " << ray.throughput.g << " " << ray.throughput.b << std::endl;
    }
    // Only light that came through mirrors and glass alone is a caustic; the sky's never is.
    if (skyPhoton.load(std::memory_order_relaxed) == 0 && ray.diffuse_bounces == 0 && ray.glossy_bounces == 0 &&
        ray.specular_bounces > 0)
      storeCaustic(ray, s);
    if (!renderer.final_gather) continue;
    addPatchPower(ray, c * ray.weight);
    Vec3f d;
    if (side == 0)
      sampleHemisphere(d, frameOf(s), ray.cursor);
    else
      sampleLowerHemisphere(d, frameOf(s), ray.cursor);
    const float across = dot(d, s.geometric_normal);
    if (side == 0 ? across > 0 : across < 0)
      followChild(ray, s, side == 0 ? diffuseReflectionEvent : diffuseTransmissionEvent, d, c, link);
  }
}
}  // namespace

void tracePhoton(Ray& ray, const LightLink& link) {
  if (!isOn(ray.throughput)) return;
  if (!traceClosest(ray)) return;
  const uint8_t kind = ray.hit.kind;
  // Particles and fibres end a photon's path: no surface is filled for them.
  if (kind != kindTriangle && kind != kindTetragon) return;
  const Shader& shader = shaders[ray.hit.shader < shaders.size() ? ray.hit.shader : 0];
  Surface surface;
  fillSurface(ray, shader, surface);
  // A light's first segment lights only the shaders it is linked to.
  if (ray.bounces == 0 && !linkAllows(link, ray.hit.shader)) return;
  specularLobes(ray, surface, link);
  glossyLobes(ray, surface, link);
  diffuseLobes(ray, surface, link);
}
