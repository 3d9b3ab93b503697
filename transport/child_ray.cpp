#include "transport/child_ray.h"

#include <algorithm>
#include <cmath>

#include "transport/path.h"
#include "transport/thread_stack.h"

LobeSamples lobeSamples(const Ray& ray, Color3f T) {
  if (bounceIndex(ray) != 0) return {ray.cursor.index, 1, ray.cursor.index + 1, 1};
  const int sample = renderer.sample, S = passCount();
  // fmin and fmax also keep a NaN or a huge colour inside the int range.
  const float wanted = (T.r + T.g + T.b) * 0.33333334f * float(sample);
  int n = std::max(int(std::fmax(std::fmin(wanted, float(sample)), 0.0f)), S);
  n -= n % S;
  const uint32_t k = uint32_t(n / S);
  if (renderer.sampler == samplerRandom) return {uint32_t(renderer.pass), uint32_t(S), uint32_t(n), k};
  const uint32_t first = uint32_t(renderer.pass) * k;
  return {first, 1, first + k, k};
}

void leavePrimitive(Ray& child, const Hit& hit) {
  child.prev_instance = hit.instance;
  child.prev_object = hit.object;
  child.prev_primitive = hit.primitive;
  child.prev_shader = hit.shader;
  child.prev_kind = hit.kind;
  child.prev_depth = hit.depth;
}

Ray childRay(const Ray& parent, const Surface& surface, uint8_t event, uint32_t index, uint32_t k) {
  Ray child;
  child.origin = surface.position;
  child.weight = parent.weight;
  child.cursor = {index, parent.cursor.dimension, parent.cursor.scramble};
  child.ior = parent.ior;
  child.time = parent.time;
  child.pixel = parent.pixel;
  child.sample_count = parent.sample_count * k;
  child.thread = parent.thread;
  child.diffuse_bounces = parent.diffuse_bounces;
  child.glossy_bounces = parent.glossy_bounces;
  child.specular_bounces = parent.specular_bounces;
  child.bounces = uint8_t(parent.bounces + 1);
  child.parent = &surface;
  leavePrimitive(child, parent.hit);
  child.hit.event = event;
  child.hit.transmissions = parent.hit.transmissions;

  const bool transmission =
      event == diffuseTransmissionEvent || event == glossyTransmissionEvent || event == specularTransmissionEvent;
  if (transmission) ++child.hit.transmissions;
  switch (event) {
    case diffuseReflectionEvent:
    case diffuseTransmissionEvent: ++child.diffuse_bounces; break;
    case glossyReflectionEvent:
    case glossyTransmissionEvent: ++child.glossy_bounces; break;
    case specularReflectionEvent:
    case specularTransmissionEvent: ++child.specular_bounces; break;
  }
  // A specular bounce leaves the dimension, so the bounce index counts the others only.
  if (event != specularReflectionEvent && event != specularTransmissionEvent) child.cursor.dimension += 2;
  if (event == glossyTransmissionEvent || event == specularTransmissionEvent) child.ior *= surface.eta;
  return child;
}

Color3f traceChild(const Ray& parent, Ray& child) {
  Color3f L = black;
  if (int(parent.bounces) + 1 < pathDepthLimit()) tracePath(L, child);
  return L;
}
