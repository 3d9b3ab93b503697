// The pass loop over the rows of the region, the progress lines and the closing of a render.
#include "output/render_loop.h"

#include <GL/freeglut.h>
#include <omp.h>

#include <algorithm>
#include <cmath>

#include "accel/ray.h"
#include "frame/renderer.h"
#include "frame/report.h"
#include "geometry/scene_assembly.h"
#include "lights/gaffer.h"
#include "lights/geometry_light.h"
#include "lights/sky.h"
#include "output/adaptive_sampling.h"
#include "output/camera.h"
#include "output/camera_exr.h"
#include "output/checkpoint.h"
#include "output/preview.h"
#include "output/progress.h"
#include "qz.h"
#include "transport/path.h"

namespace {
// Pass number and beauty accumulation differ between the two kinds of pass; the rest is one loop.
void runPass(std::vector<Color3f>* out) {
  Camera& camera = cameras[renderer.camera];
  const Region region = camera.region;
  const int columns = std::max(region.max_x - region.min_x, 0);
  Image& beauty = camera.aovs[0].image;
  const int pass = renderer.pass;
  const float share = 1.0f / float(camera.sample);
  const CameraPose pose = passPose(camera, pass);
  resetRayCounters();
  const int64_t start = clockNanoseconds();
  // Only a whole pass into the beauty's running mean can tell a pixel's noise.
  const bool adaptive = !out && adaptiveSampling();
#pragma omp parallel for schedule(dynamic, 1)
  for (int y = region.min_y; y < region.max_y; ++y) {
    for (int x = region.min_x; x < region.max_x; ++x) {
      const int64_t p = int64_t(y) * camera.width + x;
      if (adaptive && !pixelActive(p)) continue;
      Ray ray;
      generatePixelSample(camera, pose, x, y, pass, ray);
      Color3f L = black;
      if (ray.bounces < renderer.ray_depth) tracePath(L, ray);
      L = acceptSample(L);
      if (out) {
        (*out)[size_t(int64_t(y - region.min_y) * columns + x - region.min_x)] = L;
        writePixel(beauty, readPixel(beauty, p) + L * share, p);
      } else {
        const Color3f mean = runningMean(readPixel(beauty, p), L, pass);
        writePixel(beauty, mean, p);
        if (adaptive) addToPixelNoise(p, mean, L, pass);
      }
    }
  }
  if (adaptive) pixelNoise.active = settlePixelNoise(region, camera.width);
  renderer.elapsed += (clockNanoseconds() - start) / 1000;
  // The threads are let go between passes: what runs in between (the report,
  // the poses of moving geometry, the preview, the images) leaves the cores
  // to other work instead of to threads spinning in wait for the next pass.
  omp_pause_resource_all(omp_pause_soft);
}

void closeRender(int64_t start) {
  Camera& camera = cameras[renderer.camera];
  // Outputs that add a share of each planned pass are completed for the passes not made.
  endPassStatus();
  completeAOVs(camera.aovs, 1, camera.sample, renderer.pass);
  completeAOVs(sky.aovs, 0, camera.sample, renderer.pass);
  completeAOVs(geometryLight.aovs, 0, camera.sample, renderer.pass);
  for (PointLight& light : pointLights) completeAOVs(light.aovs, 0, camera.sample, renderer.pass);
  for (ParallelLight& light : parallelLights) completeAOVs(light.aovs, 0, camera.sample, renderer.pass);
  printRule();
  for (const CameraAOV& aov : camera.aovs) reportAOV(aov);
  printRule();
  // Whole milliseconds: the row shows what was done, never a rounded-up figure.
  const float seconds = float((clockNanoseconds() - start) / 1000000) * 0.001f;
  printRow("rendering time", seconds, "seconds", 3);
  if (renderer.pass < camera.sample) printIntegerRow("rendering passes", renderer.pass, "n/a");
  printRule();
  for (const CameraAOV& aov : camera.aovs) saveAOV(aov);
  writeCameraExr(camera, seconds);
  // The lights' own outputs are written as they are finalised; the point and
  // parallel lights are not wanted after the last pass.
  finalizeSky();
  finalizeGeometryLight();
  freePointLights();
  freeParallelLights();
  freePixelNoise();
}

bool closed = false;
int64_t runStart = 0;
int runFirstPass = 0;

// Whether the render ends before its planned passes: every pixel has stopped,
// or the time limit leaves no room for a pass as long as the mean one so far.
bool endsEarly() {
  if (adaptiveSampling() && pixelNoise.active == 0) return true;
  const int done = renderer.pass - runFirstPass;
  if (!(renderer.time_limit > 0) || done <= 0) return false;
  const double seconds = double(clockNanoseconds() - runStart) * 1e-9;
  return seconds + seconds / done > renderer.time_limit;
}

bool haveCamera() { return renderer.camera >= 0 && size_t(renderer.camera) < cameras.size(); }
}  // namespace

