// The AOVs of lights: the camera's record shape, filled with one light's share.
#include "frame/renderer.h"
#include "lights/light.h"
#include "output/camera.h"

namespace {
// The radiance bit of each event, from the camera ray (1) to the volume (9).
constexpr uint32_t eventBits[10] = {0, 0, 0, 0x8, 0x20, 0x80, 0x200, 0x800, 0x2000, 0};
constexpr uint32_t emissionBit = 0x8000;
}  // namespace

int addLightAOV(std::vector<CameraAOV>& aovs) {
  aovs.emplace_back();
  aovs.back().image.name = "undefined";
  return int(aovs.size()) - 1;
}

void setLightAOVName(std::vector<CameraAOV>& aovs, int aov, const char* name) {
  if (CameraAOV* a = recordAt(aovs, aov)) a->image.name = name ? name : "";
}

void addLightAOVChannel(std::vector<CameraAOV>& aovs, int aov, int channel) {
  if (CameraAOV* a = recordAt(aovs, aov)) a->channel |= uint32_t(channel);
}

void prepareLightAOVs(std::vector<CameraAOV>& aovs) {
  const bool haveCamera = size_t(renderer.camera) < cameras.size();
  const int width = haveCamera ? cameras[renderer.camera].width : 0;
  const int height = haveCamera ? cameras[renderer.camera].height : 0;
  for (CameraAOV& aov : aovs) prepareAOV(aov, width, height);
}

void addToLightAOVs(std::vector<CameraAOV>& aovs, uint32_t bits, Color3f value, const Ray& ray, int shader) {
  const Color3f c = value * ray.throughput / float(ray.sample_count);
  for (CameraAOV& aov : aovs) {
    if (!(aov.channel & bits)) continue;
    if (shader != anyShader && aov.shader != -1 && aov.shader != shader) continue;
    std::vector<float>& pixels = aov.image.floats;
    const uint64_t i = uint64_t(ray.pixel) * 3;
    // A pixel beyond the framebuffer (no camera, or a region set late) is dropped.
    if (i + 2 >= pixels.size()) continue;
    pixels[i] += c.r;
    pixels[i + 1] += c.g;
    pixels[i + 2] += c.b;
  }
}

uint32_t lightAOVBits(const Ray& ray) {
  const uint32_t bits = ray.hit.event < 10 ? eventBits[ray.hit.event] : 0;
  return ray.bounces == 0 ? bits | emissionBit : bits;
}
