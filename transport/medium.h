// What the medium inside a shader's surface does to a ray that ran through it.
#pragma once

#include "accel/ray.h"
#include "shading/shader.h"

// A ray with an odd number of transmissions ran inside the hit shader's
// medium: both results of a glossy or specular step fade by the attenuation
// colour to the power of the distance run.
void attenuateInMedium(Color3f (&lobe)[2], const Ray& ray, const Shader& shader);
