#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <sstream>
#include <vector>

#include "frame/renderer.h"
#include "output/camera.h"
#include "qz.h"
#include "tests/regex.h"
#include "tests/test_util.h"

namespace {
float angleBetween(Vec3f a, Vec3f b) {
  return std::acos(std::clamp(dot(normalize(a), normalize(b)), -1.0f, 1.0f));
}

// A still camera at (0, 0, 5) looking at the origin, prepared quietly.
Camera& stillCamera(int width, int height, float fov = 45, float bokeh = 0) {
  cameras.clear();
  const int c = qzAddCamera();
  qzSetCameraResolution(c, width, height);
  for (float time : {0.0f, 1.0f}) {
    qzSetCameraTime(c, time);
    qzSetCameraPosition(c, 0, 0, 5);
    qzSetCameraTarget(c, 0, 0, 0);
    qzSetCameraFOV(c, fov);
    qzSetCameraBokeh(c, bokeh);
  }
  qzSetCameraAOVName(c, 0, "");
  captureOutput([] { qzInitializeCameras(); });
  return cameras[c];
}

// Where a perspective ray crosses the image plane, in pixel coordinates from the top left.
void imagePoint(const Camera& camera, const Ray& ray, float& a, float& b) {
  const CameraPose& pose = camera.poses[0];
  const float along = dot(ray.direction, pose.forward);
  a = dot(ray.direction, pose.right) / along * pose.image_distance + camera.width / 2.0f;
  b = camera.height / 2.0f - dot(ray.direction, pose.up) / along * pose.image_distance;
}

void expectRegion(const Region& r, int minX, int minY, int maxX, int maxY) {
  EXPECT_EQ(std::tuple(r.min_x, r.min_y, r.max_x, r.max_y), std::tuple(minX, minY, maxX, maxY));
}

class CameraTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { quietStartup(); }
  void TearDown() override { cameras.clear(); }
};
}  // namespace

TEST_F(CameraTest, NewCameraHasItsDefaultsAndTheTimeSelectsThePoseSettersWrite) {
  cameras.clear();
  EXPECT_EQ(qzAddCamera(), 0);
  EXPECT_EQ(qzAddCamera(), 1);
  const Camera& c = cameras[1];
  EXPECT_EQ(std::tuple(c.width, c.sample), std::tuple(960, 17));
  expectRegion(c.region, 0, 0, 1048576, 1048576);
  ASSERT_EQ(c.aovs.size(), 1u);
  EXPECT_EQ(c.aovs[0].channel, 1u);
  EXPECT_TRUE(std::regex_match(c.aovs[0].image.name, std::regex(R"(beauty-20\d{6}-\d{6}\.hdr)")))
      << c.aovs[0].image.name;

  // The time selects the pose that the setters write.
  const int id = 1;
  qzSetCameraTime(id, 0.49f);
  qzSetCameraFOV(id, 30);
  qzSetCameraPosition(id, 1, 2, 3);
  qzSetCameraTime(id, 0.5f);
  qzSetCameraFOV(id, 60);
  qzSetCameraBokeh(id, 2);
  EXPECT_EQ(std::tuple(c.poses[0].field_of_view, c.poses[0].position, c.poses[0].bokeh),
            std::tuple(30, Vec3f(1, 2, 3), 0));
  EXPECT_EQ(std::tuple(c.poses[1].field_of_view, c.poses[1].bokeh), std::tuple(60, 2));
  // Indices outside the array are dropped rather than written.
  qzSetCameraFOV(7, 10);
  qzSetCameraSample(-1, 10);
  EXPECT_EQ(qzAddCameraAOV(9), -1);
  EXPECT_EQ(cameras.size(), 2u);
}

