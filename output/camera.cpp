// Camera records: the exports, the camera block of scene files, preparation and teardown.
#include "output/camera.h"

#include <algorithm>

#include "frame/report.h"
#include "frame/scene_file.h"
#include "qz.h"

std::vector<Camera> cameras;

namespace {
// Setters take indices from the host unchecked by design; an index outside the
// array is dropped here so that it cannot write into foreign memory.
Camera* findCamera(int camera) {
  return camera >= 0 && size_t(camera) < cameras.size() ? &cameras[camera] : nullptr;
}

CameraAOV* findAOV(int camera, int aov) {
  Camera* c = findCamera(camera);
  return c && aov >= 0 && size_t(aov) < c->aovs.size() ? &c->aovs[aov] : nullptr;
}

CameraPose* selectedPose(int camera) {
  Camera* c = findCamera(camera);
  return c ? &c->poses[c->time_index] : nullptr;
}

void readPoseBlock(std::istream& file, CameraPose& pose) {
  pose.field_of_view = 45;
  pose.bokeh = 0;
  pose.up_vector = {0, 1, 0};
  pose.target = zeroVector;
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "position") readFloats(line, &pose.position.x, 3);
    else if (line.key == "target") readFloats(line, &pose.target.x, 3);
    else if (line.key == "up_vector") readFloats(line, &pose.up_vector.x, 3);
    else if (line.key == "bokeh") line.words >> pose.bokeh;
    else if (line.key == "field_of_view") line.words >> pose.field_of_view;
  }
}

bool samePose(const CameraPose& a, const CameraPose& b) {
  return a.position == b.position && a.target == b.target && a.field_of_view == b.field_of_view &&
         a.bokeh == b.bokeh && a.up_vector == b.up_vector;
}
}  // namespace

void readCameraBlock(std::istream& file, Camera& camera) {
  camera.pose_count = 0;
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "resolution") {
      line.words >> camera.width >> camera.height;
    } else if (line.key == "region") {
      line.words >> camera.region.min_x >> camera.region.min_y >> camera.region.max_x >> camera.region.max_y;
    } else if (line.key == "sample") {
      readCount(line, camera.sample, "camera", passesHeld, passesHeld);
    } else if (line.key == "ior") {
      line.words >> camera.ior;
    } else if (line.key == "exposure") {
      readFloats(line, &camera.exposure.r, 3);
    } else if (line.key == "projection") {
      const std::string word = readQuotedString(line);
      if (word == "perspective" || word == "pinhole") camera.projection = 0;
      else if (word == "spherical" || word == "panorama") camera.projection = 1;
    } else if (line.key == "pose" && camera.pose_count < 2) {
      // A third pose is not a sub-block: its lines fall to this block and its end closes it.
      readPoseBlock(file, camera.poses[camera.pose_count++]);
    } else if (line.key == "exr") {
      camera.exr = readQuotedString(line);
    } else if (line.key == "aov") {
      camera.aovs.emplace_back();
      readAOVBlock(file, camera.aovs.back());
    }
  }
}

void prepareCamera(Camera& camera) {
  // The pass number is 16 bits wide.
  camera.sample = std::clamp(camera.sample, 1, 65535);
  Region& r = camera.region;
  r.min_x = std::max(r.min_x, 0);
  r.min_y = std::max(r.min_y, 0);
  r.max_x = std::min(r.max_x, camera.width);
  r.max_y = std::min(r.max_y, camera.height);
  camera.inverse_sample = 1.0f / float(camera.sample);
  for (CameraPose& pose : camera.poses) derivePose(pose, float(camera.width));
  camera.moving = samePose(camera.poses[0], camera.poses[1]) ? 0 : 1;
  int64_t bytes = 0;
  for (CameraAOV& aov : camera.aovs) {
    prepareAOV(aov, camera.width, camera.height);
    bytes += aovBytes(aov);
  }
  // A framebuffer that could not be had leaves nothing to render into.
  if (camera.aovs[0].image.floats.empty()) r.max_x = r.min_x, r.max_y = r.min_y;
  printBytesRow("framebuffers", bytes);
  printRule();
}

