// The state of one ray segment: what a query needs, what it answers, and the
// path state that the camera starts and the integrator carries from parent to child.
#pragma once

#include <cstdint>

#include "frame/sequence.h"
#include "frame/vec.h"

struct Object;
struct Instance;
struct Surface;

// What the nearest hit was; `event` and `transmissions` are path state, not results.
struct Hit {
  const Instance* instance = nullptr;  // placement of the hit primitive; null at the root
  const Object* object = nullptr;      // object holding the primitive
  uint32_t instance_id = 0;
  uint32_t primitive = uint32_t(-1);  // index in its kind's array; -1 before a hit
  uint32_t shader = 0;                // after the placement's substitution
  uint8_t kind = 0;                   // 0 nothing, 1 particle, 2 cylinder, 3 triangle, 4 tetragon
  uint8_t depth = 0;                  // placements entered on the way to the hit
  uint8_t event = 0;                  // how this ray came to be: 1 camera, 2 light, 3 to 8 lobes, 9 volume
  uint8_t transmissions = 0;          // surfaces crossed on this path
};

struct Ray {
  Vec3f origin;
  Vec3f direction;  // unit at the scene level; inside a placement the transformed vector
  Vec3f inv_direction;
  // By kind: particle, offset from the centre; cylinder, [2] the position along the
  // segment; triangle, the three vertex weights; tetragon, u and v.
  float coords[3] = {0, 0, 0};
  float across = 0;  // cylinders: offset across the fibre, -1 to 1
  Color3f throughput = white;
  Color3f weight = white;
  SampleCursor cursor;
  float t = infinity;  // in: far limit; out: distance of the nearest hit
  float facing = 0;    // above 0: the front was hit
  float ior = 1;
  float time = 0;
  uint32_t pixel = 0;         // y times width plus x
  uint32_t sample_count = 1;  // samples of this pixel the ray stands for; divides the AOV writes
  uint32_t thread = 0;        // selects this thread's rows of the instance transform table
  uint8_t diffuse_bounces = 0, glossy_bounces = 0, specular_bounces = 0, bounces = 0;
  const Surface* parent = nullptr;
  const Instance* instance = nullptr;  // placement being walked; null at the root
  uint32_t instance_id = 0;
  uint32_t instance_depth = 0;
  uint32_t placements_entered = 0;  // by this walk from the root, against graphs that multiply
  // Where the primitive this ray left lies, so that it is not hit again.
  const Instance* prev_instance = nullptr;
  const Object* prev_object = nullptr;
  uint32_t prev_primitive = uint32_t(-1);
  uint32_t prev_shader = 0;
  uint8_t prev_kind = 0, prev_depth = 0;
  Hit hit;
};

// The cursor of one decision of this path's sample `index`.
inline SampleCursor decisionCursor(const Ray& ray, uint32_t index, uint32_t decision) {
  return decisionCursor(ray.cursor, ray.bounces, index, decision);
}

// Finds the nearest hit below the root object. The caller has cleared `hit`'s
// kind, primitive and references; `t` and the hit fields answer.
bool traceClosest(Ray& ray);
// True when the segment of length `ray.t` is blocked; the primitive named by
// `hit.kind` and `hit.primitive` is passed over so that a ray aimed at it arrives.
bool traceShadow(Ray& ray);

// 1 / each component of `direction`.
inline void updateInverseDirection(Ray& ray) {
  ray.inv_direction = {1.0f / ray.direction.x, 1.0f / ray.direction.y, 1.0f / ray.direction.z};
}

// The normal matrices of the placements around the present nearest hit of
// this thread, outermost first; rows 0 to `hit.depth - 1` are valid.
const float (*instanceNormalMatrices(uint32_t thread))[9];
// Records the normal matrix of the placement entered at `depth` (1 the outermost);
// levels beyond the table's 16 rows are not recorded.
void storeInstanceNormalMatrix(uint32_t thread, uint32_t depth, const float* matrix);
