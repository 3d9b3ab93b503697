// The three walks of an object's eight-lane hierarchy and what they share at
// the crossing into a placement.
#pragma once

#include <cstdint>

#include "accel/ray.h"

struct Object;
struct Instance;

// Leaves the nearest hit below `object` in the ray; true when this call or one below it found one.
bool intersectClosest(const Object& object, Ray& ray);
// The closest walk over triangles, tetragons and placements only, with unit
// directions inside placements; for short probes along a surface.
bool intersectProbe(const Object& object, Ray& ray);
// Multiplies `throughput` to black at the first blocker below `object`.
void intersectShadow(const Object& object, Ray& ray);
// Scalar slab test of one box against the ray up to `ray.t`.
bool intersectBox(Vec3f min, Vec3f max, const Ray& ray, float& near, float& far);

inline bool isBlocked(const Ray& ray) {
  return ray.throughput.r <= 1e-6f && ray.throughput.g <= 1e-6f && ray.throughput.b <= 1e-6f;
}

// What a walk changes on entering a placement, to be put back when it leaves.
struct SavedFrame {
  Vec3f origin, direction, inv_direction;
  const Instance* instance;
  uint32_t instance_id;
};

// Brings the ray into the placement's space: the origin through `inverse`
// with the homogeneous divide, the direction through `inverse3` and not
// renormalised (unless asked), so that `t` keeps its meaning.
SavedFrame enterPlacement(Ray& ray, const Instance& placement, bool renormalise);
void leavePlacement(Ray& ray, const SavedFrame& saved);
// The running identity of a chain of placements after entering placement i.
inline uint32_t hashInstanceId(uint32_t id, uint32_t i) { return ((id ^ 0x811C9DC5u) * 0x01000193u ^ i) * 0x01000193u; }
