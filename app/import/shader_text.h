// The rules that turn an imported material into a `shader` block.
#pragma once

#include <string>

#include "app/import/imported_scene.h"

// Below this roughness a lobe is a mirror: the glossy lobe would join the
// mirror lobe without its Fresnel term.
constexpr float mirrorRoughness = 0.01f;

// A roughness value for the Phong exponent Ns: the Beckmann width
// sqrt(2 / (Ns + 2)) is the square of the value written.
float roughnessOfShininess(float shininess);

// The index of refraction whose Fresnel term at normal incidence is the blend
// of the dielectric's and a metal's (0.999) by `metallic`.
float metallicIor(float ior, float metallic);

bool isEmissive(const ImportedMaterial& material);

// The whole block, with image paths under image/.
std::string shaderText(const ImportedMaterial& material, const ImportedScene& scene);

// A float that reads back to the same bits.
std::string exact(float value);
