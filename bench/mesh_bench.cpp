// Reading, smoothing and displacing real meshes: prints the time of each step.
#include <cstdio>
#include <string>

#include "frame/report.h"
#include "geometry/displacement.h"
#include "geometry/obj_reader.h"
#include "geometry/smooth_mesh.h"
#include "qz.h"
#include "shading/shader.h"

namespace {

double seconds(int64_t start) { return double(clockNanoseconds() - start) * 1e-9; }

void measure(const std::string& file, int level) {
  const int smooth = qzAddShader();
  qzSetShaderSmoothAngle(smooth, 60);
  Object& object = objects[size_t(qzAddObject())];
  int64_t start = clockNanoseconds();
  ObjReader reader = readerFor(object);
  readObjFile(reader, std::string(QZ_BENCH_DATA) + "/" + file);
  const double read = seconds(start);
  Mesh& mesh = object.mesh;
  mesh.worldPositions = mesh.vectorChannels[0].values;
  for (Triangle& t : mesh.triangles) t.shader = uint32_t(smooth);
  start = clockNanoseconds();
  smoothMesh(mesh);
  const double smoothing = seconds(start);
  shaders[smooth].geometry.vector.emplace_back().level = level;
  start = clockNanoseconds();
  displaceMesh(mesh);
  smoothMesh(mesh);
  const double displacing = seconds(start);
  std::printf("%-20s %8zu triangles  read %.3f s  smooth %.3f s  level %d displacement %.3f s -> %zu triangles\n",
              file.c_str(), size_t(mesh.triangles.size() / size_t(level * level)), read, smoothing, level,
              displacing, mesh.triangles.size());
}

}  // namespace

int main() {
  qzStartup();
  measure("stanford-bunny.obj", 4);
  measure("ogre.obj", 2);
  qzShutdown();
}
