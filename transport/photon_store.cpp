// The store's records and the RGBE form of a photon's power.
#include <cmath>

#include "transport/photon.h"

PhotonStore photonStore;
GatherCache gatherCache[maxThreads];

void encodePower(Color3f power, uint8_t rgbe[4]) {
  const float m = maxComponent(power);
  int e = 0;
  const float f = std::frexp(m, &e);
  // e + 128 must fit the exponent byte; a NaN fails both tests.
  if (!(m >= 1e-32f) || e > 127) {
    rgbe[0] = rgbe[1] = rgbe[2] = rgbe[3] = 0;
    return;
  }
  for (int c = 0; c < 3; ++c) {
    const float byte = std::trunc(power[c] * f * 256 / m);
    rgbe[c] = uint8_t(std::fmin(std::fmax(byte, 0.0f), 255.0f));
  }
  rgbe[3] = uint8_t(e + 128);
}

Color3f decodePower(const uint8_t rgbe[4]) {
  if (rgbe[3] == 0) return black;
  const float scale = ExponentTable[rgbe[3]];
  return {rgbe[0] * scale, rgbe[1] * scale, rgbe[2] * scale};
}

void clearPhotons() {
  photonStore.photons.clear();
  photonStore.photons.shrink_to_fit();
  photonStore.nodes.clear();
  photonStore.nodes.shrink_to_fit();
  photonStore.bounds = Box();
  photonStore.radius = photonStore.radius2 = 0;
}
