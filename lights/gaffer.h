// The gaffer: point lights, with an optional spot cone and size, and parallel
// lights, with an optional angular blur. Two arrays addressed by index.
#pragma once

#include <istream>
#include <vector>

#include "lights/light.h"

struct ParallelLight : Light {
  void reset() override;
  void emit(Ray& ray, uint64_t index) const override;
};

struct PointLight : Light {
  void reset() override;
  void emit(Ray& ray, uint64_t index) const override;

  uint8_t all_directions = 0;  // photons over the whole sphere, not in a cone at the scene
  Vec3f position;
  Vec3f direction{0, 1, 0};  // spot axis
  float inner_radians = 0;
  float outer_radians = 3.14159265f;
  float inner_angle = 0;    // degrees: full intensity up to here
  float outer_angle = 180;  // degrees: no light from here on
};

extern std::vector<PointLight> pointLights;
extern std::vector<ParallelLight> parallelLights;

// The keys that both kinds read into the shared record; false for any other key.
bool readLightKey(SceneLine& line, std::istream& file, Light& light);
void readPointLightBlock(std::istream& file, PointLight& light);
void readParallelLightBlock(std::istream& file, ParallelLight& light);

void preparePointLight(PointLight& light);
void prepareParallelLight(ParallelLight& light);
// Parallel lights first, then point lights, then their two memory rows.
void prepareGaffer();
void freePointLights();
void freeParallelLights();

// Linear ramp from 1 inside the inner angle to 0 at the outer one; d points away from the light.
float spotFactor(const PointLight& light, Vec3f d);

// Direct light of one light at a hit, added to the integrator's lobes and the light's AOVs.
void shadeSurface(PointLight& light, LobeRadiance& lobes, const Ray& ray, const Surface& surface);
void shadeSurface(ParallelLight& light, LobeRadiance& lobes, const Ray& ray, const Surface& surface);
// The same at a hit on a fibre: its diffuse and glossy lobes only.
void shadeFibre(PointLight& light, LobeRadiance& lobes, const Ray& ray, const Surface& surface);
void shadeFibre(ParallelLight& light, LobeRadiance& lobes, const Ray& ray, const Surface& surface);
