// Closest-hit and shadow throughput of the ray queries on real meshes, for
// camera rays and for diffuse rays leaving random surface points, on one
// thread and on all, and the time of the hierarchy build; beside Embree's
// rtcIntersect1, rtcOccluded1 and rtcCommitScene on the same triangles and
// rays when Embree is present.
//
// The machine may be shared, so the two sides are never timed one block after
// the other: each round times one run of ours and one of Embree's, in turn
// (the order alternating from round to round), each run at least half a
// second long, and the ratio is taken per round. The table shows the median
// ratio with its spread over the rounds, and the processor time of the
// working threads beside the wall time, so that a run starved of cores shows.
//
//   cmake -S . -B build -G Ninja -DQZ_BENCH=ON && ninja -C build ray_bench
//   build/bench/ray_bench [rounds] [seconds per run] [largest thread count]
//   build/bench/ray_bench digest      the answers' digests only, from a one-thread build
//   build/bench/ray_bench 5 0.5 2 build   the build rows only
#include <omp.h>
#include <time.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "accel/bbvh.h"
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

int64_t nanoseconds(clockid_t clock) {
  timespec t;
  clock_gettime(clock, &t);
  return int64_t(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// One timed run: `work` units done, wall seconds, and processor seconds of
// the threads doing them (the calling thread alone on one thread, the whole
// process otherwise, spinning included).
struct Run {
  double work = 0, wall = 0, processor = 0;
};

// `job(threads)` does one unit of work on `threads` threads; a run repeats it
// until `seconds` of wall time have passed. `wholeProcess` counts every
// thread's processor time even on one thread: Embree's one-worker device
// builds partly on a worker of its own while the caller waits.
Run timeRun(const std::function<void(int)>& job, int threads, double seconds, bool wholeProcess) {
  const clockid_t processorClock = threads == 1 && !wholeProcess ? CLOCK_THREAD_CPUTIME_ID : CLOCK_PROCESS_CPUTIME_ID;
  Run run;
  const int64_t wall = nanoseconds(CLOCK_MONOTONIC), processor = nanoseconds(processorClock);
  do {
    job(threads);
    run.work += 1;
    run.wall = double(nanoseconds(CLOCK_MONOTONIC) - wall) * 1e-9;
  } while (run.wall < seconds);
  run.processor = double(nanoseconds(processorClock) - processor) * 1e-9;
  return run;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

// The rounds of one comparison: per side the rate of each run by wall time and
// by processor time, and per round the ratio ours / theirs.
struct Comparison {
  std::vector<double> rate[2], busy[2], ratio;
};

// On one thread the rate counts the thread's own processor time, which other
// jobs on the machine do not inflate; on several, wall time, as the user feels it.
double rateOf(const Run& run, int threads) { return run.work / (threads == 1 ? run.processor : run.wall); }

Comparison compare(const std::function<void(int)>& ours, const std::function<void(int)>* theirs, int threads,
                   int rounds, double seconds, bool wholeProcess = false) {
  Comparison c;
  for (int r = 0; r < rounds; ++r) {
    Run runs[2];
    // Alternating who goes first keeps a slow drift of the load out of the ratio.
    const bool oursFirst = r % 2 == 0;
    for (int k = 0; k < 2; ++k) {
      const bool mine = (k == 0) == oursFirst;
      if (mine) runs[0] = timeRun(ours, threads, seconds, wholeProcess);
      else if (theirs) runs[1] = timeRun(*theirs, threads, seconds, wholeProcess);
    }
    for (int side = 0; side < (theirs ? 2 : 1); ++side) {
      c.rate[side].push_back(rateOf(runs[side], threads));
      c.busy[side].push_back(runs[side].processor / (runs[side].wall * threads));
    }
    if (theirs) c.ratio.push_back(c.rate[0].back() / c.rate[1].back());
  }
  return c;
}

// One row: the median rates times `scale`, the median ratio with its lowest and
// highest round, the share of the threads' time spent on processors, and the
// gain of all threads over one. A build row turns rates into milliseconds and
// the ratio into ours / embree in time.
void printRow(const char* mesh, const char* rays, const char* query, int threads, const Comparison& c, double scale,
              double scaling) {
  const bool build = scale == 0;
  auto shown = [&](double rate) { return build ? 1e3 / rate : rate * scale; };
  auto ratio = [&](double r) { return build ? 1 / r : r; };
  std::printf("%-8.8s %-8s %-8s %3d %9.3f", mesh, rays, query, threads, shown(median(c.rate[0])));
  if (c.ratio.empty()) {
    std::printf(" %9s %6s %13s %5.2f %5s", "-", "-", "-", median(c.busy[0]), "-");
  } else {
    const auto [low, high] = std::minmax_element(c.ratio.begin(), c.ratio.end());
    std::printf(" %9.3f %6.3f [%5.3f %5.3f] %5.2f %5.2f", shown(median(c.rate[1])), ratio(median(c.ratio)),
                std::min(ratio(*low), ratio(*high)), std::max(ratio(*low), ratio(*high)), median(c.busy[0]),
                median(c.busy[1]));
  }
  if (scaling > 0) std::printf(" %6.2f", scaling);
  std::printf("\n");
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

// Every ray of the set once; the hits are counted so that the work is not optimised away.
template <typename Trace>
std::function<void(int)> overRays(const RaySet& set, size_t& hits, Trace trace) {
  return [&set, &hits, trace](int threads) {
    const long n = long(set.origins.size());
    size_t found = 0;
    if (threads == 1) {
      for (long i = 0; i < n; ++i) found += trace(size_t(i), 0);
    } else {
#pragma omp parallel for num_threads(threads) schedule(dynamic, 256) reduction(+ : found)
      for (long i = 0; i < n; ++i) found += trace(size_t(i), omp_get_thread_num());
    }
    hits = found;
  };
}

// A digest of everything the queries answer for the set, bit for bit: a change
// meant only to make them faster must leave it as it is.
uint64_t digest(const RaySet& set) {
  uint64_t h = 14695981039346656037ull;
  auto mix = [&](uint32_t word) { h = (h ^ word) * 1099511628211ull; };
  auto bits = [](float f) { return std::bit_cast<uint32_t>(f); };
  for (size_t i = 0; i < set.origins.size(); ++i) {
    Ray ray = makeRay(set, i, 0);
    mix(traceClosest(ray));
    for (float f : {ray.t, ray.facing, ray.coords[0], ray.coords[1], ray.coords[2]}) mix(bits(f));
    mix(ray.hit.primitive);
    Ray shadow = makeRay(set, i, 0);
    shadow.t = 0.5f * sceneRadius;
    mix(traceShadow(shadow));
  }
  return h;
}

// The four stages of the hierarchy on a fresh copy of the mesh; the "accel
// built" row goes nowhere.
std::function<void(int)> ourBuild(const Mesh& mesh) {
  return [&mesh](int threads) {
    omp_set_num_threads(threads);
    std::ostringstream sink;
    std::streambuf* saved = std::cout.rdbuf(sink.rdbuf());
    Object object;
    object.mesh = mesh;
    buildBinaryTree(object);
    refitBinaryTree(object, 0);
    restructureTree(object);
    collapseTree(object);
    std::cout.rdbuf(saved);
  };
}

#ifdef QZ_EMBREE_VERSION
struct Embree {
  RTCDevice device;
  RTCScene scene;
  float nearLimit;  // Embree has no record of the face a ray leaves: it starts a little off it

  // One worker: queries run on the caller's threads, and idle workers of the
  // peer's own pool must not take processor time from our runs.
  explicit Embree(const Mesh& mesh) {
    device = rtcNewDevice("threads=1");
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

// Embree's build of the mesh on a device of as many workers as the run has threads.
struct EmbreeBuild {
  RTCDevice one = rtcNewDevice("threads=1"), all = rtcNewDevice(nullptr);
  ~EmbreeBuild() {
    rtcReleaseDevice(one);
    rtcReleaseDevice(all);
  }
  std::function<void(int)> job(const Mesh& mesh) const {
    return [this, &mesh](int threads) {
      RTCDevice device = threads == 1 ? one : all;
      RTCScene scene = rtcNewScene(device);
      attachEmbreeTriangles(device, scene, mesh);
      rtcCommitScene(scene);
      rtcReleaseScene(scene);
    };
  }
};
#endif

}  // namespace

int main(int argc, char** argv) {
  const bool digestOnly = argc > 1 && std::string(argv[1]) == "digest";
  const int rounds = argc > 1 && !digestOnly ? std::max(1, std::atoi(argv[1])) : 5;
  const double seconds = argc > 2 ? std::max(0.01, std::atof(argv[2])) : 0.5;
  const int all = argc > 3 ? std::clamp(std::atoi(argv[3]), 1, omp_get_num_procs()) : omp_get_num_procs();
  const bool buildOnly = argc > 4 && std::string(argv[4]) == "build";
  // Primitive order follows the build's thread timing on more than one thread,
  // and the digests name primitives: they are taken from a one-thread build.
  if (digestOnly) omp_set_num_threads(1);
  std::ostringstream sink;
  std::streambuf* console = std::cout.rdbuf(sink.rdbuf());
  qzStartup();
  std::cout.rdbuf(console);
  std::printf("%d rounds of runs of %.2f s, ours and embree in turn; medians over the rounds\n", rounds, seconds);
  std::printf("queries: M rays/s, ratio = ours / embree in rate; build: ms, ratio = ours / embree in time\n");
  std::printf("one thread: per processor second of the thread (of the process for builds)\n");
  std::printf("all threads: per wall second\n");
  std::printf("spread: [lowest highest] ratio of a round; busy: processor time / (wall time x threads)\n");
  std::printf("x1: ours on all threads over ours on one, in rate\n\n");
  std::printf("%-8s %-8s %-8s %3s %9s %9s %6s %13s %5s %5s %6s\n", "mesh", "rays", "query", "thr", "ours", "embree",
              "ratio", "spread", "busy", "e-bsy", "x1");
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
    const char* shortName = name[0] == 's' ? "bunny" : name;
#ifdef QZ_EMBREE_VERSION
    const Embree embree(mesh);
#endif
    size_t hits = 0, embreeHits = 0;
    for (const RaySet& set : {cameraRays(512), diffuseRays(mesh, 262144)}) {
      if (buildOnly) break;
      if (digestOnly) {
        std::printf("%-8.8s %-8s digest %016llx\n", shortName, set.name, (unsigned long long)digest(set));
        continue;
      }
      for (const bool shadow : {false, true}) {
        const auto ours = shadow ? overRays(set, hits,
                                            [&](size_t i, int thread) {
                                              Ray ray = makeRay(set, i, thread);
                                              ray.t = infinity;
                                              return traceShadow(ray);
                                            })
                                 : overRays(set, hits, [&](size_t i, int thread) {
                                     Ray ray = makeRay(set, i, thread);
                                     return traceClosest(ray);
                                   });
        const std::function<void(int)>* theirs = nullptr;
#ifdef QZ_EMBREE_VERSION
        const auto embreeQuery =
            shadow ? overRays(set, embreeHits, [&](size_t i, int) { return embree.occluded(set, i); })
                   : overRays(set, embreeHits, [&](size_t i, int) { return embree.closest(set, i); });
        theirs = &embreeQuery;
#endif
        const double scale = double(set.origins.size()) * 1e-6;
        double one = 0;
        for (int threads : {1, all}) {
          const Comparison c = compare(ours, theirs, threads, rounds, seconds);
          if (threads == 1) one = median(c.rate[0]);
          printRow(shortName, set.name, shadow ? "shadow" : "closest", threads, c, scale,
                   threads == 1 ? 0 : median(c.rate[0]) / one);
          if (threads == all) break;
        }
        if (theirs && hits != embreeHits)
          std::printf("  hits differ: ours %zu, embree %zu (of %zu rays)\n", hits, embreeHits, set.origins.size());
      }
    }
    if (digestOnly) continue;
    const auto build = ourBuild(mesh);
    const std::function<void(int)>* theirs = nullptr;
#ifdef QZ_EMBREE_VERSION
    const EmbreeBuild embreeBuild;
    const auto embreeJob = embreeBuild.job(mesh);
    theirs = &embreeJob;
#endif
    double one = 0;
    for (int threads : {1, all}) {
      const Comparison c = compare(build, theirs, threads, rounds, seconds, true);
      if (threads == 1) one = median(c.rate[0]);
      printRow(shortName, "-", "build", threads, c, 0, threads == 1 ? 0 : median(c.rate[0]) / one);
      if (threads == all) break;
    }
    qzFinalizeAccelerator();
  }
  return 0;
}
