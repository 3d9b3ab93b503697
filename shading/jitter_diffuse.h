// Cheap translucency: the diffuse lobes of a surface with a `jitter` colour
// leave from a nearby point of the same shader instead of the hit itself.
#pragma once

#include "accel/ray.h"
#include "frame/vec.h"
#include "shading/surface.h"

// One try: a random chord within the largest jitter radius of the hit is
// probed for a surface of the hit's shader. On success `jittered` is that
// surface, its normals turned to the side the ray hit, `jitteredHit` names
// its primitive, and `weight` scales the diffuse colour per channel. A jitter
// colour with a zero channel gives that channel a NaN weight.
bool jitterDiffuse(const Ray& ray, const Surface& surface, Surface& jittered, Hit& jitteredHit, Color3f& weight);
