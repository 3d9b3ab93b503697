// The state of one ray segment: what the camera starts, the queries fill and a path carries.
// Only the fields the camera and the render loop use so far; the query fields join them in order.
#pragma once

#include <cstdint>

#include "frame/sampling.h"
#include "frame/vec.h"

struct Hit {
  uint32_t primitive = uint32_t(-1);  // index in its kind's array; -1 before a hit
  uint8_t kind = 0;                   // 0 nothing, 1 particle, 2 cylinder, 3 triangle, 4 tetragon
  uint8_t event = 0;                  // how this ray came to be: 1 camera, 2 light, 3 to 8 lobes, 9 volume
  uint8_t transmissions = 0;          // surfaces crossed on this path
};

struct Ray {
  Vec3f origin;
  Vec3f direction;
  float coords[3] = {0, 0, 0};  // what the primitive test leaves for the hit's vertex weights
  Color3f throughput = white;
  SampleCursor cursor;
  float ior = 1;
  float time = 0;
  uint32_t pixel = 0;         // y times width plus x
  uint32_t sample_count = 1;  // samples of this pixel the ray stands for; divides the AOV writes
  uint32_t thread = 0;
  uint8_t diffuse_bounces = 0, glossy_bounces = 0, specular_bounces = 0, bounces = 0;
  uint32_t prev_primitive = uint32_t(-1);
  uint8_t prev_kind = 0;
  Hit hit;
};
