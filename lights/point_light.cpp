// Point lights: the record, its exports and block, preparation, the spot cone and emission.
#include <algorithm>
#include <cmath>

#include "frame/scene_file.h"
#include "geometry/scene_assembly.h"
#include "lights/gaffer.h"
#include "lights/sky.h"
#include "qz.h"

namespace {
constexpr float pi = 3.14159265f;
}  // namespace

std::vector<PointLight> pointLights;

void PointLight::reset() { *this = PointLight(); }

float spotFactor(const PointLight& light, Vec3f d) {
  const float a = std::acos(std::clamp(dot(d, light.direction), -1.0f, 1.0f));
  const float ramp = (light.outer_radians - a) / (light.outer_radians - light.inner_radians);
  // fmax and fmin rather than a clamp: equal angles make 0 / 0, which means no light.
  return std::fmin(std::fmax(ramp, 0.0f), 1.0f);
}

void preparePointLight(PointLight& light) {
  resolveLink(light.link);
  light.direction = normalize(light.direction);
  const float d = length(light.position - sceneCenter);
  const float R = sceneRadius;
  // Inside the scene, or in a scattering sky, photons must leave in every direction.
  if (d < R || isOn(sky.volume.albedo)) {
    light.all_directions = 1;
    if (light.photon > 0) light.power = 4 * pi * light.color;
  } else {
    light.all_directions = 0;
    light.cos_max = std::cos(std::atan2(R, d));
    if (light.photon > 0) light.power = 2 * pi * (1 - light.cos_max) * light.color;
    light.frame.normal = normalize(sceneCenter - light.position);
    buildOrthonormalBasis(light.frame.normal, light.frame.tangent, light.frame.bitangent);
  }
  prepareLightAOVs(light.aovs);
  light.outer_radians = light.outer_angle * pi / 180;
  light.inner_radians = light.inner_angle * pi / 180;
}

void PointLight::emit(Ray& ray, uint64_t index) const {
  const float N = float(photon);
  float u1 = float(index) / N, u2 = radicalInverse(index, 2);
  emissionPair(index, decidePhotonDirection, u1, u2);
  Vec3f d;
  if (all_directions) {
    sampleSphere(d, u1, u2);
  } else {
    const float phi = 2 * pi * u1;
    const float c = 1 - (1 - cos_max) * u2;
    const float s = std::sqrt(std::fmax(1 - c * c, 0.0f));
    d = s * std::cos(phi) * frame.tangent + s * std::sin(phi) * frame.bitangent + c * frame.normal;
  }
  ray.origin = position;
  if (blur > 0) {
    Vec3f offset;
    float v1 = radicalInverse(index, 3), v2 = radicalInverse(index, 5);
    emissionPair(index, decidePhotonOrigin, v1, v2);
    sampleSphere(offset, v1, v2);
    ray.origin += blur * offset;
  }
  ray.direction = d;
  startPhoton(ray, index, blur > 0 ? 3 : 1, ior);
  ray.weight = spotFactor(*this, d) * power / N;
  skyPhoton.store(0, std::memory_order_relaxed);
}

void readPointLightBlock(std::istream& file, PointLight& light) {
  SceneLine line;
  while (nextKey(file, line)) {
    if (readLightKey(line, file, light)) continue;
    if (line.key == "position") {
      readFloats(line, &light.position.x, 3);
    } else if (line.key == "direction") {
      readFloats(line, &light.direction.x, 3);
    } else if (line.key == "inner_angle") {
      line.words >> light.inner_angle;
    } else if (line.key == "outer_angle") {
      line.words >> light.outer_angle;
    }
  }
}

int qzAddPointLight() {
  pointLights.emplace_back();
  return int(pointLights.size()) - 1;
}

void qzSetPointLightPosition(int id, float x, float y, float z) {
  if (PointLight* light = recordAt(pointLights, id)) light->position = {x, y, z};
}
void qzSetPointLightDirection(int id, float x, float y, float z) {
  if (PointLight* light = recordAt(pointLights, id)) light->direction = {x, y, z};
}
void qzSetPointLightColor(int id, float r, float g, float b) {
  if (PointLight* light = recordAt(pointLights, id)) light->color = {r, g, b};
}
void qzSetPointLightPhoton(int id, int n) {
  if (PointLight* light = recordAt(pointLights, id)) light->photon = n;
}
void qzSetPointLightSample(int id, int n) {
  if (PointLight* light = recordAt(pointLights, id)) light->sample = n;
}
void qzSetPointLightBlur(int id, float v) {
  if (PointLight* light = recordAt(pointLights, id)) light->blur = v;
}
void qzSetPointLightOffset(int id, float v) {
  if (PointLight* light = recordAt(pointLights, id)) light->offset = v;
}
void qzSetPointLightInnerAngle(int id, float degrees) {
  if (PointLight* light = recordAt(pointLights, id)) light->inner_angle = degrees;
}
void qzSetPointLightOuterAngle(int id, float degrees) {
  if (PointLight* light = recordAt(pointLights, id)) light->outer_angle = degrees;
}
void qzSetPointLightLink(int id, int shader_id) {
  if (PointLight* light = recordAt(pointLights, id)) light->link.shaders.push_back(shader_id);
}

int qzAddPointLightAOV(int id) {
  PointLight* light = recordAt(pointLights, id);
  return light ? addLightAOV(light->aovs) : -1;
}
void qzSetPointLightAOVName(int id, int aov, const char* name) {
  if (PointLight* light = recordAt(pointLights, id)) setLightAOVName(light->aovs, aov, name);
}
void qzSetPointLightAOVChannel(int id, int aov, int channel) {
  if (PointLight* light = recordAt(pointLights, id)) addLightAOVChannel(light->aovs, aov, channel);
}
