// Closest-hit and shadow throughput of the ray queries on real meshes, for
// camera rays and for diffuse rays leaving random surface points, on one
// thread and on all; beside Embree's rtcIntersect1 and rtcOccluded1 on the
// same triangles and rays when Embree is present.
//
//   cmake -S . -B build -G Ninja -DQZ_BENCH=ON && ninja -C build ray_bench
//   build/bench/ray_bench [runs]
#include <omp.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "accel/ray.h"
#include "frame/report.h"
#include "geometry/object.h"
#include "geometry/scene_assembly.h"
#include "qz.h"
#include "tests/ray_fixture.h"

#ifdef QZ_EMBREE_VERSION
#include "bench/embree_mesh.h"
#endif

namespace {

struct RaySet {
  const char* name;
  std::vector<Vec3f> origins, directions;
  std::vector<uint32_t> leaving;  // the triangle a ray leaves, or -1
};

// A pinhole view of the whole mesh from the front, one ray a pixel.
RaySet cameraRays(int width) {
  RaySet set{"camera", {}, {}, {}};
  const Vec3f eye = sceneCenter + Vec3f{0, 0, 2.5f * sceneRadius};
  for (int y = 0; y < width; ++y)
    for (int x = 0; x < width; ++x) {
      const Vec3f target = sceneCenter + Vec3f{(2 * (x + 0.5f) / width - 1) * sceneRadius,
                                               (1 - 2 * (y + 0.5f) / width) * sceneRadius, 0};
      set.origins.push_back(eye);
      set.directions.push_back(normalize(target - eye));
      set.leaving.push_back(uint32_t(-1));
    }
  return set;
}

// Points spread over the surface by area, each with a cosine-distributed
// direction about the side of its face's normal, chosen at random.
RaySet diffuseRays(const Mesh& mesh, int count) {
  RaySet set{"diffuse", {}, {}, {}};
  std::mt19937 random(11);
  std::uniform_real_distribution<float> u(0, 1);
  std::vector<double> cdf;
  double total = 0;
  for (const Triangle& t : mesh.triangles) {
    const std::vector<Vec3f>& p = mesh.worldPositions;
    cdf.push_back(total += length(cross(p[t.i1] - p[t.i0], p[t.i2] - p[t.i0])));
  }
  for (int i = 0; i < count; ++i) {
    const uint32_t face = uint32_t(std::lower_bound(cdf.begin(), cdf.end(), u(random) * total) - cdf.begin());
    const Triangle& t = mesh.triangles[std::min<size_t>(face, cdf.size() - 1)];
    const Vec3f p0 = mesh.worldPositions[t.i0], e1 = mesh.worldPositions[t.i1] - p0, e2 = mesh.worldPositions[t.i2] - p0;
    float a = u(random), b = u(random);
    if (a + b > 1) a = 1 - a, b = 1 - b;
    Vec3f n = normalize(cross(e1, e2));
    if (u(random) < 0.5f) n = -n;
    Vec3f tangent, bitangent;
    buildOrthonormalBasis(n, tangent, bitangent);
    const float r = std::sqrt(u(random)), phi = 6.2831853f * u(random);
    const float z = std::sqrt(std::max(0.0f, 1 - r * r));
    set.origins.push_back(p0 + a * e1 + b * e2);
    set.directions.push_back(normalize(r * std::cos(phi) * tangent + r * std::sin(phi) * bitangent + z * n));
    set.leaving.push_back(face);
  }
  return set;
}

int64_t threadNanoseconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

struct Figures {
  double rate = 0;  // M rays/s, the median of the runs
  size_t hits = 0;
};

// Runs `trace` over every ray of the set `runs` times and keeps the median rate.
// The machine may be shared: the median keeps single disturbed runs out.
template <typename Trace>
Figures measure(const RaySet& set, int threads, int runs, Trace trace) {
  std::vector<double> rates;
  Figures f;
  const long n = long(set.origins.size());
  for (int r = 0; r < runs; ++r) {
    size_t hits = 0;
    int64_t elapsed;
    if (threads == 1) {
      // A plain loop timed by the thread's own processor clock, so that other
      // work on a shared machine does not count against either side.
      const int64_t start = threadNanoseconds();
      for (long i = 0; i < n; ++i) hits += trace(size_t(i), 0);
      elapsed = threadNanoseconds() - start;
    } else {
      const int64_t start = clockNanoseconds();
#pragma omp parallel for num_threads(threads) schedule(dynamic, 256) reduction(+ : hits)
      for (long i = 0; i < n; ++i) hits += trace(size_t(i), omp_get_thread_num());
      elapsed = clockNanoseconds() - start;
    }
    rates.push_back(double(n) / double(elapsed) * 1e3);
    f.hits = hits;
  }
  std::sort(rates.begin(), rates.end());
  f.rate = rates[rates.size() / 2];
  return f;
}

Ray makeRay(const RaySet& set, size_t i, int thread) {
  Ray ray;
  ray.origin = set.origins[i];
  ray.direction = set.directions[i];
  ray.thread = uint32_t(thread);
  ray.bounces = 1;
  if (set.leaving[i] != uint32_t(-1)) {
    ray.prev_kind = kindTriangle;
    ray.prev_primitive = set.leaving[i];
    ray.prev_object = &objects[rootObject];
  }
  return ray;
}

#ifdef QZ_EMBREE_VERSION
struct Embree {
  RTCDevice device;
  RTCScene scene;
  float nearLimit;  // Embree has no record of the face a ray leaves: it starts a little off it

