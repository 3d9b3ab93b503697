// Noise of the bundled Cornell box at equal time, against long reference
// renders of the same lighting, on values clipped to the display's range: the lamp panel as a geometry light, the same
// panel found by bounces alone, and the point light under a glowing panel
// that the scene used to have. Takes a few minutes.
//
//   cmake -S . -B build -G Ninja -DQZ_BENCH=ON && ninja -C build cornell_noise_bench
//   build/bench/cornell_noise_bench [size] [reference multiple]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "frame/report.h"
#include "output/camera.h"
#include "qz.h"
#include "shading/shader.h"

namespace {
struct Setup {
  const char* name;
  bool pointLight;     // the old stand-in: a point light under a panel that only glows
  int lightSample;     // the geometry light's samples at a first hit
  int rendererSample;  // the bounces' samples at a first hit
};

struct Render {
  std::vector<float> pixels;
  double seconds = 0;  // processor time of preparation and passes, all threads
};

// Turns the scene back into what it was before the panel became a light.
void usePointLight() {
  for (size_t i = 0; i < shaders.size(); ++i) {
    if (shaders[i].name != "lamp") continue;
    const int id = int(i);
    qzSetShaderGeometryLight(id, 3, false);
    qzSetShaderTwoSided(id, false);
    qzSetShaderColor(id, 1, emissionChannel, 4, 4, 4);
  }
  const int light = qzAddPointLight();
  qzSetPointLightPosition(light, 0, 1.9f, 0);
  qzSetPointLightDirection(light, 0, -1, 0);
  qzSetPointLightColor(light, 3, 3, 3);
}

Render renderCornellBox(const Setup& setup, int size, int multiple) {
  std::ostringstream quiet;
  std::streambuf* out = std::cout.rdbuf(quiet.rdbuf());
  qzStartup();
  qzLoadScene(QZ_SCENE_DIR "/cornell-box/");
  if (setup.pointLight) usePointLight();
  // The scene ships with the final gather; the noise compared here is that of traced bounces.
  qzSetRendererResolution(0);
  qzSetRendererBounce(3);
  qzSetGeometryLightSample(setup.lightSample * multiple);
  qzSetRendererSample(setup.rendererSample * multiple);
  qzSetCameraResolution(0, size, size);
  qzSetCameraAOVName(0, 0, "");  // kept in memory
  Render render;
  const int64_t start = processorMilliseconds();
  qzInitialize();
  qzRender();
  render.seconds = double(processorMilliseconds() - start) * 1e-3;
  render.pixels = cameras[0].aovs[0].image.floats;
  qzFinalize();
  qzShutdown();
  std::cout.rdbuf(out);
  return render;
}

// Values as a display shows them, clipped at 1: the panel itself (radiance
// 16) would otherwise weigh its edge pixels far above the lit room.
double shown(float v) { return std::clamp(double(v), 0.0, 1.0); }

double rmse(const std::vector<float>& a, const std::vector<float>& b) {
  double sum = 0;
  for (size_t i = 0; i < a.size(); ++i) sum += (shown(a[i]) - shown(b[i])) * (shown(a[i]) - shown(b[i]));
  return std::sqrt(sum / double(a.size()));
}

double mean(const std::vector<float>& a) {
  double sum = 0;
  for (float v : a) sum += shown(v);
  return sum / double(a.size());
}

void report(const Setup& setup, const Render& render, const Render& reference) {
  const double e = rmse(render.pixels, reference.pixels), m = mean(reference.pixels);
  std::printf("  %-34s bounces %5d  light %4d  %7.1f s  rmse %.4f  relative %.4f\n", setup.name, setup.rendererSample,
              setup.lightSample, render.seconds, e, e / m);
}
}  // namespace

int main(int argc, char** argv) {
  const int size = argc > 1 ? std::max(std::atoi(argv[1]), 8) : 200;
  const int multiple = argc > 2 ? std::max(std::atoi(argv[2]), 2) : 16;
  const Setup geometry{"geometry light + bounces", false, 64, 32};
  const Setup bounces{"bounces alone", false, 0, 32};
  const Setup point{"point light + glowing panel (before)", true, 0, 32};
  std::printf("Cornell box, %d x %d, references with %d times the samples\n", size, size, multiple);
  const Render panelReference = renderCornellBox(geometry, size, multiple);
  const Render pointReference = renderCornellBox(point, size, multiple);
  std::printf("references: panel %.1f s, point light %.1f s\n", panelReference.seconds, pointReference.seconds);

  // First at the scene's own sample counts, then with the bounce samples of
  // the other two scaled to the geometry light's time.
  const Render first = renderCornellBox(geometry, size, 1);
  std::printf("at the scene's sample counts:\n");
  report(geometry, first, panelReference);
  std::vector<Setup> equal;
  for (const Setup& setup : {bounces, point}) {
    const Render r = renderCornellBox(setup, size, 1);
    report(setup, r, setup.pointLight ? pointReference : panelReference);
    Setup scaled = setup;
    scaled.rendererSample = std::max(int(std::lround(setup.rendererSample * first.seconds / r.seconds)), 1);
    equal.push_back(scaled);
  }
  std::printf("at the geometry light's time:\n");
  report(geometry, renderCornellBox(geometry, size, 1), panelReference);
  for (const Setup& setup : equal)
    report(setup, renderCornellBox(setup, size, 1), setup.pointLight ? pointReference : panelReference);
  return 0;
}
