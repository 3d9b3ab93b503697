// The sky light's state: defaults, exports, the sky_light block, preparation and teardown.
#include "lights/sky.h"

#include <cmath>

#include "frame/report.h"
#include "geometry/scene_assembly.h"
#include "qz.h"
#include "shading/shader.h"

namespace {
constexpr float pi = 3.14159265f;

// The environment's basis: north kept, zenith made orthogonal to it.
void orthonormaliseBasis() {
  sky.north = normalize(sky.north);
  sky.east = normalize(cross(sky.north, normalize(sky.zenith)));
  sky.zenith = normalize(cross(sky.east, sky.north));
  const Vec3f basis[3] = {sky.east, sky.north, sky.zenith};
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) sky.to_world[i * 3 + j] = basis[j][i];
  sky.sun = normalize(sky.sun);
}

void reportSky() {
  printIntegerRow("sky light  width", sky.image.width, "n/a");
  printIntegerRow("sky light height", sky.image.height, "n/a");
  printIntegerRow("sky light sample", sky.sample, "n/a");
  int64_t bytes = imageMemory(sky.image) + skyCellCount;
  for (const CameraAOV& aov : sky.aovs) bytes += aovBytes(aov);
  printBytesRow("sky light memory", bytes);
}
}  // namespace

SkyLight sky;

void resetSkyLight() {
  std::vector<CameraAOV> aovs = std::move(sky.aovs);
  sky = SkyLight();
  sky.aovs = std::move(aovs);
}

void readSkyLightBlock(std::istream& file) {
  SceneLine line;
  while (nextKey(file, line)) {
    if (readAOVOrLinkKey(line, file, sky.aovs, sky.link)) continue;
    if (line.key == "image") {
      sky.image.name = readQuotedString(line);
    } else if (line.key == "backdrop") {
      sky.backdrop.name = readQuotedString(line);
    } else if (line.key == "color") {
      readFloats(line, &sky.color.r, 3);
    } else if (line.key == "photon") {
      readCount(line, sky.photon, "sky_light", int(photonsFinished));
    } else if (line.key == "north") {
      readFloats(line, &sky.north.x, 3);
    } else if (line.key == "zenith") {
      readFloats(line, &sky.zenith.x, 3);
    } else if (line.key == "volume_shader") {
      readShaderVolumeBlock(sky.volume, file);
    } else if (line.key == "sample") {
      readCount(line, sky.sample, "sky_light", samplesFinished);
    } else if (line.key == "thickness") {
      line.words >> sky.thickness;
    } else if (line.key == "turbidity") {
      line.words >> sky.turbidity;
    } else if (line.key == "stretch") {
      line.words >> sky.stretch;
    } else if (line.key == "albedo") {
      line.words >> sky.albedo;
    } else if (line.key == "ior") {
      line.words >> sky.ior;
    }
  }
}

void prepareSky() {
  testSkyCube();
  resolveLink(sky.link);
  orthonormaliseBasis();
  prepareVolume(sky.volume);
  if (sky.photon > 0) {
    const float f = 4 * pi * sceneRadius * sceneRadius;
    sky.flux = {f, f, f};
  }
  loadImage(sky.spare_image);
  loadImage(sky.backdrop);
  if (!isOn(sky.color)) {
    sky.photon = 0;
    sky.sample = 0;
  } else {
    loadImage(sky.image);
    if (hasPixels(sky.image))
      buildSkyTables();
    else
      sky.sample = 0;  // photons still leave with the constant colour
  }
  prepareLightAOVs(sky.aovs);
  reportSky();
}

void finalizeSky() {
  for (const CameraAOV& aov : sky.aovs) saveAOV(aov);
  sky.aovs = {};
  sky.rows = {};
  sky.row_cdf = {};
  sky.cells = {};
  freeImage(sky.image);
  freeImage(sky.backdrop);
  freeImage(sky.spare_image);
}

void qzSetSkyLightImage(const char* name) { sky.image.name = name ? name : ""; }
void qzSetSkyLightBackdrop(const char* name) { sky.backdrop.name = name ? name : ""; }
void qzSetSkyLightPhoton(int n) { sky.photon = n; }
void qzSetSkyLightSample(int n) { sky.sample = n; }
void qzSetSkyLightColor(float r, float g, float b) { sky.color = {r, g, b}; }
void qzSetSkyLightNorth(float x, float y, float z) { sky.north = {x, y, z}; }
void qzSetSkyLightZenith(float x, float y, float z) { sky.zenith = {x, y, z}; }

void qzSetSkyLightShader(int shader_id) {
  if (shader_id < 0 || size_t(shader_id) >= shaders.size()) {
    printWarning("qzSetSkyLightShader() - shader_id is invalid.");
    return;
  }
  shaders[size_t(shader_id)].sky_shader = 1;
}

void qzSetSkyLightLink(int shader_id) { sky.link.shaders.push_back(shader_id); }
int qzAddSkyLightAOV() { return addLightAOV(sky.aovs); }
void qzSetSkyLightAOVName(int aov, const char* name) { setLightAOVName(sky.aovs, aov, name); }
void qzSetSkyLightAOVChannel(int aov, int channel) { addLightAOVChannel(sky.aovs, aov, channel); }

void qzInitializeSkyLight() { prepareSky(); }
void qzFinalizeSkyLight() { finalizeSky(); }

// These two are the sky's pair on purpose: the geometry light is prepared by
// qzInitialize alone and freed at the end of rendering.
void qzInitializeGeometryLight() { prepareSky(); }
void qzFinalizeGeometryLight() { finalizeSky(); }
