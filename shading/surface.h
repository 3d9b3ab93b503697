// What lies at one hit: frame, position, view and the six scattering colours.
// Filled once per hit on the shading thread's stack and never shared.
#pragma once

#include <cstdint>

#include "frame/sampling.h"
#include "frame/vec.h"

// How a ray came to be; the integrator keeps it in the ray that leaves a lobe.
enum RayEvent : uint8_t {
  cameraEvent = 1,
  lightEvent = 2,  // first segment from a light
  diffuseReflectionEvent = 3,
  diffuseTransmissionEvent = 4,
  glossyReflectionEvent = 5,
  glossyTransmissionEvent = 6,
  specularReflectionEvent = 7,
  specularTransmissionEvent = 8,
  volumeEvent = 9,
};

// Microfacet widths of one glossy lobe and the rotation of its tangent.
struct LobeWidth {
  float u = 0;  // along tangent
  float v = 0;  // along bitangent
  float rotation = 0;
};

struct Surface {
  Vec3f tangent, bitangent, normal;  // orthonormal; normal turned towards the viewer
  Vec3f geometric_normal;            // turned towards the viewer
  Vec3f position;
  Vec3f smooth_position;  // on the interpolated surface, where the primitive has one
  Vec3f view;             // unit vector from the hit to the viewer
  float uv[2] = {0, 0};
  float eta = 1;  // 1 / ior on entering, ior on leaving
  float cos_view = 0;
  float hair_t = 0;    // 0 at the root, 1 at the tip
  float hair_h = 0;    // -1 to 1 across the fibre
  Color3f diffuse[2];  // 0 reflection, 1 transmission
  Color3f glossy[2];
  Color3f specular[2];
  LobeWidth alpha[2];
  Color3f jitter;  // radii of the diffuse jitter
  uint8_t hair_lobe = 0;
  uint8_t cheap_query = 0;  // the caller needs no colours
  uint8_t specular_on[2] = {0, 0};
  uint8_t glossy_on[2] = {0, 0};
  uint8_t diffuse_on[2] = {0, 0};
  uint8_t jitter_on = 0;
  // The hit's chain of placements; seeds the procedural layers so instances differ.
  uint32_t instance_id = 0;
};

// Makes `normal` the frame's normal and turns the tangents about it, keeping
// the tangent's direction where it is not parallel to the new normal.
inline void setShadingNormal(Surface& surface, Vec3f normal) {
  surface.normal = normal;
  const Vec3f b = cross(normal, surface.tangent);
  if (lengthSquared(b) < 1e-8f) {
    buildOrthonormalBasis(normal, surface.tangent, surface.bitangent);
    return;
  }
  surface.bitangent = normalize(b);
  surface.tangent = normalize(cross(surface.bitangent, normal));
}
