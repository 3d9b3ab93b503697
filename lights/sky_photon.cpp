// Photons from the sky: from a disk of the scene's size, one radius outside
// it, in a direction drawn from the sky's tables.
#include "geometry/scene_assembly.h"
#include "lights/sky.h"

void emitSkyPhoton(Ray& ray, uint64_t index) {
  Vec3f d;
  Color3f flux;
  if (sky.cells.empty()) {
    float u1 = radicalInverse(index, 2), u2 = radicalInverse(index, 3);
    emissionPair(index, decidePhotonDirection, u1, u2);
    sampleSphere(d, u1, u2);
    flux = sky.flux * sky.color;
  } else {
    float u1, u2, p;
    int face, a, b;
    // Bases 2 and 3 are the first two dimensions.
    drawPair({uint32_t(index), 0, photonScramble()}, u1, u2);
    sampleSkyCell(u1, u2, face, a, b, p);
    d = skyCellDirection(face, float(a), float(b));
    flux = p >= 1e-8f ? sky.cells[skyCellIndex(face, a, b)] * sky.color * sky.flux / (p * float(skyCellCount)) : black;
  }
  float x, y, v1 = radicalInverse(index, 5), v2 = radicalInverse(index, 7);
  emissionPair(index, decidePhotonOrigin, v1, v2);
  diskPoint(v1, v2, x, y);
  Vec3f t, b;
  buildOrthonormalBasis(-d, t, b);
  ray.origin = sceneCenter + sceneRadius * (x * t + y * b + d);
  ray.direction = -d;
  startPhoton(ray, index, 4, sky.ior);
  ray.weight = flux / float(sky.photon);
  skyPhoton.store(1, std::memory_order_relaxed);
}
