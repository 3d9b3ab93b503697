// The sky as seen: by rays that leave the scene, and as direct light at a hit,
// the two joined by the balance heuristic.
#include "accel/bbvh.h"
#include "frame/renderer.h"
#include "lights/sky.h"
#include "output/camera.h"
#include "shading/hair_scattering.h"
#include "shading/microfacet.h"

namespace {
constexpr float pi = 3.14159265f;
const TextureNode plainLookup;

// Camera rays see the backdrop image laid over the frame, pixel for pixel.
Color3f backdropColor(const Ray& ray) {
  const Camera& camera = cameras[renderer.camera];
  const uint32_t width = uint32_t(camera.width);
  const float u = float(ray.pixel % width) / float(camera.width);
  const float v = float(ray.pixel / width) / float(camera.height);
  return sampleImage(sky.backdrop, u, v, plainLookup);
}

// Density of the lobe that made an escaped ray, in the measure of the sky's weights.
float lobeDensity(const Ray& ray) {
  const Surface& parent = *ray.parent;
  if (ray.prev_kind == kindCylinder) return fibreDensity(parent, ray.prev_shader, ray.hit.event, ray.direction);
  switch (ray.hit.event) {
    case diffuseReflectionEvent: return dot(ray.direction, parent.normal) / pi;
    case diffuseTransmissionEvent: return -dot(ray.direction, parent.normal) / pi;
    default: return pdfGlossyReflection(parent, parent.view, ray.direction);
  }
}

// One sky sample at a fibre: its diffuse cylinder and its glossy lobes, each
// weighted against its own density.
void addFibreSkySample(const Ray& ray, const Surface& surface, Vec3f l, Color3f L, float ps, bool firstBounce,
                       Color3f accumulators[4]) {
  const ShaderHair& hair = hairOfShader(ray.hit.shader);
  const float Ns = float(sky.sample), Nb = float(renderer.sky_light_sample);
  auto weightOf = [&](float pb) { return firstBounce ? Ns / (Nb * pb + Ns * ps) : 1 / (pb + ps); };
  if (surface.diffuse_on[0]) {
    const float d = hairDiffuse(surface.view, l, surface.tangent);
    accumulators[0] += L * (weightOf(d) * d);
  }
  if (surface.glossy_on[0]) {
    Color3f colours[3];
    float densities[3];
    evalHairLobes(hair, surface.view, l, surface.tangent, surface.hair_h, colours, densities);
    for (int p = 0; p < 3; ++p) accumulators[2] += L * colours[p] * weightOf(densities[p]);
  }
}

// One sky sample at a hit, added to the four accumulators.
void addSkySample(const Ray& ray, const Surface& surface, uint32_t index, float weight, bool firstBounce, bool fibre,
                  Color3f accumulators[4]) {
  float u1, u2, p;
  int face, a, b;
  samplePair({index, ray.cursor.dimension, ray.cursor.scramble}, u1, u2);
  sampleSkyCell(u1, u2, face, a, b, p);
  // Only an all-black image gives a cell of no probability; it has nothing to give.
  if (!(p > 0)) return;
  const Vec3f l = skyCellDirection(face, float(a), float(b));
  const float ps = p * float(skyCellCount) / (4 * pi);
  // A fibre has no sides: light from every direction reaches it.
  if (fibre) {
    if (!surface.diffuse_on[0] && !surface.glossy_on[0]) return;
    const Color3f T = shadowTransmittance(ray, ray.hit, surface.position, l, infinity);
    if (isOn(T))
      addFibreSkySample(ray, surface, l, sky.cells[skyCellIndex(face, a, b)] * sky.color * T * weight, ps, firstBounce,
                        accumulators);
    return;
  }
  const float c = dot(l, surface.normal), cg = dot(l, surface.geometric_normal);
  const bool front = (surface.diffuse_on[0] || surface.glossy_on[0]) && c > 0 && cg > 0;
  const bool back = (surface.diffuse_on[1] || surface.glossy_on[1]) && c < 0 && cg < 0;
  if (!front && !back) return;
  const Color3f T = shadowTransmittance(ray, ray.hit, surface.position, l, infinity);
  if (!isOn(T)) return;
  const Color3f L = sky.cells[skyCellIndex(face, a, b)] * sky.color * T * weight;
  const float Ns = float(sky.sample), Nb = float(renderer.sky_light_sample);
  auto add = [&](Color3f& accumulator, float f, float pb) {
    const float w = firstBounce ? Ns / (Nb * pb + Ns * ps) : 1 / (pb + ps);
    accumulator += L * (w * f);
  };
  if (front) {
    if (surface.diffuse_on[0]) add(accumulators[0], c / pi, c / pi);
    if (surface.glossy_on[0])
      add(accumulators[2], evalGlossyReflection(surface, surface.view, l) * c,
          pdfGlossyReflection(surface, surface.view, l));
  } else {
    if (surface.diffuse_on[1]) add(accumulators[1], -c / pi, -c / pi);
    if (surface.glossy_on[1])
      add(accumulators[3], -evalGlossyTransmission(surface, surface.view, l) * c,
          pdfGlossyTransmission(surface, surface.view, l));
  }
}
}  // namespace