Color3f acceptSample(Color3f L) {
  for (int c = 0; c < 3; ++c)
    if (!std::isfinite(L[c])) return renderer.error;
  for (int c = 0; c < 3; ++c) L[c] = std::min(L[c], renderer.clamp[c]);
  return L;
}

Color3f runningMean(Color3f old, Color3f L, int pass) {
  return (float(pass) * old + L) * (1.0f / float(pass + 1));
}

void renderPass() { runPass(nullptr); }

void renderPixels(std::vector<Color3f>& out) {
  const Region& r = cameras[renderer.camera].region;
  out.assign(size_t(std::max(r.max_y - r.min_y, 0)) * size_t(std::max(r.max_x - r.min_x, 0)), black);
  runPass(&out);
}

void progressiveStep() {
  // Taken once per process: a second render counts its time from the first.
  static const int64_t start = clockNanoseconds();
  const Camera& camera = cameras[renderer.camera];
  if (!closed && renderer.pass < camera.sample) {
    const int p = renderer.pass;
    renderer.elapsed = 0;
    renderPass();
    // An empty region can take no measurable time; its rate shows as 0.
    const float rate = float(totalRays()) / float(std::max<int64_t>(renderer.elapsed, 1));
    const int64_t active = adaptiveSampling() ? pixelNoise.active : -1;
    printProgress(int((double(p + 1) * 100.0) / camera.sample), rate, active);
    PassStatus status = passStatus(p + 1, camera.sample, double(rate) * 1e6, clockNanoseconds());
    status.active_pixels = active;
    reportPassStatus(status);
    // Moving geometry takes the pose of the pass just finished, one pass behind the camera.
    updateMovingObjects();
    ++renderer.pass;
    // A stop asked for by a signal ends the render here too, its images as far as they got.
    if (renderer.pass == camera.sample || endsEarly() || checkpointBetweenPasses()) {
      closeRender(start);
      closed = true;
    }
  }
  if (renderer.preview) {
    displayPreview();
    glutPostRedisplay();
  }
}

void qzRender() {
  // A scene without a camera has nothing to render.
  if (!haveCamera()) return;
  renderer.pass = 0;
  closed = false;
  preparePixelNoise(cameras[renderer.camera]);
  resumeFromCheckpoint();
  // This run's passes: a resumed render starts past 0.
  runStart = clockNanoseconds(), runFirstPass = renderer.pass;
  startProgress(runFirstPass, runStart);
  if (renderer.preview) {
    runPreviewWindow();
    return;
  }
  guardAllocation("qzRender()", [] {
    while (!closed && renderer.pass < cameras[renderer.camera].sample) progressiveStep();
  });
}

void qzRenderPixels(int count, float* pixels, int pass) {
  if (!haveCamera()) return;
  std::vector<Color3f> colors(size_t(std::max(count, 0)));
  renderer.pass = uint16_t(pass);
  renderPixels(colors);
  const size_t n = std::min(size_t(std::max(count, 0)), colors.size());
  for (size_t i = 0; i < n; ++i)
    for (int c = 0; c < 3; ++c) pixels[i * 3 + c] = colors[i][c];
}
