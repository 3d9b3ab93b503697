// Parallel lights: the record, its exports and block, preparation and emission.
#include <cmath>

#include "geometry/scene_assembly.h"
#include "lights/gaffer.h"
#include "qz.h"

namespace {
constexpr float pi = 3.14159265f;
}  // namespace

std::vector<ParallelLight> parallelLights;

void ParallelLight::reset() { *this = ParallelLight(); }

void prepareParallelLight(ParallelLight& light) {
  resolveLink(light.link);
  light.frame.normal = normalize(light.frame.normal);
  buildOrthonormalBasis(light.frame.normal, light.frame.tangent, light.frame.bitangent);
  if (light.photon > 0) light.power = pi * sceneRadius * sceneRadius * light.color;
  light.cos_max = std::cos(light.blur * pi / 180);
  prepareLightAOVs(light.aovs);
}

void ParallelLight::emit(Ray& ray, uint64_t index) const {
  // A disk of the scene's radius, one radius behind the centre, facing along the axis.
  float x, y, u1 = radicalInverse(index, 2), u2 = radicalInverse(index, 3);
  emissionPair(index, decidePhotonOrigin, u1, u2);
  diskPoint(u1, u2, x, y);
  ray.origin = sceneCenter + sceneRadius * (x * frame.tangent + y * frame.bitangent - frame.normal);
  ray.direction = frame.normal;
  if (blur > 0) sampleCone(ray.direction, frame, {uint32_t(index), 2, photonScramble()}, cos_max);
  startPhoton(ray, index, blur > 0 ? 4 : 2, ior);
  ray.weight = power / float(photon);
  skyPhoton.store(0, std::memory_order_relaxed);
}

void readParallelLightBlock(std::istream& file, ParallelLight& light) {
  SceneLine line;
  while (nextKey(file, line)) {
    if (readLightKey(line, file, light)) continue;
    if (line.key == "direction") readFloats(line, &light.frame.normal.x, 3);
  }
}

int qzAddParallelLight() {
  parallelLights.emplace_back();
  return int(parallelLights.size()) - 1;
}

void qzSetParallelLightDirection(int id, float x, float y, float z) {
  if (ParallelLight* light = recordAt(parallelLights, id)) light->frame.normal = {x, y, z};
}
void qzSetParallelLightColor(int id, float r, float g, float b) {
  if (ParallelLight* light = recordAt(parallelLights, id)) light->color = {r, g, b};
}
void qzSetParallelLightPhoton(int id, int n) {
  if (ParallelLight* light = recordAt(parallelLights, id)) light->photon = n;
}
void qzSetParallelLightSample(int id, int n) {
  if (ParallelLight* light = recordAt(parallelLights, id)) light->sample = n;
}
void qzSetParallelLightBlur(int id, float v) {
  if (ParallelLight* light = recordAt(parallelLights, id)) light->blur = v;
}
void qzSetParallelLightOffset(int id, float v) {
  if (ParallelLight* light = recordAt(parallelLights, id)) light->offset = v;
}
void qzSetParallelLightLink(int id, int shader_id) {
  if (ParallelLight* light = recordAt(parallelLights, id)) light->link.shaders.push_back(shader_id);
}

int qzAddParallelLightAOV(int id) {
  ParallelLight* light = recordAt(parallelLights, id);
  return light ? addLightAOV(light->aovs) : -1;
}
void qzSetParallelLightAOVName(int id, int aov, const char* name) {
  if (ParallelLight* light = recordAt(parallelLights, id)) setLightAOVName(light->aovs, aov, name);
}
void qzSetParallelLightAOVChannel(int id, int aov, int channel) {
  if (ParallelLight* light = recordAt(parallelLights, id)) addLightAOVChannel(light->aovs, aov, channel);
}
