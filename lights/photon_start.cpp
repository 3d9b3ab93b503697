// What the emitters of all light kinds share.
#include <omp.h>

#include <cmath>

#include "frame/sequence.h"
#include "lights/light.h"

std::atomic<uint8_t> skyPhoton{0};

void startPhoton(Ray& ray, uint64_t index, uint32_t dimension, float ior) {
  ray.throughput = white;
  ray.hit.event = lightEvent;
  ray.diffuse_bounces = ray.glossy_bounces = ray.specular_bounces = ray.bounces = 0;
  ray.thread = uint32_t(omp_get_thread_num());
  ray.prev_kind = 0;
  ray.prev_primitive = uint32_t(-1);
  ray.prev_instance = nullptr;
  ray.prev_object = nullptr;
  ray.ior = ior;
  // The sobol sampler scrambles the photons' sequence by the seed, and restarts
  // the stream of cut-outs for each photon so that threads do not share it.
  const uint32_t scramble = photonScramble();
  ray.cursor = {uint32_t(index), dimension, scramble};
  startLooseStream(scramble, uint32_t(index));
}

void diskPoint(float u1, float u2, float& x, float& y) {
  constexpr float quarterPi = 0.78539816f;
  const float a = 2 * u1 - 1, b = 2 * u2 - 1;
  float r, phi;
  if (a * a <= b * b) {
    // b is 0 only at the centre, where the angle does not matter.
    phi = 2 * quarterPi - (b != 0 ? a / b : 0) * quarterPi;
    r = b;
  } else {
    phi = (b / a) * quarterPi;
    r = a;
  }
  x = r * std::cos(phi);
  y = r * std::sin(phi);
}
