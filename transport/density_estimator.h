// Irradiance patches: a small grid on each side of every face of the root
// object. Photons add their power to the patch they land on, and a path that
// ends early reads the patch where it hit in place of tracing further.
#pragma once

#include <cstdint>

#include "accel/ray.h"
#include "geometry/object.h"

// The bytes that the two colour arrays of one kind may take together.
constexpr uint64_t patchMemoryLimit = 0x40000000;

// The grid of each face for patches of about `resolution` in area, with the
// first patch of each face; faces whose shader has no diffuse colour get
// none. Ends the process with status 1 and a message when the patches of one
// kind would need more than `patchMemoryLimit`. The colour arrays stay untouched.
void sizePatchGrids(Mesh& mesh, float resolution);
// With `resolution` of at least 1e-8: sizes and zeroes the root object's
// patches and reports their memory.
void prepareDensityEstimator();
// Adds power over the area of one patch at a hit of the root object.
void addPatchPower(const Ray& ray, Color3f power);
// What the patch at this hit holds; black where there is none.
Color3f readPatch(const Ray& ray);
void finalizeDensityEstimator();
