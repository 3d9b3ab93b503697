// What happens at the boundary of two media: reflectance and refraction.
#pragma once

#include "frame/vec.h"
#include "shading/surface.h"

// Schlick's reflectance for direction d leaving the surface on the side of
// normal n; eta is the ratio of the index on d's side to the far one.
float fresnelSchlick(Vec3f d, Vec3f n, float eta);
// d refracted through a microfacet of normal half, cos being the cosine on
// d's incoming side; past the critical angle it grazes the facet instead.
void refractThrough(Vec3f& refracted, Vec3f d, Vec3f half, float eta, float cos);
// d refracted through the shading normal with the surface's eta; the zero
// vector on total internal reflection.
void refractAtSurface(Vec3f& refracted, Vec3f d, const Surface& surface);
