// Shading points for the light tests: a diffuse plane facing up (+y), hit by a
// camera ray, and an empty world around it.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "accel/ray.h"
#include "frame/renderer.h"
#include "geometry/object.h"
#include "geometry/scene_assembly.h"
#include "lights/gaffer.h"
#include "lights/sky.h"
#include "output/camera.h"
#include "qz.h"
#include "shading/shader.h"
#include "tests/test_util.h"

// A point of the plane y = 0 seen from straight above, diffuse reflection only.
inline Surface planePoint(Vec3f position, Color3f albedo) {
  Surface s;
  s.tangent = {1, 0, 0};
  s.bitangent = {0, 0, -1};
  s.normal = s.geometric_normal = s.view = {0, 1, 0};
  s.position = s.smooth_position = position;
  s.cos_view = 1;
  s.diffuse[0] = albedo;
  s.diffuse_on[0] = 1;
  return s;
}

// The first hit of a camera ray on a primitive of no object, at pass-level sample 0.
inline Ray cameraHit(uint32_t shader = 0) {
  Ray ray;
  ray.hit.event = cameraEvent;
  ray.hit.kind = 3;
  ray.hit.primitive = 0;
  ray.hit.shader = shader;
  ray.sample_count = 1;
  return ray;
}

// A camera of the given size and pass count, prepared without its report.
inline void oneCamera(int width, int height, int passes) {
  cameras.clear();
  const int c = qzAddCamera();
  qzSetCameraResolution(c, width, height);
  qzSetCameraSample(c, passes);
  qzSetCameraAOVName(c, 0, "");
  captureOutput([] { qzInitializeCameras(); });
  renderer.camera = 0;
}

// Starts every light test from a clean library: no lights, cameras, objects or shaders but shader 0.
class LightTest : public testing::Test {
 protected:
  void SetUp() override {
    qzFinalizeShaders();  // shader 0 alone, so that new shaders start at 1
    quietStartup();
    pointLights.clear();
    parallelLights.clear();
    cameras.clear();
    objects.clear();
    sceneCenter = {0, 0, 0};
    sceneRadius = 0;
    renderer.pass = 0;
    renderer.camera = 0;
  }
  void TearDown() override {
    qzFinalizeGaffer();
    finalizeSky();
    qzFinalizeAccelerator();
    cameras.clear();
  }
};