Color3f skyRadiance(const Ray& ray) {
  if (hasPixels(sky.backdrop) && ray.bounces == 0 && size_t(renderer.camera) < cameras.size())
    return backdropColor(ray);
  if (!hasPixels(sky.image)) return sky.color;
  // Deep rays read the resampled cells instead of the full image.
  if (ray.bounces > 1 && !sky.cells.empty()) return sky.color * skyCellColor(ray.direction);
  float u, v;
  skyImageCoordinates(ray.direction, u, v);
  return sky.color * sampleImage(sky.image, u, v, plainLookup);
}

void shadeSky(Color3f& L, const Ray& ray) {
  L = black;
  if (!linkAllows(sky.link, ray.prev_shader)) return;
  const Color3f R = skyRadiance(ray);
  const uint8_t event = ray.hit.event;
  const uint32_t bounce = bounceIndex(ray);
  const bool weighted = sky.sample > 0 && bounce > 0 && event >= diffuseReflectionEvent &&
                        event <= glossyReflectionEvent && ray.hit.transmissions % 2 == 0 && ray.parent;
  if (!weighted) {
    L = R;
  } else if (isOn(R)) {
    const float pl = skyDensity(ray.direction);
    const float pb = lobeDensity(ray);
    if (!(pb > 0)) return;
    const float Ns = float(sky.sample), Nb = float(renderer.sky_light_sample);
    L = R * (bounce < 2 ? Nb * pb / (Ns * pl + Nb * pb) : pb / (pb + pl));
  }
  addToLightAOVs(sky.aovs, lightAOVBits(ray), L, ray);
}

namespace {
void shadeWithSky(LobeRadiance& lobes, const Ray& ray, const Surface& surface, bool fibre) {
  if (sky.sample <= 0 || sky.cells.empty()) return;
  if (!linkAllows(sky.link, ray.hit.shader)) return;
  Color3f accumulators[4];
  const uint32_t bounce = bounceIndex(ray);
  if (bounce == 0) {
    const int N = firstBounceSampleCount(surface, ray, sky.sample);
    const int P = passCount();
    const float weight = float(P) / float(N);
    for (int i = renderer.pass; i < N; i += P)
      addSkySample(ray, surface, uint32_t(i), weight, true, fibre, accumulators);
  } else if (bounce < uint32_t(renderer.bounce)) {
    addSkySample(ray, surface, ray.cursor.index, 1, false, fibre, accumulators);
  } else {
    return;
  }
  finishDirectLight(accumulators, surface, lobes, sky.aovs, ray);
}
}  // namespace

void shadeSkySurface(LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  shadeWithSky(lobes, ray, surface, false);
}

void shadeSkyFibre(LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  shadeWithSky(lobes, ray, surface, true);
}
