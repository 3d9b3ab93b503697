#include "output/camera_exr.h"

#include <algorithm>
#include <exception>

#include "frame/renderer.h"
#include "frame/report.h"
#include "output/exr_file.h"
#include "qz.h"

namespace {
int tileIndex = 0, tileCount = 0;

// Layer names must differ; a repeated one gets a number.
std::string uniqueName(const std::string& name, const std::vector<ExrLayer>& layers) {
  auto taken = [&](const std::string& n) {
    return std::any_of(layers.begin(), layers.end(), [&](const ExrLayer& l) { return l.name == n; });
  };
  std::string candidate = name;
  for (int n = 2; taken(candidate); ++n) candidate = name + "_" + std::to_string(n);
  return candidate;
}
}  // namespace

void writeCameraExr(const Camera& camera, float renderSeconds) {
  if (camera.exr.empty()) return;
  ExrImage file;
  file.width = camera.width, file.height = camera.height;
  const Region& r = camera.region;
  file.x0 = std::max(r.min_x, 0), file.y0 = std::max(r.min_y, 0);
  file.x1 = std::min(r.max_x, camera.width), file.y1 = std::min(r.max_y, camera.height);
  file.info.passes = renderer.pass;
  file.info.sampler = renderer.sampler == 1 ? "sobol" : "random";
  // The hardware numbers have no seed.
  if (renderer.sampler == 1) file.info.seed = renderer.seed;
  file.info.render_seconds = renderSeconds;
  file.info.tile_index = tileIndex, file.info.tile_count = tileCount;
  std::string problem;
  const size_t frame = size_t(std::max(camera.width, 0)) * size_t(std::max(camera.height, 0)) * 3;
  for (const CameraAOV& aov : camera.aovs) {
    if (aov.image.floats.size() != frame) {
      problem = "the framebuffer of " + aov.image.name + " could not be allocated";
      break;
    }
    // A '.' would split the layer name in two.
    std::string name = aovLayerName(aov);
    std::replace(name.begin(), name.end(), '.', '_');
    try {
      file.layers.push_back({uniqueName(name, file.layers), aov.image.floats});
    } catch (const std::exception&) {
      problem = "no memory for its layers";
      break;
    }
  }
  if (problem.empty()) problem = writeExr(camera.exr, file);
  if (problem.empty()) return;
  printError("image - " + camera.exr + "\tcannot be written: " + problem);
  unsavedImages.insert(camera.exr);
}

void qzSetCameraExr(int camera, const char* name) {
  if (camera >= 0 && size_t(camera) < cameras.size()) cameras[size_t(camera)].exr = name ? name : "";
}

void qzSetRenderTile(int index, int count) { tileIndex = index, tileCount = count; }
