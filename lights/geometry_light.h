// The geometry light: every surface whose shader has `geometry_light` set,
// sampled together as one area light. A fixed set of points drawn over those
// surfaces at preparation serves every shading point, weighted against the
// bounces that hit the same surfaces.
#pragma once

#include <cstdint>
#include <istream>
#include <vector>

#include "lights/light.h"

struct Object;

constexpr int geometryLightPointCount = 75353;

struct GeometryLightPoint {
  Vec3f position;
  Vec3f normal;      // turned to the emitting side
  Color3f emission;  // already divided by the number of points
  float area_measure = 0;  // area of the primitive it lies on
  int primitive = -1;
  int shader = 0;
  uint8_t kind = 0;  // 1 particle, 3 triangle, 4 tetragon
  uint8_t front = 1;
};

struct GeometryLight {
  int photon = 0;
  int sample = 0;  // samples per shading point at the first bounce
  float area = 0;  // of all the sides that take part
  Color3f flux = white;  // power of one photon, before the emission colour
  std::vector<GeometryLightPoint> points;
  std::vector<float> cdf;  // selection by the mean emission of a point
  CdfGuide guide;          // of `cdf`
  LightLink link;
  std::vector<CameraAOV> aovs;
};

extern GeometryLight geometryLight;

// One side of one primitive of the emitting surfaces, in world space: the
// object it lies in, the placements around it folded into one matrix, and the
// shader after the innermost placement's substitution.
struct EmitterPick {
  const Object* object = nullptr;
  const Instance* instance = nullptr;  // innermost placement; null at the root
  uint32_t instance_id = 0;
  Matrix4f matrix;  // object space to world space
  uint32_t primitive = 0;
  uint32_t shader = 0;
  uint8_t kind = 0;
  uint8_t front = 1;
};

// A point on a picked side with its frame and the emission there.
struct EmitterPoint {
  Vec3f position;
  Vec3f normal;  // the side's own normal, not yet turned
  float area = 0;
  Color3f emission;
};

// Restores the values of a fresh start; the AOVs that a host added stay.
void resetGeometryLight();
void readGeometryLightBlock(std::istream& file);
// Resolves the link, takes the area from the scene, draws the points and
// their table, prepares the AOVs and reports.
void prepareGeometryLight();
// Writes the AOVs, then frees the points, the table and the AOVs.
void finalizeGeometryLight();

// Picks the side for `index` of `count` along the cumulative area of the
// root object's light faces, descending through placements; false when the
// scene has none.
bool pickEmitter(uint64_t index, uint64_t count, EmitterPick& pick);
// The point of the picked primitive for two numbers in [0, 1], with the
// emission node of the side that shows.
EmitterPoint sampleEmitter(const EmitterPick& pick, float u1, float u2);

// Direct light of the geometry light at a hit, added to the lobes and to its AOVs.
void shadeGeometrySurface(LobeRadiance& lobes, const Ray& ray, const Surface& surface);
// The same at a hit on a fibre, with its diffuse cylinder and glossy lobes.
void shadeGeometryFibre(LobeRadiance& lobes, const Ray& ray, const Surface& surface);
// Fills `ray` for photon `index` of `photon`: a fresh point on the light
// faces, a cosine-weighted direction about its side, and its flux in `weight`.
void emitGeometryPhoton(Ray& ray, uint64_t index);