TEST_F(CameraTest, PreparationClampsSampleAndRegionReportsFramebuffersAndRefusesBadSizes) {
  cameras.clear();
  const int a = qzAddCamera(), b = qzAddCamera();
  qzSetCameraResolution(a, 64, 64);
  qzSetCameraRegion(a, 10, 20, 30, 40);
  qzSetCameraSample(a, 0);
  qzAddCameraAOV(a);
  qzSetCameraResolution(b, 16, 8);
  qzSetCameraRegion(b, -5, -5, 100, 100);
  qzSetCameraSample(b, 100000);
  // Read back as stored: preparation has not clamped anything yet.
  int v[4];
  ASSERT_TRUE(qzGetCameraRegion(b, &v[0], &v[1], &v[2], &v[3]));
  EXPECT_EQ(std::vector<int>(v, v + 4), (std::vector<int>{-5, -5, 100, 100}));
  EXPECT_FALSE(qzGetCameraResolution(b + 1, &v[0], &v[1]) || qzGetCameraRegion(-1, &v[0], &v[1], &v[2], &v[3]));
  const std::string text = captureOutput([] { qzInitializeCameras(); });
  // Both cameras report, each its own AOVs at 12 bytes a pixel.
  const std::string rule = std::string(80, '_') + "\n\n";
  EXPECT_EQ(text, "framebuffers      0.094 [M bytes]\n" + rule + "framebuffers      0.001 [M bytes]\n" + rule);
  const Camera& ca = cameras[a];
  EXPECT_EQ(std::tuple(ca.sample, ca.inverse_sample), std::tuple(1, 1.0f));
  expectRegion(ca.region, 10, 20, 30, 40);
  // The framebuffers keep the full resolution.
  EXPECT_EQ(std::tuple(ca.aovs[1].image.floats.size(), ca.aovs[1].width), std::tuple(64u * 64 * 3, 64));
  EXPECT_EQ(cameras[b].sample, 65535);
  expectRegion(cameras[b].region, 0, 0, 16, 8);
  for (auto& c : cameras)
    for (auto& aov : c.aovs) aov.image.name.clear();

  // A zero size leaves the framebuffers and the region empty.
  cameras.clear();
  const int c = qzAddCamera();
  qzSetCameraResolution(c, 32, 0);
  EXPECT_EQ(captureOutput([] { qzInitializeCameras(); }).substr(0, 34), "framebuffers      0.000 [M bytes]\n");
  EXPECT_TRUE(cameras[c].aovs[0].image.floats.empty());
  EXPECT_GE(cameras[c].region.min_y, cameras[c].region.max_y);
  // A size that no memory holds is refused with a message, and the run goes on.
  qzSetCameraResolution(c, 1000000000, 1000000000);
  const std::string refusal = captureOutput([] { qzInitializeCameras(); });
  EXPECT_NE(refusal.find("error :( camera - no memory"), std::string::npos) << refusal;
  EXPECT_TRUE(cameras[c].aovs[0].image.floats.empty());
  EXPECT_EQ(cameras[c].region.min_x, cameras[c].region.max_x);
}

