#include "accel/bbvh.h"
#include "frame/renderer.h"
#include "lights/geometry_light.h"
#include "transport/density_estimator.h"
#include "transport/path.h"

namespace {
// The share of an emitting surface found by a lobe's bounce, when the
// geometry light also samples it: the balance heuristic against the light's
// density of uniform area sampling. Specular paths leave it to the photons.
float bounceShareOfLight(const Ray& ray, const Surface& surface) {
  const uint8_t event = ray.hit.event;
  if (event < diffuseReflectionEvent || event > glossyTransmissionEvent || !(surface.cos_view > 0) || !ray.parent)
    return 0;
  const GeometryLight& g = geometryLight;
  const float pl = g.area > 0 ? ray.t * ray.t / (g.area * surface.cos_view) : 0;
  const float pb = bounceDensity(ray);
  if (!(pb > 0)) return 0;
  const float Ng = float(g.sample), Nb = float(renderer.geometry_light_sample);
  return bounceIndex(ray) < 2 ? Nb * pb / (Ng * pl + Nb * pb) : pb / (pb + pl);
}

bool sampledByGeometryLight(const Ray& ray, const Shader& shader) {
  if (!(shader.geometry_light[0] || shader.geometry_light[1]) || geometryLight.sample == 0) return false;
  if (ray.diffuse_bounces + ray.glossy_bounces == 0) return false;
  // Fibres take no samples of the geometry light, so what their bounces find counts in full.
  if (ray.prev_kind == kindCylinder) return false;
  const uint8_t event = ray.hit.event;
  return !((event == specularReflectionEvent || event == specularTransmissionEvent) && geometryLight.photon == 0);
}
}  // namespace

void shadeEmission(LobeRadiance& lobes, const Ray& ray, const Shader& shader, const Surface& surface) {
  // A path that ends here takes what the photons left on this patch.
  Color3f E = surface.cheap_query && shader.diffuse_present[0] ? readPatch(ray) : black;
  if (linkAllows(geometryLight.link, ray.prev_shader)) {
    // A two-sided emitter seen from behind shows its back node.
    const int side = shader.two_sided && !(ray.facing > 0) ? 1 : 0;
    const Color3f M = evaluateColor(channelNode(shader, emissionChannel, side), surface);
    E += sampledByGeometryLight(ray, shader) ? M * bounceShareOfLight(ray, surface) : M;
    addToLightAOVs(geometryLight.aovs, lightAOVBits(ray), E, ray, int(ray.hit.shader));
  }
  lobes.emission += E;
}
