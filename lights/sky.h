// The sky: one light around the whole scene, a constant colour or an
// environment image. The image is resampled into a warped cube of 6 x 256 x 256
// cells of nearly equal solid angle, and a two-level table over the cells
// drives importance sampling for direct light, escaped rays and photons.
#pragma once

#include <istream>
#include <vector>

#include "lights/light.h"
#include "shading/image.h"
#include "shading/volume.h"

constexpr int skyFaceSize = 256;
constexpr int skyRowCount = 6 * skyFaceSize;
constexpr int skyCellCount = skyRowCount * skyFaceSize;  // 393216

// One row of cells: a face and its a; the cumulative table runs over b.
struct SkyRow {
  int count = skyFaceSize;
  float cdf[skyFaceSize] = {};
  double sum = 0;
};

struct SkyLight {
  float albedo = 0.2f;      // read, never used
  float stretch = 0.1f;     // read, never used
  float thickness = 1000;   // read, never used
  float ior = 1;            // index of refraction that sky photons start in
  float turbidity = 9;      // read, never used
  Color3f color{0.75f, 0.75f, 0.75f};  // the colour, or the multiplier of the image
  Vec3f sun{1, 2, 1};                  // normalised at preparation, read by nothing
  Vec3f east{1, 0, 0}, north{0, 1, 0}, zenith{0, 0, 1};
  float to_world[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // transpose of the basis
  ShaderVolume volume;  // the medium around the scene
  Color3f flux;         // 4 pi R^2 when photons are cast
  int photon = 0;
  int sample = 64;
  Image image;          // the environment
  Image backdrop;       // what camera rays see instead
  Image spare_image;    // loaded and freed with the others; nothing names it
  std::vector<Color3f> cells;  // ((face 256 + b) 256 + a)
  std::vector<float> row_cdf;  // over rows, row = face 256 + a
  std::vector<SkyRow> rows;
  LightLink link;  // the shaders that see the sky
  std::vector<CameraAOV> aovs;

  SkyLight() { image.name = "undefined"; }
};

extern SkyLight sky;

// Loaded with a size: an image that failed, or of a type without pixels, has none.
inline bool hasPixels(const Image& image) { return image.loaded && image.width > 0 && image.height > 0; }

// Restores the defaults; the AOVs that a host added stay.
void resetSkyLight();
void readSkyLightBlock(std::istream& file);
void prepareSky();
// Writes the sky's AOVs, then frees its tables, images and AOVs.
void finalizeSky();

// The warped cube. A cell's centre is (a + 0.5, b + 0.5).
Vec3f skyCellDirection(int face, float a, float b);
void skyCell(Vec3f d, int& face, int& a, int& b);
inline int skyCellIndex(int face, int a, int b) { return (face * skyFaceSize + b) * skyFaceSize + a; }
// Latitude-longitude coordinates of a world direction in the sky's basis.
void skyImageCoordinates(Vec3f d, float& u, float& v);
// 1024 round trips through the cube; prints an error line for each that fails.
void testSkyCube();

// Fills the cells, the rows and the row table from the loaded image.
void buildSkyTables();
// A cell drawn from two numbers in [0, 1] with its probability p(row) p(cell).
void sampleSkyCell(float u1, float u2, int& face, int& a, int& b, float& probability);
// The resampled colour of the cell that d falls in.
Color3f skyCellColor(Vec3f d);
// Density of the sky's own sampling in the direction d, per solid angle.
float skyDensity(Vec3f d);

// What a ray that leaves the scene sees.
Color3f skyRadiance(const Ray& ray);
// An escaped ray's radiance, weighted against the sky's sampling after a
// diffuse or glossy event; also fills the sky's AOVs.
void shadeSky(Color3f& L, const Ray& ray);
// Direct light of the sky at a hit, added to the lobes and the sky's AOVs.
void shadeSkySurface(LobeRadiance& lobes, const Ray& ray, const Surface& surface);
// The same at a hit on a fibre, with its diffuse cylinder and glossy lobes.
void shadeSkyFibre(LobeRadiance& lobes, const Ray& ray, const Surface& surface);
// Fills `ray` for sky photon `index`.
void emitSkyPhoton(Ray& ray, uint64_t index);
