// One sample of a glossy lobe, shared by camera paths and photons.
#pragma once

#include "frame/sampling.h"
#include "shading/surface.h"

// The direction that glossy `lobe` (0 reflection, 1 transmission) sends a ray
// arriving along `in`, from a visible normal drawn with `cursor`, and its
// weight: the masking term times the Fresnel share of the lobe. False when
// the lobe is off, takes no share, or the direction lands on the wrong side
// of the geometric normal. `localView` is -in in the surface's frame.
bool sampleGlossyLobe(const Surface& surface, int lobe, const SampleCursor& cursor, Vec3f localView, Vec3f in,
                      bool renormalise, Vec3f& d, float& w);
