// The path integrator: the radiance coming back along a ray. At a hit every
// lobe that is on spawns its own rays, so a path is a tree; the first bounce
// spends a sample budget spread over the passes.
#pragma once

#include "accel/ray.h"
#include "shading/shader.h"
#include "shading/surface.h"
#include "transport/lobe_radiance.h"

// The only entry from outside: finds the hit, shades it, and on a path's first
// segment writes the current camera's AOVs.
void tracePath(Color3f& L, Ray& ray);

// The shading steps of a hit. Each adds to its accumulators radiance already
// multiplied by its lobe colours, not by the path's throughput.
void shadeEmission(LobeRadiance& lobes, const Ray& ray, const Shader& shader, const Surface& surface);
void shadeVolume(LobeRadiance& lobes, const Ray& ray, const Shader& shader, const Surface& surface);
void shadeLambertian(LobeRadiance& lobes, const Ray& ray, const Surface& surface);
void shadeGlossy(LobeRadiance& lobes, const Ray& ray, const Shader& shader, const Surface& surface);
void shadeSpecular(LobeRadiance& lobes, const Ray& ray, const Shader& shader, const Surface& surface);
// The diffuse lobe of a fibre: no side test, and it marks the surface's `hair_lobe`.
void shadeHairLambertian(LobeRadiance& lobes, const Ray& ray, Surface& surface);
// The glossy lobes of a fibre, R, TT and TRT; each child's lobe is left in `hair_lobe`.
void shadeHairGlossy(LobeRadiance& lobes, const Ray& ray, const Shader& shader, Surface& surface);
