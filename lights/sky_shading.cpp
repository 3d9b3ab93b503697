// The sky as seen: by rays that leave the scene, and as direct light at a hit,
// the two joined by the balance heuristic.
#include "frame/renderer.h"
#include "lights/sky.h"
#include "output/camera.h"

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

// One sky sample at a hit, added to the four accumulators.
void addSkySample(const Ray& ray, const Surface& surface, uint32_t index, float weight, bool firstBounce, bool fibre,
                  Color3f accumulators[4]) {
  float u1, u2, p;
  int face, a, b;
  drawPair(decisionCursor(ray, index, decideSkyCell), u1, u2);
  sampleSkyCell(u1, u2, face, a, b, p);
  // Only an all-black image gives a cell of no probability; it has nothing to give.
  if (!(p > 0)) return;
  const Vec3f l = skyCellDirection(face, float(a), float(b));
  // A fibre has no sides: light from every direction reaches it.
  const int side = fibre ? 1 : lightSide(surface, l);
  if (side == 0) return;
  const Color3f T = shadowTransmittance(ray, ray.hit, surface.position, l, infinity);
  if (!isOn(T)) return;
  const Color3f L = sky.cells[skyCellIndex(face, a, b)] * sky.color * T * weight;
  const float ps = p * float(skyCellCount) / (4 * pi);
  const LightBalance balance{firstBounce, float(sky.sample), float(renderer.sky_light_sample)};
  if (fibre)
    addBalancedFibreSample(accumulators, ray, surface, l, L, ps, balance);
  else
    addBalancedSample(accumulators, surface, l, side, L, white, ps, balance);
}

void shadeWithSky(LobeRadiance& lobes, const Ray& ray, const Surface& surface, bool fibre) {
  if (sky.sample <= 0 || sky.cells.empty()) return;
  if (!linkAllows(sky.link, ray.hit.shader)) return;
  Color3f accumulators[4];
  const uint32_t bounce = bounceIndex(ray);
  if (bounce == 0) {
    const int N = firstBounceSampleCount(surface, ray, sky.sample);
    const float weight = float(passCount()) / float(N);
    const PassShare share = passShare(N);
    for (uint32_t j = 0; j < share.count; ++j)
      addSkySample(ray, surface, share.index(j), weight, true, fibre, accumulators);
  } else if (bounce < uint32_t(renderer.bounce)) {
    addSkySample(ray, surface, ray.cursor.index, 1, false, fibre, accumulators);
  } else {
    return;
  }
  finishDirectLight(accumulators, surface, lobes, sky.aovs, ray);
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
    const float pb = bounceDensity(ray);
    if (!(pb > 0)) return;
    const float Ns = float(sky.sample), Nb = float(renderer.sky_light_sample);
    L = R * (bounce < 2 ? Nb * pb / (Ns * pl + Nb * pb) : pb / (pb + pl));
  }
  addToLightAOVs(sky.aovs, lightAOVBits(ray), L, ray);
}

void shadeSkySurface(LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  shadeWithSky(lobes, ray, surface, false);
}

void shadeSkyFibre(LobeRadiance& lobes, const Ray& ray, const Surface& surface) {
  shadeWithSky(lobes, ray, surface, true);
}
