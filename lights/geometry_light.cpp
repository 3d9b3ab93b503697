// The geometry light's state: defaults, exports, the geometry_light block,
// the points drawn at preparation and their teardown.
#include "lights/geometry_light.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "accel/primitive_bounds.h"
#include "frame/renderer.h"
#include "frame/sequence.h"
#include "frame/report.h"
#include "geometry/object.h"
#include "geometry/scene_assembly.h"
#include "qz.h"
#include "shading/shader.h"

namespace {
// 1 / the number of points, as a float.
constexpr float pointShare = 1.3270872e-05f;

const Object* rootOrNull() { return size_t(rootObject) < objects.size() ? &objects[rootObject] : nullptr; }

// The point for index i: u(2) and u(3) on the side picked for i, kept only
// where the side emits.
GeometryLightPoint drawPoint(uint32_t i) {
  GeometryLightPoint record;
  // Texel picks of a textured emission, the same on every run of a seed.
  startLooseStream(photonScramble(), i);
  EmitterPick pick;
  if (!pickEmitter(i, geometryLightPointCount, pick)) return record;
  const EmitterPoint point = sampleEmitter(pick, radicalInverse(i, 2), radicalInverse(i, 3));
  if (!isOn(point.emission)) return record;
  record.position = point.position;
  record.normal = pick.front ? point.normal : -point.normal;
  record.emission = point.emission * pointShare;
  record.area_measure = point.area;
  record.primitive = int(pick.primitive);
  record.shader = int(pick.shader);
  record.kind = pick.kind;
  record.front = pick.front;
  return record;
}

// The points and their selection table; false when nothing among them emits.
// Bits 0, 3, 6, ... of a 30-bit word from the ten bits of v.
uint32_t spreadBits(uint32_t v) {
  v &= 0x3ff;
  v = (v | (v << 16)) & 0x030000ff;
  v = (v | (v << 8)) & 0x0300f00f;
  v = (v | (v << 4)) & 0x030c30c3;
  return (v | (v << 2)) & 0x09249249;
}

// The points in the order of a Morton curve through their bounds. The sobol
// sampler stratifies its picks along the table, and strata of the table are
// then patches of the lamps rather than the whole lamp each.
void orderPointsInSpace(std::vector<GeometryLightPoint>& points) {
  Box bounds;
  // Points where nothing emits keep the origin: they take no picks and no part in the bounds.
  for (const GeometryLightPoint& p : points)
    if (p.primitive >= 0) growBox(bounds, p.position, p.position);
  const Vec3f size = bounds.max - bounds.min;
  auto code = [&](const GeometryLightPoint& p) {
    uint32_t c = 0;
    for (int a = 0; a < 3; ++a) {
      const float t = size[a] > 0 ? (p.position[a] - bounds.min[a]) / size[a] : 0;
      c |= spreadBits(uint32_t(std::fmin(std::fmax(t, 0.0f), 1.0f) * 1023)) << a;
    }
    return c;
  };
  std::vector<std::pair<uint32_t, uint32_t>> keys(points.size());
  for (size_t i = 0; i < points.size(); ++i) keys[i] = {code(points[i]), uint32_t(i)};
  std::sort(keys.begin(), keys.end());
  std::vector<GeometryLightPoint> ordered(points.size());
  for (size_t i = 0; i < keys.size(); ++i) ordered[i] = points[keys[i].second];
  points.swap(ordered);
}

bool drawPoints() {
  GeometryLight& g = geometryLight;
  g.points.resize(geometryLightPointCount);
  for (uint32_t i = 0; i < uint32_t(geometryLightPointCount); ++i) g.points[i] = drawPoint(i);
  if (renderer.sampler != samplerRandom) orderPointsInSpace(g.points);
  g.cdf.resize(geometryLightPointCount);
  double total = 0;
  for (size_t i = 0; i < g.points.size(); ++i) {
    const Color3f& e = g.points[i].emission;
    total += (double(e.r) + double(e.g) + double(e.b)) / 3;
    g.cdf[i] = float(total);
  }
  if (!(total > 0)) return false;
  for (float& c : g.cdf) c = float(double(c) / total);
  buildCdfGuide(g.cdf.data(), int(g.cdf.size()), g.guide);
  return true;
}

void freePoints() {
  geometryLight.points = {};
  geometryLight.cdf = {};
  geometryLight.guide = {};
}

void reportGeometryLight() {
  const GeometryLight& g = geometryLight;
  printRow("geometry light   area", g.area, "m x m");
  printIntegerRow("geometry light sample", g.sample, "n/a");
  int64_t bytes = int64_t(g.points.size() * sizeof(GeometryLightPoint) + g.cdf.size() * sizeof(float));
  for (const CameraAOV& aov : g.aovs) bytes += aovBytes(aov);
  printBytesRow("geometry light memory", bytes);
}
}  // namespace