TEST_F(CameraTest, DerivedPoseIsARightHandedBasisWithImageDistanceAndPosesInterpolate) {
  CameraPose pose;
  pose.position = {1, 2, 3};
  pose.target = {4, 2, -1};
  pose.up_vector = {0, 5, 0};
  pose.field_of_view = 90;
  derivePose(pose, 200);
  EXPECT_NEAR(pose.image_distance, 100, 1e-3);
  EXPECT_FLOAT_EQ(pose.focus_distance, 5);
  EXPECT_NEAR(length(pose.forward - Vec3f(0.6f, 0, -0.8f)), 0, 1e-6);
  EXPECT_NEAR(length(pose.right - cross(pose.forward, pose.up)), 0, 1e-6);
  EXPECT_NEAR(pose.up.y, 1, 1e-6);
  // A target on the eye gives a zero basis and no focus, without a NaN.
  pose.target = pose.position;
  derivePose(pose, 200);
  EXPECT_EQ(std::tuple(pose.forward, pose.right, pose.focus_distance), std::tuple(zeroVector, zeroVector, 0));

  // Between two poses the position and angle move linearly, the up vector spherically.
  Camera camera;
  camera.width = 100;
  camera.poses[0].position = {0, 0, 0};
  camera.poses[1].position = {4, 0, 0};
  camera.poses[0].target = camera.poses[1].target = {0, 0, -10};
  camera.poses[0].field_of_view = 40;
  camera.poses[1].field_of_view = 80;
  camera.poses[0].up_vector = {0, 1, 0};
  camera.poses[1].up_vector = {1, 0, 0};
  const CameraPose half = poseAt(camera, 0.5f);
  EXPECT_EQ(half.position, Vec3f(2, 0, 0));
  EXPECT_EQ(half.field_of_view, 60);
  EXPECT_NEAR(half.up_vector.x, std::sqrt(0.5f), 1e-6);
  EXPECT_NEAR(half.up_vector.y, std::sqrt(0.5f), 1e-6);
  const CameraPose quarter = poseAt(camera, 0.25f);
  EXPECT_NEAR(quarter.up_vector.x, std::sin(testPi / 8), 1e-6);
  EXPECT_NEAR(quarter.up_vector.y, std::cos(testPi / 8), 1e-6);
  EXPECT_NEAR(half.image_distance, 50 / std::tan(testPi / 6), 1e-3);
  // Nearly parallel hints mix linearly, unnormalised.
  camera.poses[1].up_vector = {0, 3, 0};
  EXPECT_EQ(poseAt(camera, 0.5f).up_vector, Vec3f(0, 2, 0));
}

TEST_F(CameraTest, CameraRayIsResetForAPathAndItsPixel) {
  Camera& camera = stillCamera(40, 20);
  camera.ior = 1.33f;
  camera.sample = 5;
  Ray ray;
  ray.bounces = 3;
  ray.hit.kind = 2;
  ray.throughput = black;
  generatePixelSample(camera, 7, 13, 2, ray);
  EXPECT_EQ(std::tuple(ray.pixel, ray.sample_count, ray.ior, ray.bounces, ray.origin, ray.throughput),
            std::tuple(13u * 40 + 7, 5u, 1.33f, 0, Vec3f(0, 0, 5), white));
  EXPECT_EQ(std::tuple(ray.hit.kind, ray.hit.primitive, ray.prev_primitive, ray.hit.event),
            std::tuple(0, uint32_t(-1), uint32_t(-1), 1));
  EXPECT_EQ(std::tuple(ray.cursor.index, ray.cursor.dimension, ray.cursor.scramble),
            std::tuple(0u, 0u, ScrambleTable[13][7]));
  EXPECT_NEAR(length(ray.direction), 1, 1e-6);
}

TEST_F(CameraTest, CentrePixelLooksAtTheTargetAndEdgesSpanTheFieldOfView) {
  const int W = 65, H = 33;
  Camera& camera = stillCamera(W, H, 50);
  const float pixelAngle = std::atan(1 / camera.poses[0].image_distance);
  float widest = 0;
  for (int i = 0; i < 2000; ++i) {
    Ray centre, left, right;
    generatePixelSample(camera, W / 2, H / 2, 0, centre);
    EXPECT_LE(angleBetween(centre.direction, Vec3f(0, 0, -1)), 0.75f * pixelAngle);
    generatePixelSample(camera, 0, H / 2, 0, left);
    generatePixelSample(camera, W - 1, H / 2, 0, right);
    const float span = angleBetween(left.direction, right.direction);
    EXPECT_LE(span, 50 * testPi / 180 + 1e-5f);
    widest = std::max(widest, span);
    // The left edge lies to the left: negative x in world space.
    EXPECT_LT(left.direction.x, 0);
    EXPECT_GT(right.direction.x, 0);
  }
  EXPECT_GT(widest, 50 * testPi / 180 - 2 * pixelAngle);
}

