#include <cmath>

#include "accel/fill.h"
#include "accel/primitive_bounds.h"
#include "lights/gaffer.h"
#include "lights/geometry_light.h"
#include "lights/sky.h"
#include "output/aov.h"
#include "transport/child_ray.h"
#include "transport/path.h"

namespace {
constexpr float pi = 3.14159265f;

// Shader 0 stands in for an index that names no shader.
const Shader& hitShader(const Ray& ray) { return shaders[ray.hit.shader < shaders.size() ? ray.hit.shader : 0]; }

// Whether this hit is answered from the stored patches and ends the path.
// Only faces of the root object carry patches; a first hit is never cut short
// while `bounce` is above 0, a later one only when its face is large beside
// the area that one sample covers at this distance.
uint8_t answeredByPatches(const Ray& ray) {
  const uint8_t kind = ray.hit.kind;
  if (!renderer.final_gather || ray.hit.depth != 0 || (kind != kindTriangle && kind != kindTetragon)) return 0;
  if (ray.diffuse_bounces >= renderer.bounce) return 1;
  if (ray.diffuse_bounces == 0 || !(renderer.resolution < 2 * pi * ray.t * ray.t / float(renderer.sample))) return 0;
  const Mesh& mesh = ray.hit.object->mesh;
  const float area =
      kind == kindTriangle ? triangleArea(mesh, ray.hit.primitive) : tetragonArea(mesh, ray.hit.primitive);
  return area > renderer.resolution;
}

// The lights in their order.
void gatherDirectLight(LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  shadeGeometrySurface(lobes, ray, surface);
  shadeSkySurface(lobes, ray, surface);
  for (PointLight& light : pointLights) shadeSurface(light, lobes, ray, surface);
  for (ParallelLight& light : parallelLights) shadeSurface(light, lobes, ray, surface);
}

void writeFirstHit(const Ray& ray, const Surface& s, const LobeRadiance& lobes) {
  const HitTerms terms{s.normal,
                       s.tangent,
                       s.position,
                       {s.diffuse[0], s.diffuse[1], s.glossy[0], s.glossy[1], s.specular[0], s.specular[1]},
                       {lobes.diffuse[0], lobes.diffuse[1], lobes.glossy[0], lobes.glossy[1], lobes.specular[0],
                        lobes.specular[1], lobes.emission}};
  writeCameraAOVs(ray, terms);
}

bool isFirstSegment(const Ray& ray) {
  return ray.diffuse_bounces == 0 && ray.glossy_bounces == 0 && ray.specular_bounces == 0 && ray.bounces == 0;
}
}  // namespace

void tracePath(Color3f& L, Ray& ray) {
  L = black;
  if (isDark(ray.throughput)) return;
  if (!traceClosest(ray)) {
    shadeSky(L, ray);
    return;
  }
  // Back out of everything it entered yet with an index other than 1: an inconsistent ray.
  const uint8_t crossed = ray.hit.transmissions;
  if (crossed != 0 && crossed % 2 == 0 && std::fabs(1 - ray.ior) >= 1e-8f) return;

  LobeRadiance lobes;
  Surface surface;
  surface.cheap_query = answeredByPatches(ray);
  const Shader& shader = hitShader(ray);
  fillSurface(ray, shader, surface);

  if (!surface.cheap_query) {
    const bool fibre = ray.hit.kind == kindCylinder;
    // Fibres take their direct light and glossy lobe from the hair model.
    if (belowBounceLimit(ray) && !fibre) gatherDirectLight(lobes, ray, surface);
    if (fibre) {
      if (surface.diffuse_on[0] || surface.diffuse_on[1]) shadeHairLambertian(lobes, ray, surface);
    } else {
      if (surface.diffuse_on[0] || surface.diffuse_on[1]) shadeLambertian(lobes, ray, surface);
      if (surface.glossy_on[0] || surface.glossy_on[1]) shadeGlossy(lobes, ray, shader, surface);
      if (surface.specular_on[0] || surface.specular_on[1]) shadeSpecular(lobes, ray, shader, surface);
    }
  }
  if (belowBounceLimit(ray)) shadeVolume(lobes, ray, shader, surface);
  shadeEmission(lobes, ray, shader, surface);
  if (isFirstSegment(ray)) writeFirstHit(ray, surface, lobes);

  L = lobes.diffuse[0] + lobes.diffuse[1] + lobes.glossy[0] + lobes.glossy[1] + lobes.specular[0] + lobes.specular[1] +
      lobes.emission + lobes.volume;
}
