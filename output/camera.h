// Cameras: two key poses per camera, interpolated over the exposure, turning a
// pixel into the ray that starts a path. Only camera 0 is rendered.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "accel/ray.h"
#include "frame/vec.h"
#include "output/aov.h"

struct CameraPose {
  Vec3f right, forward, up;  // s, d, p
  float camera_to_world[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // row i is (s[i], d[i], p[i])
  Vec3f position;
  Vec3f target;
  Vec3f up_vector{0, 1, 0};
  float bokeh = 0;  // half angle of the lens cone in degrees; 0 or less is a pinhole
  float focus_distance = 0;
  float image_distance = 0;  // in pixel units
  float field_of_view = 45;  // full horizontal angle in degrees
};

// Pixels that are rendered; the maxima are exclusive.
struct Region {
  int min_x = 0, max_x = 1048576, max_y = 1048576, min_y = 0;
};

struct Camera {
  float inverse_sample = 1;
  uint8_t moving = 0;  // set when the poses differ; nothing reads it
  std::vector<CameraAOV> aovs{makeBeautyAOV()};
  uint8_t projection = 0;  // 0 perspective, 1 spherical
  uint8_t angle_measure = 0;  // stored only: angles are always degrees
  int time_index = 0;  // the pose the pose setters write
  CameraPose poses[2];
  Color3f exposure = white;  // stored only
  int pose_count = 0;
  int width = 960, height = 540;
  int sample = 17;
  Region region;
  float ior = 1;
  std::string exr;  // one multi-layer file of all the AOVs; empty: none
};

extern std::vector<Camera> cameras;

void readCameraBlock(std::istream& file, Camera& camera);
void prepareCamera(Camera& camera);
// Fills the basis, the camera-to-world rows and the two distances for an image of width w.
void derivePose(CameraPose& pose, float width);
// The pose at a moment t of the exposure, 0 to 1.
CameraPose poseAt(const Camera& camera, float t);
// The whole pass sees the camera at one moment: the pose of that moment.
CameraPose passPose(const Camera& camera, int pass);
void generatePixelSample(const Camera& camera, int x, int y, int pass, Ray& ray);
// The same with the pass's pose worked out once by the caller, as the pass loop does.
void generatePixelSample(const Camera& camera, const CameraPose& pose, int x, int y, int pass, Ray& ray);
