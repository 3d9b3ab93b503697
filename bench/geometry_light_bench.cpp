// Costs of the geometry light on a mesh emitter of about 100k triangles (a
// gently domed grid above a floor): the preparation that draws its points,
// and one call of direct lighting at a first hit and at a later bounce, each
// light sample with its shadow ray through the hierarchy.
//
//   cmake -S . -B build -G Ninja -DQZ_BENCH=ON && ninja -C build geometry_light_bench
//   build/bench/geometry_light_bench [grid size] [light samples]
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <vector>

#include "frame/renderer.h"
#include "frame/report.h"
#include "geometry/object.h"
#include "lights/geometry_light.h"
#include "qz.h"
#include "shading/shader.h"

namespace {
// An n x n grid of two triangles a cell, two units wide at height 1, facing down.
void addDome(int object, int n, int shader) {
  std::vector<float> positions;
  for (int j = 0; j <= n; ++j)
    for (int i = 0; i <= n; ++i) {
      const float x = 2 * float(i) / float(n) - 1, z = 2 * float(j) / float(n) - 1;
      positions.insert(positions.end(), {x, 1 + 0.2f * (1 - 0.5f * (x * x + z * z)), z});
    }
  std::vector<unsigned> indices;
  const unsigned row = unsigned(n) + 1;
  for (unsigned j = 0; j < unsigned(n); ++j)
    for (unsigned i = 0; i < unsigned(n); ++i) {
      const unsigned a = j * row + i, b = a + 1, c = a + row, d = c + 1;
      indices.insert(indices.end(), {a, b, d, a, d, c});
    }
  qzSetObjectShader(object, 3, shader);
  qzAddVertexData(object, 3, "position", int(positions.size() / 3), 3, positions.data());
  qzAddPrimitives(object, 3, int(indices.size() / 3), indices.data());
}

void addFloor(int object, int shader) {
  const float corners[12] = {-5, 0, -5, -5, 0, 5, 5, 0, 5, 5, 0, -5};
  const unsigned indices[4] = {0, 1, 2, 3};
  qzSetObjectShader(object, 4, shader);
  qzAddVertexData(object, 4, "position", 4, 3, corners);
  qzAddPrimitives(object, 4, 1, indices);
}

template <class Body>
double quietMilliseconds(Body body) {
  std::ostringstream quiet;
  std::streambuf* out = std::cout.rdbuf(quiet.rdbuf());
  const int64_t start = clockNanoseconds();
  body();
  const int64_t end = clockNanoseconds();
  std::cout.rdbuf(out);
  return double(end - start) * 1e-6;
}

Surface floorPoint(float x, float z) {
  Surface s;
  s.tangent = {1, 0, 0};
  s.bitangent = {0, 0, -1};
  s.normal = s.geometric_normal = s.view = {0, 1, 0};
  s.position = {x, 0, z};
  s.cos_view = 1;
  s.diffuse[0] = {0.5f, 0.5f, 0.5f};
  s.diffuse_on[0] = 1;
  return s;
}

// Nanoseconds of one call at points spread over the floor under the dome.
double nanosecondsPerCall(int calls, uint32_t dimension) {
  Ray ray;
  ray.hit.event = cameraEvent;
  ray.hit.kind = 4;
  ray.hit.primitive = 0;
  ray.cursor.dimension = dimension;
  LobeRadiance lobes;
  const int64_t start = clockNanoseconds();
  for (int i = 0; i < calls; ++i) {
    ray.cursor.index = uint32_t(i);
    ray.cursor.scramble = uint32_t(i) * 2654435761u;
    const float x = float(i % 101) / 50 - 1, z = float(i / 101 % 101) / 50 - 1;
    shadeGeometrySurface(lobes, ray, floorPoint(x, z));
  }
  const int64_t end = clockNanoseconds();
  if (lobes.diffuse[0].r < 0) std::puts("");  // keeps the work
  return double(end - start) / calls;
}
}  // namespace

int main(int argc, char** argv) {
  const int n = argc > 1 ? std::max(std::atoi(argv[1]), 1) : 224;
  const int samples = argc > 2 ? std::max(std::atoi(argv[2]), 1) : 64;
  quietMilliseconds([] { qzStartup(); });
  const int object = qzAddObject();
  const int lamp = qzAddShader();
  qzSetShaderColor(lamp, 3, emissionChannel, 4, 4, 4);
  qzSetShaderGeometryLight(lamp, 1, true);
  addDome(object, n, lamp);
  const int floor = qzAddShader();
  qzSetShaderColor(floor, 3, diffuseChannel, 0.5f, 0.5f, 0.5f);
  addFloor(object, floor);
  const int camera = qzAddCamera();
  qzSetCameraSample(camera, 1);
  qzSetCameraAOVName(camera, 0, "");
  qzSetGeometryLightSample(samples);
  const double initialize = quietMilliseconds([] { qzInitialize(); });
  std::printf("mesh emitter of %d triangles, %d light samples at a first hit\n", 2 * n * n, samples);
  std::printf("  whole preparation (hierarchy, shaders, lights): %8.1f ms\n", initialize);
  std::vector<double> runs;
  for (int run = 0; run < 7; ++run) runs.push_back(quietMilliseconds([] { prepareGeometryLight(); }));
  std::sort(runs.begin(), runs.end());
  std::printf("  geometry light preparation, %d points:        %8.1f ms (median of 7)\n", geometryLightPointCount,
              runs[3]);
  const int N = std::max(int(0.5f * float(samples)), 1);
  const double first = nanosecondsPerCall(2000, 0);
  std::printf("  shadeGeometrySurface at a first hit:          %8.0f ns a call, %5.0f ns a sample\n", first,
              first / N);
  // A hit at bounce index 1 takes one sample with its own cursor.
  renderer.bounce = 2;
  std::printf("  shadeGeometrySurface at a later bounce:       %8.0f ns a call\n", nanosecondsPerCall(100000, 2));
  quietMilliseconds([] { qzFinalize(); });
  return 0;
}