int qzAddCamera() {
  cameras.emplace_back();
  return int(cameras.size() - 1);
}

void qzSetCameraProjection(int camera, int projection) {
  if (Camera* c = findCamera(camera)) c->projection = uint8_t(projection);
}

void qzSetCameraTime(int camera, float time) {
  if (Camera* c = findCamera(camera)) c->time_index = time >= 0.5f ? 1 : 0;
}

void qzSetCameraSample(int camera, int sample) {
  if (Camera* c = findCamera(camera)) c->sample = sample;
}

void qzSetCameraResolution(int camera, int width, int height) {
  if (Camera* c = findCamera(camera)) c->width = width, c->height = height;
}

void qzSetCameraRegion(int camera, int x0, int y0, int x1, int y1) {
  if (Camera* c = findCamera(camera)) c->region = {x0, x1, y1, y0};
}

bool qzGetCameraResolution(int camera, int* width, int* height) {
  const Camera* c = findCamera(camera);
  if (c) *width = c->width, *height = c->height;
  return c;
}

bool qzGetCameraRegion(int camera, int* x0, int* y0, int* x1, int* y1) {
  const Camera* c = findCamera(camera);
  if (c) *x0 = c->region.min_x, *y0 = c->region.min_y, *x1 = c->region.max_x, *y1 = c->region.max_y;
  return c;
}

void qzSetCameraExposure(int camera, float r, float g, float b) {
  if (Camera* c = findCamera(camera)) c->exposure = {r, g, b};
}

void qzSetCameraAngleMeasure(int camera, int measure) {
  if (Camera* c = findCamera(camera)) c->angle_measure = uint8_t(measure);
}

void qzSetCameraPosition(int camera, float x, float y, float z) {
  if (CameraPose* p = selectedPose(camera)) p->position = {x, y, z};
}

void qzSetCameraTarget(int camera, float x, float y, float z) {
  if (CameraPose* p = selectedPose(camera)) p->target = {x, y, z};
}

void qzSetCameraUpVector(int camera, float x, float y, float z) {
  if (CameraPose* p = selectedPose(camera)) p->up_vector = {x, y, z};
}

void qzSetCameraFOV(int camera, float fov) {
  if (CameraPose* p = selectedPose(camera)) p->field_of_view = fov;
}

void qzSetCameraBokeh(int camera, float bokeh) {
  if (CameraPose* p = selectedPose(camera)) p->bokeh = bokeh;
}

void qzInitializeCameras() {
  for (Camera& camera : cameras) prepareCamera(camera);
}

void qzFinalizeCameras() {
  // Every camera writes its outputs once more as it goes: the rendered one into
  // the files it already wrote, the others with their empty images.
  for (Camera& camera : cameras)
    for (CameraAOV& aov : camera.aovs) {
      saveAOV(aov);
      freeImage(aov.image);
    }
  cameras.clear();
}

int qzAddCameraAOV(int camera) {
  Camera* c = findCamera(camera);
  if (!c) return -1;
  c->aovs.emplace_back();
  return int(c->aovs.size() - 1);
}

void qzSetCameraAOVName(int camera, int aov, const char* name) {
  if (CameraAOV* a = findAOV(camera, aov)) a->image.name = name ? name : "";
}

void qzSetCameraAOVUserData(int camera, int aov, const char* name) {
  if (CameraAOV* a = findAOV(camera, aov)) {
    a->channel = userDataChannel;
    a->user_data_name = name ? name : "";
  }
}

void qzSetCameraAOVChannel(int camera, int aov, int channel) {
  if (CameraAOV* a = findAOV(camera, aov)) a->channel = uint32_t(channel);
}