GeometryLight geometryLight;

void resetGeometryLight() {
  std::vector<CameraAOV> aovs = std::move(geometryLight.aovs);
  geometryLight = GeometryLight();
  geometryLight.aovs = std::move(aovs);
  // The bounces' count that the light is weighed against, until the renderer sets it.
  renderer.geometry_light_sample = 64;
}

void readGeometryLightBlock(std::istream& file) {
  SceneLine line;
  while (nextKey(file, line)) {
    if (readAOVOrLinkKey(line, file, geometryLight.aovs, geometryLight.link)) continue;
    if (line.key == "photon") {
      readCount(line, geometryLight.photon, "geometry_light", int(photonsFinished));
    } else if (line.key == "sample") {
      readCount(line, geometryLight.sample, "geometry_light", samplesFinished);
    }
  }
}

void prepareGeometryLight() {
  GeometryLight& g = geometryLight;
  resolveLink(g.link);
  const Object* root = rootOrNull();
  g.area = root ? root->lightArea : 0;
  if (g.photon > 0) {
    if (root && root->lightFaces.count > 0) {
      // A side of emission 1 sends its area, on the scale where a diffuse
      // surface's radiance is albedo times irradiance (the scale of the point
      // lights and the sky): its photons then light what its paths light.
      const float f = g.area / float(g.photon);
      g.flux = {f, f, f};
    } else {
      g.photon = 0;
    }
  }
  freePoints();
  // A count that is not positive, no area, or points that all lie on dark sides turn the sampling off.
  if (g.sample < 0 || !(g.area > 0)) g.sample = 0;
  if (g.sample > 0 && !drawPoints()) {
    g.sample = 0;
    freePoints();
  }
  prepareLightAOVs(g.aovs);
  reportGeometryLight();
}

void finalizeGeometryLight() {
  for (const CameraAOV& aov : geometryLight.aovs) saveAOV(aov);
  geometryLight.aovs = {};
  freePoints();
}

void qzSetGeometryLightPhoton(int n) { geometryLight.photon = n; }
void qzSetGeometryLightSample(int n) { geometryLight.sample = n; }

void qzSetGeometryLightShader(int shader_id) {
  if (shader_id < 0 || size_t(shader_id) >= shaders.size()) {
    printWarning("qzSetGeometryLightShader() - shader_id is invalid.");
    return;
  }
  shaders[size_t(shader_id)].geometry_light[0] = 1;
}

void qzSetGeometryLightLink(int shader_id) { geometryLight.link.shaders.push_back(shader_id); }
int qzAddGeometryLightAOV() { return addLightAOV(geometryLight.aovs); }
void qzSetGeometryLightAOVName(int aov, const char* name) { setLightAOVName(geometryLight.aovs, aov, name); }

void qzSetGeometryLightAOVShaderName(int aov, const char* name) {
  if (CameraAOV* a = recordAt(geometryLight.aovs, aov)) a->shader_name = name ? name : "";
}

void qzSetGeometryLightAOVChannel(int aov, int channel) { addLightAOVChannel(geometryLight.aovs, aov, channel); }