TEST_F(CameraTest, SamplesSpreadUniformlyOverThePixelAndTimeIsStratifiedByPass) {
  Camera& camera = stillCamera(20, 10);
  const int n = 20000, bins = 10;
  int histogramA[bins] = {}, histogramB[bins] = {};
  double sumA = 0, sumB = 0, squareA = 0;
  for (int i = 0; i < n; ++i) {
    Ray ray;
    generatePixelSample(camera, 3, 6, 0, ray);
    float a, b;
    imagePoint(camera, ray, a, b);
    a -= 3, b -= 6;
    ASSERT_GE(a, -1e-3);
    ASSERT_LE(a, 1 + 1e-3);
    ASSERT_GE(b, -1e-3);
    ASSERT_LE(b, 1 + 1e-3);
    sumA += a, sumB += b, squareA += a * a;
    ++histogramA[std::min(int(a * bins), bins - 1)];
    ++histogramB[std::min(int(b * bins), bins - 1)];
  }
  EXPECT_NEAR(sumA / n, 0.5, 0.01);
  EXPECT_NEAR(sumB / n, 0.5, 0.01);
  EXPECT_NEAR(squareA / n - (sumA / n) * (sumA / n), 1.0 / 12, 0.005);
  // Each tenth holds its share within six standard deviations.
  for (int k = 0; k < bins; ++k) {
    EXPECT_NEAR(histogramA[k], n / bins, 6 * std::sqrt(n * 0.09));
    EXPECT_NEAR(histogramB[k], n / bins, 6 * std::sqrt(n * 0.09));
  }

  // Time is stratified by pass and checkerboard.
  Camera& timed = stillCamera(8, 8);
  timed.sample = 4;
  for (int pass = 0; pass < 4; ++pass)
    for (int y = 0; y < 2; ++y)
      for (int x = 0; x < 2; ++x)
        for (int i = 0; i < 50; ++i) {
          Ray ray;
          generatePixelSample(timed, x, y, pass, ray);
          const float half = float((x & 1) ^ (y & 1));
          // Undo the pixel's rotation, then the time lies in its half stratum of the pass.
          float t = ray.time - float(ray.cursor.scramble) * 0x1p-32f;
          if (t < 0) t += 1;
          EXPECT_GE(t, (half * 0.5f + pass) / 4 - 1e-6f);
          EXPECT_LE(t, ((half + 1) * 0.5f + pass) / 4 + 1e-6f);
          EXPECT_GE(ray.time, 0);
          EXPECT_LE(ray.time, 1);
        }
}

TEST_F(CameraTest, BokehRaysPassThroughTheFocusPoint) {
  const int W = 33, H = 33;
  Camera& camera = stillCamera(W, H, 40, 10);
  const float focus = camera.poses[0].focus_distance;
  ASSERT_FLOAT_EQ(focus, 5);
  const float pixelAngle = std::atan(1 / camera.poses[0].image_distance);
  float widest = 0;
  for (int i = 0; i < 2000; ++i) {
    Ray ray;
    generatePixelSample(camera, W / 2, H / 2, 0, ray);
    const Vec3f focusPoint = ray.origin + focus * ray.direction;
    // The point of focus lies on the sphere about the eye, within the pixel about the target.
    EXPECT_NEAR(length(focusPoint - Vec3f(0, 0, 5)), focus, 1e-4);
    EXPECT_LE(angleBetween(focusPoint - Vec3f(0, 0, 5), Vec3f(0, 0, -1)), 0.75f * pixelAngle);
    const float cone = angleBetween(ray.direction, focusPoint - Vec3f(0, 0, 5));
    EXPECT_LE(cone, 10 * testPi / 180 + 1e-4f);
    widest = std::max(widest, cone);
  }
  EXPECT_GT(widest, 9 * testPi / 180);
  // A lens of 90 degrees covers the whole half sphere about the pixel's ray.
  Camera& wide = stillCamera(W, H, 40, 90);
  float widestWide = 0;
  for (int i = 0; i < 5000; ++i) {
    Ray ray;
    generatePixelSample(wide, W / 2, H / 2, 0, ray);
    const float cone = angleBetween(ray.direction, Vec3f(0, 0, -1));
    EXPECT_LE(cone, testPi / 2 + pixelAngle);
    widestWide = std::max(widestWide, cone);
  }
  EXPECT_GT(widestWide, 0.45f * testPi);
}

