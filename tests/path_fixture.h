// Whole renders with known answers: scenes of flat four-cornered faces built
// through the exports, a still camera, and the mean of what it saw.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "frame/renderer.h"
#include "lights/gaffer.h"
#include "output/camera.h"
#include "qz.h"
#include "tests/test_util.h"

class PathTest : public testing::Test {
 protected:
  void SetUp() override {
    quietStartup();
    qzSetSkyLightColor(0, 0, 0);  // a black world unless a test lights it
    object = qzAddObject();
    vertices = 0;
  }
  void TearDown() override {
    captureOutput([] { qzFinalize(); });
  }
  // Finalises this scene and starts an empty one, for tests that render several.
  void restart() {
    TearDown();
    SetUp();
  }

  // A new shader with the given colour on both sides of one channel.
  static int addShader(int channel, Color3f c) {
    const int id = qzAddShader();
    qzSetShaderColor(id, 3, channel, c.r, c.g, c.b);
    return id;
  }

  // A flat face about `centre` spanned by the half edges u and v; its front
  // faces along u x v.
  void addQuad(int shader, Vec3f centre, Vec3f u, Vec3f v) {
    const Vec3f corners[4] = {centre - u - v, centre + u - v, centre + u + v, centre - u + v};
    std::vector<float> data;
    for (const Vec3f& p : corners) data.insert(data.end(), {p.x, p.y, p.z});
    qzSetObjectShader(object, 4, shader);
    qzAddVertexData(object, 4, "position", 4, 3, data.data());
    const unsigned first = vertices;
    const unsigned indices[4] = {first, first + 1, first + 2, first + 3};
    qzAddPrimitives(object, 4, 1, indices);
    vertices += 4;
  }

  // A sphere of triangles, `rings` bands from pole to pole, facing out; with
  // `normals`, the sphere's own normals at its vertices, which then must be
  // the object's first (vertices without normals take their face's).
  void addSphere(int shader, Vec3f centre, float radius, int rings, bool normals = false) {
    const int sectors = 2 * rings;
    std::vector<float> positions, directions;
    for (int i = 0; i <= rings; ++i)
      for (int j = 0; j <= sectors; ++j) {
        const float theta = testPi * float(i) / float(rings), phi = 2 * testPi * float(j) / float(sectors);
        const Vec3f n{std::sin(theta) * std::cos(phi), std::cos(theta), std::sin(theta) * std::sin(phi)};
        const Vec3f p = centre + radius * n;
        positions.insert(positions.end(), {p.x, p.y, p.z});
        directions.insert(directions.end(), {n.x, n.y, n.z});
      }
    std::vector<unsigned> indices;
    auto at = [&](int i, int j) { return vertices + unsigned(i * (sectors + 1) + j); };
    for (int i = 0; i < rings; ++i)
      for (int j = 0; j < sectors; ++j) {
        if (i > 0) indices.insert(indices.end(), {at(i, j), at(i, j + 1), at(i + 1, j)});
        if (i < rings - 1) indices.insert(indices.end(), {at(i, j + 1), at(i + 1, j + 1), at(i + 1, j)});
      }
    qzSetObjectShader(object, 3, shader);
    qzAddVertexData(object, 3, "position", int(positions.size() / 3), 3, positions.data());
    if (normals) qzAddVertexData(object, 3, "normal", int(directions.size() / 3), 3, directions.data());
    qzAddPrimitives(object, 3, int(indices.size() / 3), indices.data());
    vertices += unsigned(positions.size() / 3);
  }

  // The six faces of a cube of half size `half` about the origin, facing out or in.
  void addCube(int shader, float half, bool outwards) {
    for (int axis = 0; axis < 3; ++axis)
      for (float side : {-1.0f, 1.0f}) {
        Vec3f n, u, v;
        n[axis] = half * side, u[(axis + 1) % 3] = half * (outwards ? side : -side), v[(axis + 2) % 3] = half;
        addQuad(shader, n, u, v);
      }
  }

  // A square camera of `size` pixels looking from `position` at `target`, its
  // images kept in memory only.
  static int addCamera(int size, int passes, Vec3f position, Vec3f target, float fov, Vec3f up = {0, 1, 0}) {
    const int c = qzAddCamera();
    qzSetCameraResolution(c, size, size);
    qzSetCameraSample(c, passes);
    qzSetCameraAOVName(c, 0, "");
    for (float time : {0.0f, 1.0f}) {
      qzSetCameraTime(c, time);
      qzSetCameraPosition(c, position.x, position.y, position.z);
      qzSetCameraTarget(c, target.x, target.y, target.z);
      qzSetCameraUpVector(c, up.x, up.y, up.z);
      qzSetCameraFOV(c, fov);
    }
    return c;
  }

  static int addAOV(int camera, int channel) {
    const int aov = qzAddCameraAOV(camera);
    qzSetCameraAOVName(camera, aov, "");
    qzSetCameraAOVChannel(camera, aov, channel);
    return aov;
  }

  // Prepares and renders the scene; returns the report.
  static std::string render() {
    return captureOutput([] {
      qzInitialize();
      qzRender();
    });
  }

  static const Image& image(int aov) { return cameras[0].aovs[size_t(aov)].image; }
  static Color3f pixel(int aov, int p) {
    const float* f = &image(aov).floats[size_t(p) * 3];
    return {f[0], f[1], f[2]};
  }
  static int pixelCount() { return cameras[0].width * cameras[0].height; }
  static Color3f meanPixel(int aov) {
    Color3f sum;
    for (int p = 0; p < pixelCount(); ++p) sum += pixel(aov, p);
    return sum / float(pixelCount());
  }

  int object = 0;
  unsigned vertices = 0;
};

// The share of the cosine-weighted hemisphere above a point that a parallel
// square of half size a at height h covers, centred over the point: four
// corner rectangles of the classic form factor of a parallel rectangle.
inline float squareFormFactor(float a, float h) {
  const float A = a / h, s = std::sqrt(1 + A * A);
  const float corner = (2 * A / s * std::atan(A / s)) / (2 * testPi);
  return 4 * corner;
}

// Four standard deviations of the mean of n samples that lie in [0, 1] with mean m.
inline float meanTolerance(float m, float n) { return 4 * std::sqrt(m * (1 - m) / n); }

