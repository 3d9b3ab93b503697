// Whole runs of a scene directory: the input is cut at lines "=====" into the
// files of one directory, in the order of `sceneFiles`. Startup, loading,
// preparation, rendering and finalisation run as the command runs them; only
// the amount of rendering work is capped, through the records the scene
// filled, and no output file is written. Startup runs once for all inputs.
#include <omp.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <string_view>

#include "frame/memory_budget.h"
#include "frame/renderer.h"
#include "fuzz/fuzz_util.h"
#include "lights/gaffer.h"
#include "lights/geometry_light.h"
#include "lights/sky.h"
#include "output/camera.h"
#include "qz.h"
#include "shading/image_decode.h"
#include "shading/shader.h"

namespace {

const char* const sceneFiles[] = {"shader/a.qz",   "render/a.qz",       "light/a.qz",       "camera/a.qz",
                                  "geometry/a.qz", "geometry/mesh.obj", "image/texture.png"};

void writeScene(const std::string& scene, const uint8_t* data, size_t size) {
  std::filesystem::remove_all(scene);
  for (const char* folder : {"shader", "render", "light", "camera", "geometry", "image"})
    std::filesystem::create_directories(scene + folder);
  const std::string_view input(reinterpret_cast<const char*>(data), size), cut = "\n=====\n";
  size_t start = 0;
  for (const char* file : sceneFiles) {
    const size_t end = std::min(input.find(cut, start), input.size());
    writeFile(scene + file, data + start, end - start);
    if (end == input.size()) break;
    start = end + cut.size();
  }
}

// A few pixels, one pass, short paths and a few thousand photons: the same
// code runs, on less work. What the scene builds is left as it was read:
// instance graphs, displacement levels and their layers meet the limits the
// renderer itself sets (the memory check under `memoryCeiling`), and counts
// past those limits have been refused or announced while the scene was read.
void capWork() {
  for (Camera& camera : cameras) {
    camera.width = std::min(camera.width, 6), camera.height = std::min(camera.height, 6);
    camera.sample = std::min(camera.sample, 1);
    for (CameraAOV& aov : camera.aovs) aov.image.name.clear();
  }
  constexpr int photons = 2000;
  auto capLight = [](Light& light) {
    light.photon = std::min<int64_t>(light.photon, photons);
    light.sample = std::min(light.sample, 2);
    for (CameraAOV& aov : light.aovs) aov.image.name.clear();
  };
  for (PointLight& light : pointLights) capLight(light);
  for (ParallelLight& light : parallelLights) capLight(light);
  sky.photon = std::min(sky.photon, photons);
  sky.sample = std::min(sky.sample, 2);
  for (CameraAOV& aov : sky.aovs) aov.image.name.clear();
  geometryLight.photon = std::min(geometryLight.photon, photons);
  geometryLight.sample = std::min(geometryLight.sample, 2);
  for (CameraAOV& aov : geometryLight.aovs) aov.image.name.clear();
  renderer.sample = std::min(renderer.sample, 2);
  renderer.bounce = std::min(renderer.bounce, 2);
  renderer.ray_depth = std::min(renderer.ray_depth, 4);
  renderer.photon_depth = std::min(renderer.photon_depth, 6);
  renderer.geometry_light_sample = std::min(renderer.geometry_light_sample, 2);
  renderer.sky_light_sample = std::min(renderer.sky_light_sample, 2);
  // The final gather stays on where asked, with one patch a face: the patch
  // count otherwise grows with the inverse square of the patch size, and past
  // its limit the renderer ends the process as it must.
  if (renderer.resolution > 0) renderer.resolution = std::numeric_limits<float>::max();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  muteReport();
  // One core for one fuzzer: the machine is shared.
  omp_set_num_threads(1);
  // A decoder that hangs is given up well inside the fuzzer's own limit.
  imageDecodeSeconds = 3;
  // Displacement and images are weighed against a small share, so that the
  // memory check refuses what a larger process would build.
  memoryCeiling = 32.0 * 1024 * 1024;
  // The number and slope tables do not depend on the scene: built once, they
  // would otherwise take most of each run.
  qzStartup();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string scene = scratchFolder() + "/scene/";
  writeScene(scene, data, size);
  qzLoadScene(scene.c_str());
  capWork();
  qzInitialize();
  qzRender();
  qzFinalize();
  // What startup resets besides the tables.
  resetSkyLight();
  restoreRendererDefaults();
  createDefaultShader();
  return 0;
}