TEST_F(CameraTest, SphericalCameraCoversTheWholeSphere) {
  const int W = 64, H = 32;
  Camera& camera = stillCamera(W, H);
  camera.projection = 1;
  const CameraPose& pose = camera.poses[0];
  auto direction = [&](int x, int y) {
    Ray ray;
    generatePixelSample(camera, x, y, 0, ray);
    EXPECT_EQ(ray.origin, pose.position);
    EXPECT_NEAR(length(ray.direction), 1, 1e-5);
    return ray.direction;
  };
  const float rowAngle = testPi / H;
  // The middle of the image looks forward, a quarter in looks left, the top up, the bottom down.
  EXPECT_LT(angleBetween(direction(W / 2, H / 2), pose.forward), 2 * rowAngle);
  EXPECT_LT(angleBetween(direction(W / 4, H / 2), -pose.right), 2 * rowAngle);
  EXPECT_LT(angleBetween(direction(3 * W / 4, H / 2), pose.right), 2 * rowAngle);
  EXPECT_LT(angleBetween(direction(0, H / 2), -pose.forward), 2 * rowAngle);
  EXPECT_LT(angleBetween(direction(W / 3, 0), pose.up), rowAngle);
  EXPECT_LT(angleBetween(direction(W / 3, H - 1), -pose.up), rowAngle);
  // Every one of the 26 cells of a 3 x 3 x 3 split of directions is reached.
  std::set<int> cells;
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) {
      const Vec3f d = direction(x, y);
      auto third = [](float v) { return v < -0.4f ? 0 : v > 0.4f ? 2 : 1; };
      cells.insert(third(d.x) * 9 + third(d.y) * 3 + third(d.z));
    }
  EXPECT_EQ(cells.size(), 26u);
}

TEST_F(CameraTest, CameraBlockReadsEveryKeyAndAtMostTwoPoses) {
  std::istringstream file(
      "  resolution 32 16\n"
      "  region 1 2 30 14\n"
      "  sample 9\n"
      "  ior 1.5\n"
      "  exposure 0.5 0.25 2\n"
      "  projection \"panorama\"\n"
      "  projection \"fisheye\"\n"
      "  pose\n    position 1 2 3\n    target 0 0 -1\n    field_of_view 30\n    bokeh 2\n  end\n"
      "  pose\n    position 4 5 6\n    up_vector 0 0 1\n  end\n"
      "  aov\n    type \"depth\"\n    image \"depth.pfm\"\n  end\n"
      "  pose\n    position 7 7 7\n  end\n"
      "  sample 99\n"
      "end\n");
  Camera camera;
  camera.poses[1].field_of_view = 10;
  readCameraBlock(file, camera);
  EXPECT_EQ(std::tuple(camera.width, camera.height, camera.sample, camera.ior, camera.exposure),
            std::tuple(32, 16, 9, 1.5f, Color3f(0.5f, 0.25f, 2)));
  expectRegion(camera.region, 1, 2, 30, 14);
  // An unknown projection word keeps the earlier one.
  EXPECT_EQ(std::tuple(camera.projection, camera.pose_count), std::tuple(1, 2));
  const CameraPose &first = camera.poses[0], &second = camera.poses[1];
  EXPECT_EQ(std::tuple(first.position, first.target, first.field_of_view, first.bokeh),
            std::tuple(Vec3f(1, 2, 3), Vec3f(0, 0, -1), 30, 2));
  // A pose block starts from the pose defaults.
  EXPECT_EQ(std::tuple(second.position, second.field_of_view, second.up_vector),
            std::tuple(Vec3f(4, 5, 6), 45, Vec3f(0, 0, 1)));
  ASSERT_EQ(camera.aovs.size(), 2u);
  EXPECT_EQ(std::tuple(camera.aovs[1].image.name, camera.aovs[1].channel), std::tuple("depth.pfm", 0x80000u));
  // The third pose's end closed the camera block: the sample line after it is not the camera's.
  std::string rest;
  std::getline(file, rest);
  EXPECT_EQ(rest, "  sample 99");
}
