// The two weld tables on inputs that used to hit their slow paths: an OBJ with
// 20,000 usemtl lines, and smoothing a grid at whole-number coordinates
// against the same grid at fractional ones (interleaved, ratio per run).
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "frame/report.h"
#include "geometry/obj_reader.h"
#include "geometry/smooth_mesh.h"
#include "qz.h"
#include "shading/shader.h"

namespace {

double seconds(int64_t start) { return double(clockNanoseconds() - start) * 1e-9; }

double readManyMaterials(const std::string& path) {
  Object object;
  ObjReader reader = readerFor(object);
  const int64_t start = clockNanoseconds();
  readObjFile(reader, path);
  const double elapsed = seconds(start);
  clearWeldTable();
  return elapsed;
}

// A side by side grid of squares, two triangles each, at spacing `step` from
// `origin`.
Mesh grid(int side, float origin, float step) {
  Mesh mesh;
  for (int y = 0; y <= side; ++y)
    for (int x = 0; x <= side; ++x) mesh.worldPositions.push_back({origin + x * step, origin + y * step, 0});
  // Each triangle has vertices of its own, as a reader that does not weld
  // leaves them.
  std::vector<Vec3f> corners;
  auto at = [&](int x, int y) { return mesh.worldPositions[size_t(y * (side + 1) + x)]; };
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x)
      for (Vec3f p : {at(x, y), at(x + 1, y), at(x + 1, y + 1), at(x + 1, y + 1), at(x, y + 1), at(x, y)})
        corners.push_back(p);
  mesh.worldPositions = corners;
  mesh.vectorChannels[0].values = corners;
  for (uint32_t i = 0; i < corners.size(); i += 3) mesh.triangles.push_back({i, i + 1, i + 2, 0});
  return mesh;
}

double smoothOnce(const Mesh& source) {
  Mesh mesh = source;
  const int64_t start = clockNanoseconds();
  smoothMesh(mesh);
  return seconds(start);
}

}  // namespace

int main() {
  // The report of every read would bury the figures, which go to standard
  // error.
  if (!std::freopen("/dev/null", "w", stdout)) return 1;
  qzStartup();
  qzSetShaderSmoothAngle(0, 60);

  const std::string path = (std::filesystem::temp_directory_path() / "quazel-usemtl-bench.obj").string();
  {
    std::ofstream obj(path);
    obj << "v 0 0 0\nv 1 0 0\nv 0 1 0\n";
    for (int i = 0; i < 20000; ++i) obj << "usemtl m" << i % 7 << "\nf 1 2 3\n";
  }
  std::vector<double> reads;
  for (int run = 0; run < 5; ++run) reads.push_back(readManyMaterials(path));
  std::filesystem::remove(path);
  std::sort(reads.begin(), reads.end());

  const Mesh whole = grid(300, 0, 1), fractional = grid(300, 0.013f, 0.37f);
  std::vector<double> ratios, wholeTimes, fractionalTimes;
  for (int run = 0; run < 5; ++run) {
    fractionalTimes.push_back(smoothOnce(fractional));
    wholeTimes.push_back(smoothOnce(whole));
    ratios.push_back(wholeTimes.back() / fractionalTimes.back());
  }
  std::sort(ratios.begin(), ratios.end());
  std::sort(wholeTimes.begin(), wholeTimes.end());
  std::sort(fractionalTimes.begin(), fractionalTimes.end());
  qzShutdown();

  std::fprintf(stderr, "20000 usemtl lines read       median %.4f s (best %.4f s)\n", reads[2], reads[0]);
  std::fprintf(stderr,
               "300 x 300 grid smoothing      whole numbers %.4f s, fractional "
               "%.4f s (medians)\n",
               wholeTimes[2], fractionalTimes[2]);
  std::fprintf(stderr, "whole / fractional            median ratio %.2f (range %.2f to %.2f)\n", ratios[2], ratios[0],
               ratios[4]);
}