  explicit Embree(const Mesh& mesh) {
    device = rtcNewDevice(nullptr);
    scene = rtcNewScene(device);
    attachEmbreeTriangles(device, scene, mesh);
    rtcCommitScene(scene);
    nearLimit = 1e-5f * sceneRadius;
  }
  ~Embree() {
    rtcReleaseScene(scene);
    rtcReleaseDevice(device);
  }

  RTCRay ray(const RaySet& set, size_t i) const {
    RTCRay r;
    r.org_x = set.origins[i].x, r.org_y = set.origins[i].y, r.org_z = set.origins[i].z;
    r.dir_x = set.directions[i].x, r.dir_y = set.directions[i].y, r.dir_z = set.directions[i].z;
    r.tnear = set.leaving[i] == uint32_t(-1) ? 0 : nearLimit;
    r.tfar = infinity;
    r.time = 0;
    r.mask = uint32_t(-1);
    r.id = 0;
    r.flags = 0;
    return r;
  }

  bool closest(const RaySet& set, size_t i) const {
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    RTCRayHit hit;
    hit.ray = ray(set, i);
    hit.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    hit.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
    rtcIntersect1(scene, &context, &hit);
    return hit.hit.geomID != RTC_INVALID_GEOMETRY_ID;
  }

  bool occluded(const RaySet& set, size_t i) const {
    RTCIntersectContext context;
    rtcInitIntersectContext(&context);
    RTCRay r = ray(set, i);
    rtcOccluded1(scene, &context, &r);
    return r.tfar < 0;
  }
};
#endif

void report(const char* mesh, const char* rays, const char* query, int threads, const Figures& ours,
            const Figures* theirs) {
  std::printf("%-10.10s %-8s %-8s %7d %10.2f %9zu", mesh, rays, query, threads, ours.rate, ours.hits);
  if (theirs) std::printf(" %10.2f %9zu %7.2f", theirs->rate, theirs->hits, ours.rate / theirs->rate);
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  const int all = omp_get_num_procs();
  std::ostringstream sink;
  std::streambuf* console = std::cout.rdbuf(sink.rdbuf());
  qzStartup();
  std::cout.rdbuf(console);
  std::printf("median of %d runs; M rays/s; ratio = ours / embree\n", runs);
  std::printf("one thread: per processor second of the thread; all threads: per second of wall clock\n\n");
  std::printf("%-10s %-8s %-8s %7s %10s %9s %10s %9s %7s\n", "mesh", "rays", "query", "threads", "ours", "hits",
              "embree", "hits", "ratio");
  for (const char* name : {"stanford-bunny", "ogre"}) {
    objects.clear();
    if (addMeshObject(std::string(QZ_BENCH_DATA) + "/" + name + ".obj") < 0) {
      std::printf("%s: cannot read the mesh\n", name);
      return 1;
    }
    std::cout.rdbuf(sink.rdbuf());
    qzInitializeAccelerator();
    std::cout.rdbuf(console);
    const Mesh& mesh = objects[rootObject].mesh;
#ifdef QZ_EMBREE_VERSION
    const Embree embree(mesh);
#endif
    for (const RaySet& set : {cameraRays(512), diffuseRays(mesh, 262144)}) {
      for (int threads : {1, all}) {
        const Figures closest = measure(set, threads, runs, [&](size_t i, int thread) {
          Ray ray = makeRay(set, i, thread);
          return traceClosest(ray);
        });
        const Figures shadow = measure(set, threads, runs, [&](size_t i, int thread) {
          Ray ray = makeRay(set, i, thread);
          ray.t = infinity;
          return traceShadow(ray);
        });
#ifdef QZ_EMBREE_VERSION
        const Figures embreeClosest =
            measure(set, threads, runs, [&](size_t i, int) { return embree.closest(set, i); });
        const Figures embreeShadow =
            measure(set, threads, runs, [&](size_t i, int) { return embree.occluded(set, i); });
        report(name, set.name, "closest", threads, closest, &embreeClosest);
        report(name, set.name, "shadow", threads, shadow, &embreeShadow);
#else
        report(name, set.name, "closest", threads, closest, nullptr);
        report(name, set.name, "shadow", threads, shadow, nullptr);
#endif
      }
    }
    qzFinalizeAccelerator();
  }
  return 0;
}
