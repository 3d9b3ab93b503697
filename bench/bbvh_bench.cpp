// Build times and quality of the eight-lane hierarchy on real meshes, on one
// thread and on all, beside Embree's build of the same triangles when present.
//
//   cmake -S . -B build -G Ninja -DQZ_BENCH=ON && ninja -C build bbvh_bench
//   build/bench/bbvh_bench [repetitions] [largest thread count] [ours]
//   valgrind --tool=callgrind build/bench/bbvh_bench 1 1 ours   ours only, for instruction counts
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "accel/bbvh.h"
#include "accel/primitive_bounds.h"
#include "frame/report.h"
#include "geometry/object.h"
#include "tests/mesh_fixture.h"

#ifdef QZ_EMBREE_VERSION
#include "bench/embree_mesh.h"
#endif

namespace {

struct Timing {
  double stage1 = 0, refit = 0, restructure = 0, collapse = 0;
  double processor = 0;  // milliseconds of all threads together
  double total() const { return stage1 + refit + restructure + collapse; }
};

double milliseconds(int64_t from, int64_t to) { return double(to - from) * 1e-6; }

// Processor time of the calling thread: on one thread the stage times do not
// count the time that other jobs on the machine take from it.
int64_t threadNanoseconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// The whole build of one object; the "accel built" row goes nowhere. Stage
// times are wall time on several threads, the thread's processor time on one.
Timing buildOnce(Object& object, int threads) {
  auto clockNanoseconds = threads == 1 ? threadNanoseconds : ::clockNanoseconds;
  std::ostringstream sink;
  std::streambuf* saved = std::cout.rdbuf(sink.rdbuf());
  Timing t;
  const std::clock_t start = std::clock();
  int64_t a = clockNanoseconds();
  buildBinaryTree(object);
  int64_t b = clockNanoseconds();
  refitBinaryTree(object, 0);
  int64_t c = clockNanoseconds();
  restructureTree(object);
  int64_t d = clockNanoseconds();
  collapseTree(object);
  int64_t e = clockNanoseconds();
  t.processor = double(std::clock() - start) * 1000.0 / CLOCKS_PER_SEC;
  std::cout.rdbuf(saved);
  t.stage1 = milliseconds(a, b);
  t.refit = milliseconds(b, c);
  t.restructure = milliseconds(c, d);
  t.collapse = milliseconds(d, e);
  return t;
}

Box laneBox(const BvhNode& node, int lane) {
  return {{node.min_x[lane], node.min_y[lane], node.min_z[lane]}, {node.max_x[lane], node.max_y[lane], node.max_z[lane]}};
}

// Expected node visits plus primitive tests of a ray that crosses the root box,
// when a ray hits a box with a probability proportional to its surface.
double sahCost(const Object& object) {
  Box root;
  const BvhNode& top = object.bvhNodes[0];
  for (int lane = 0; lane < firstFreeLane(top); ++lane) growBox(root, laneBox(top, lane));
  const double rootArea = halfArea(root.min, root.max);
  double cost = 1;
  for (const BvhNode& node : object.bvhNodes)
    for (int lane = 0; lane < firstFreeLane(node); ++lane) {
      Box box = laneBox(node, lane);
      double share = halfArea(box.min, box.max) / rootArea;
      cost += isLeafReference(node.child[lane]) ? share * referenceCount(node.child[lane]) : share;
    }
  return cost;
}

// The best of several runs, to keep the other load of the machine out of the figure.
Timing bestBuild(const Mesh& mesh, int threads, int repetitions, Object& result) {
  omp_set_num_threads(threads);
  Timing best;
  for (int r = 0; r < repetitions; ++r) {
    Object object;
    object.mesh = mesh;
    Timing t = buildOnce(object, threads);
    if (r == 0 || t.total() < best.total()) best = t;
    if (r == repetitions - 1) result = std::move(object);
  }
  return best;
}

#ifdef QZ_EMBREE_VERSION
double embreeBuild(const Mesh& mesh, const char* config, int repetitions) {
  RTCDevice device = rtcNewDevice(config);
  double best = 0;
  for (int r = 0; r < repetitions; ++r) {
    RTCScene scene = rtcNewScene(device);
    attachEmbreeTriangles(device, scene, mesh);
    int64_t start = clockNanoseconds();
    rtcCommitScene(scene);
    double t = milliseconds(start, clockNanoseconds());
    rtcReleaseScene(scene);
    if (r == 0 || t < best) best = t;
  }
  rtcReleaseDevice(device);
  return best;
}
#endif

}  // namespace

int main(int argc, char** argv) {
  const int repetitions = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  const int all = argc > 2 ? std::clamp(std::atoi(argv[2]), 1, omp_get_num_procs()) : omp_get_num_procs();
  const bool oursOnly = argc > 3 && std::strcmp(argv[3], "ours") == 0;
  std::printf("best of %d builds; all = %d threads\n\n", repetitions, all);
  std::printf("%-10s %7s %8s %8s %9s %8s %8s %8s %9s %7s %9s %7s\n", "mesh", "threads", "total ms", "cpu ms",
              "stage1 ms", "refit ms", "treelet", "collapse", "nodes", "occ %", "sah cost", "Mtri/s");
  for (const char* name : {"stanford-bunny", "ogre"}) {
    Mesh mesh;
    if (!readObjMesh(std::string(QZ_BENCH_DATA) + "/" + name + ".obj", mesh)) {
      std::printf("%s: cannot read the mesh\n", name);
      return 1;
    }
    double ours[2] = {0, 0};
    for (int k = 0; k < 2; ++k) {
      const int threads = k == 0 ? 1 : all;
      Object built;
      Timing t = bestBuild(mesh, threads, repetitions, built);
      ours[k] = t.total();
      std::printf("%-10.10s %7d %8.2f %8.2f %9.2f %8.2f %8.2f %8.2f %9zu %7.3f %9.3f %7.2f\n", name, threads,
                  t.total(), t.processor, t.stage1, t.refit, t.restructure, t.collapse, built.bvhNodes.size(), simdOccupancy(built),
                  sahCost(built), double(mesh.triangles.size()) / t.total() * 1e-3);
      if (threads == all) break;
    }
#ifdef QZ_EMBREE_VERSION
    if (oursOnly) continue;
    const double embreeOne = embreeBuild(mesh, "threads=1", repetitions);
    const double embreeAll = embreeBuild(mesh, nullptr, repetitions);
    std::printf("%-10.10s embree %d: 1 thread %.2f ms (ours / embree %.2f), all threads %.2f ms (ours / embree %.2f)\n",
                name, QZ_EMBREE_VERSION, embreeOne, ours[0] / embreeOne, embreeAll, ours[1] / embreeAll);
#endif
  }
  return 0;
}
