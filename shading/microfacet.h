// The glossy lobes: anisotropic Beckmann microfacets with Smith shadowing,
// sampled by their visible normals. `lobe` is 0 for reflection, 1 for
// transmission, and picks the surface's alpha of that index.
#pragma once

#include "frame/sequence.h"
#include "frame/vec.h"
#include "shading/surface.h"

float beckmannD(const Surface& surface, int lobe, Vec3f half);
// Walter's rational approximation of the Smith masking term.
float smithG1(const Surface& surface, int lobe, Vec3f half, Vec3f direction);
// A microfacet normal drawn in proportion to its projected area towards
// local_view, which is given in the surface's frame; half comes out in world space.
bool sampleVisibleNormal(const Surface& surface, int lobe, const SampleCursor& sample, Vec3f local_view,
                         Vec3f& half);

// Scattering functions for light arriving from `light` and leaving to `view`.
float evalGlossyReflection(const Surface& surface, Vec3f view, Vec3f light);
float evalGlossyTransmission(const Surface& surface, Vec3f view, Vec3f light);
// Densities of the half vector of (view, light) under sampleVisibleNormal.
float pdfGlossyReflection(const Surface& surface, Vec3f view, Vec3f light);
float pdfGlossyTransmission(const Surface& surface, Vec3f view, Vec3f light);
