// Direction samplers over simple shapes: hemispheres, the sphere and a cone.
// The samplers with a cursor draw its low-discrepancy pair.
#pragma once

#include "frame/sequence.h"
#include "frame/vec.h"
#include "shading/surface.h"

// Three orthonormal rows; the third is the axis of hemispheres and cones.
struct Frame {
  Vec3f tangent, bitangent, normal;
};

inline Frame frameOf(const Surface& surface) { return {surface.tangent, surface.bitangent, surface.normal}; }

// Cosine-weighted about the frame's normal, by the concentric disk map.
void sampleHemisphere(Vec3f& direction, const Frame& frame, const SampleCursor& sample);
// The same below the frame's normal.
void sampleLowerHemisphere(Vec3f& direction, const Frame& frame, const SampleCursor& sample);
// Uniform over the unit sphere in world axes.
void sampleSphere(Vec3f& direction, float u1, float u2);
// Uniform over the cap of directions within acos(cos_max) of the frame's normal.
void sampleCone(Vec3f& direction, const Frame& frame, const SampleCursor& sample, float cos_max);
