// From a pixel and a pass to a camera ray: pose interpolation and the two projections.
#include <omp.h>

#include <algorithm>
#include <cmath>

#include "frame/sequence.h"
#include "output/camera.h"

namespace {
constexpr float pi = 3.14159265358979f;

float mix(float a, float b, float t) { return (1 - t) * a + t * b; }
Vec3f mix(Vec3f a, Vec3f b, float t) { return (1 - t) * a + t * b; }

// Spherical interpolation of the two up hints; nearly parallel hints mix linearly.
Vec3f slerp(Vec3f a, Vec3f b, float t) {
  const float c = dot(a, b);
  if (std::fabs(c) > 0.999999f) return mix(a, b, t);
  const float angle = std::acos(std::clamp(c, -1.0f, 1.0f));
  return (std::sin((1 - t) * angle) * a + std::sin(t * angle) * b) / std::sin(angle);
}

Vec3f toWorld(const CameraPose& pose, Vec3f v) {
  const float* m = pose.camera_to_world;
  return {m[0] * v.x + m[1] * v.y + m[2] * v.z, m[3] * v.x + m[4] * v.y + m[5] * v.z,
          m[6] * v.x + m[7] * v.y + m[8] * v.z};
}

// The lens is a cone about the pinhole ray pivoting on the focus point, so the
// surface in focus is a sphere about the eye.
void applyBokeh(const CameraPose& pose, Ray& ray, float u1, float u2) {
  const Vec3f focus = pose.position + pose.focus_distance * ray.direction;
  Vec3f t1, t2;
  buildOrthonormalBasis(ray.direction, t1, t2);
  const float phi = 2 * pi * u1;
  const float cosTheta = 1 - (1 - std::cos(pose.bokeh * pi / 180)) * u2;
  const float sinSquared = 1 - cosTheta * cosTheta;
  const float sinTheta = sinSquared > 0 ? std::sqrt(sinSquared) : 0;
  ray.direction = cosTheta * ray.direction + sinTheta * (std::cos(phi) * t1 + std::sin(phi) * t2);
  ray.origin = focus - pose.focus_distance * ray.direction;
}
}  // namespace

void derivePose(CameraPose& pose, float width) {
  const Vec3f u = normalize(pose.up_vector);
  const Vec3f d = normalize(pose.target - pose.position);
  const Vec3f s = normalize(cross(d, u));
  const Vec3f p = normalize(cross(s, d));
  pose.right = s, pose.forward = d, pose.up = p;
  for (int i = 0; i < 3; ++i) {
    pose.camera_to_world[i * 3 + 0] = s[i];
    pose.camera_to_world[i * 3 + 1] = d[i];
    pose.camera_to_world[i * 3 + 2] = p[i];
  }
  pose.image_distance = 0.5f * width / std::tan(0.5f * pose.field_of_view * pi / 180);
  const float squared = lengthSquared(pose.target - pose.position);
  pose.focus_distance = squared > 0 ? std::sqrt(squared) : 0;
}

CameraPose poseAt(const Camera& camera, float t) {
  const CameraPose& a = camera.poses[0];
  const CameraPose& b = camera.poses[1];
  CameraPose pose;
  pose.position = mix(a.position, b.position, t);
  pose.target = mix(a.target, b.target, t);
  pose.bokeh = mix(a.bokeh, b.bokeh, t);
  pose.field_of_view = mix(a.field_of_view, b.field_of_view, t);
  pose.up_vector = slerp(a.up_vector, b.up_vector, t);
  derivePose(pose, float(camera.width));
  return pose;
}

CameraPose passPose(const Camera& camera, int pass) { return poseAt(camera, (float(pass) + 0.5f) / float(camera.sample)); }

void generatePixelSample(const Camera& camera, int x, int y, int pass, Ray& ray) {
  generatePixelSample(camera, passPose(camera, pass), x, y, pass, ray);
}

void generatePixelSample(const Camera& camera, const CameraPose& pose, int x, int y, int pass, Ray& ray) {
  const float S = float(camera.sample);

  ray.diffuse_bounces = ray.glossy_bounces = ray.specular_bounces = ray.bounces = 0;
  ray.hit.kind = ray.prev_kind = 0;
  ray.hit.primitive = ray.prev_primitive = uint32_t(-1);
  ray.hit.event = 1;
  ray.hit.transmissions = 0;
  ray.throughput = white;
  ray.sample_count = uint32_t(camera.sample);
  ray.ior = camera.ior;
  ray.cursor.index = ray.cursor.dimension = 0;
  ray.pixel = uint32_t(y) * uint32_t(camera.width) + uint32_t(x);
  ray.thread = uint32_t(omp_get_thread_num());
  float r1, r2, lens1 = 0, lens2 = 0;
  if (renderer.sampler == samplerRandom) {
    ray.cursor.scramble = ScrambleTable[y & 31][x & 31];
    // Time is stratified by pass in two checkerboard half strata, rotated by the pixel's scramble.
    const int checker = (x & 1) ^ (y & 1);
    ray.time = ((float(checker) + uniformRandom()) * 0.5f + float(pass)) / S + float(ray.cursor.scramble) * 0x1p-32f;
    if (ray.time > 1) ray.time -= 1;
    // No pixel filter: a sample is spread uniformly over its own pixel only.
    r1 = uniformRandom();
    r2 = uniformRandom();
    if (pose.bokeh > 0) lens1 = uniformRandom(), lens2 = uniformRandom();
  } else {
    // The pass is the sample's index in the pixel's sequence.
    ray.cursor = {uint32_t(pass), 0, pixelScramble(renderer.seed, ray.pixel)};
    startLooseStream(ray.cursor.scramble, uint32_t(pass));
    ray.time = sobolNumber({uint32_t(pass), decideTime, ray.cursor.scramble});
    sobolPair({uint32_t(pass), decidePixel, ray.cursor.scramble}, r1, r2);
    if (pose.bokeh > 0) sobolPair({uint32_t(pass), decideLens, ray.cursor.scramble}, lens1, lens2);
  }
  const float W = float(camera.width), H = float(camera.height);
  if (camera.projection == 1) {
    const float u = ((float(x) + r1) / W) * 2 * pi - pi / 2;
    const float v = ((float(y) + r2) / H) * pi;
    ray.origin = pose.position;
    ray.direction = toWorld(pose, {-std::cos(u) * std::sin(v), std::sin(u) * std::sin(v), std::cos(v)});
    return;
  }
  const float a = (float(x) + r1) - W / 2;
  const float b = H / 2 - (float(y) + r2);
  ray.origin = pose.position;
  ray.direction = normalize(toWorld(pose, {a, pose.image_distance, b}));
  if (pose.bokeh > 0) applyBokeh(pose, ray, lens1, lens2);
}
