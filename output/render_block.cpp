// The render block of scene files: renderer settings and the final-gather sub-block.
#include "frame/renderer.h"
#include "frame/report.h"
#include "frame/scene_file.h"
#include "frame/sequence.h"
#include "output/render_loop.h"
#include "shading/image.h"

namespace {
void readFinalGatherBlock(std::istream& file) {
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "ray_depth") readCount(line, renderer.ray_depth, "render", depthHeld, depthHeld);
    else if (line.key == "photon_depth") readCount(line, renderer.photon_depth, "render", depthHeld, depthHeld);
    else if (line.key == "sample") readCount(line, renderer.sample, "render", samplesFinished);
    else if (line.key == "bounce") readCount(line, renderer.bounce, "render", depthHeld, depthHeld);
    else if (line.key == "resolution") line.words >> renderer.resolution;
    else if (line.key == "radius") line.words >> renderer.radius;
  }
}
// The name stands bare or in quotes; an unknown one keeps the sampler as it was.
void readSamplerKey(SceneLine& line) {
  std::string name;
  line.words >> name;
  if (name.size() >= 2 && name.front() == '"' && name.back() == '"') name = name.substr(1, name.size() - 2);
  if (!samplerByName(name, renderer.sampler)) printWarning("render - unknown sampler \"" + name + "\"");
}
}  // namespace

bool samplerByName(const std::string& name, uint8_t& kind) {
  if (name == "random") kind = samplerRandom;
  else if (name == "sobol") kind = samplerSobol;
  else return false;
  return true;
}

void readRenderBlock(std::istream& file) {
  // A later render block discards an earlier one, but for the colours, gamma and exposure.
  restoreRendererDefaults();
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "clamp") readFloats(line, &renderer.clamp.r, 3);
    else if (line.key == "error") readFloats(line, &renderer.error.r, 3);
    else if (line.key == "gamma") line.words >> renderer.display_gamma;
    else if (line.key == "exposure") line.words >> renderer.exposure;
    else if (line.key == "final_gather") readFinalGatherBlock(file);
    else if (line.key == "image_path") addImageSearchPath(readQuotedString(line));
    else if (line.key == "seed") line.words >> renderer.seed;
    else if (line.key == "noise_threshold") line.words >> renderer.noise_threshold;
    else if (line.key == "min_passes") line.words >> renderer.min_passes;
    else if (line.key == "sampler") readSamplerKey(line);
  }
}
