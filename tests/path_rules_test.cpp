// The rules of a path's branching: how a child is made, the sample budget of
// the first bounce, the depth limit and the stacks that hold it, a fibre's
// diffuse lobe, and the jitter probe.
#include <gtest/gtest.h>
#include <omp.h>
#include <pthread.h>

#include <set>

#include "accel/fill.h"
#include "shading/jitter_diffuse.h"
#include "shading/shader.h"
#include "tests/path_fixture.h"
#include "transport/child_ray.h"
#include "transport/path.h"
#include "transport/thread_stack.h"

namespace {
// A ray that has hit something and carries a history to copy.
Ray hitRay() {
  Ray ray;
  ray.cursor = {5, 4, 0xABCD1234};
  ray.weight = {0.5f, 0.25f, 0.125f};
  ray.ior = 1.25f;
  ray.time = 0.75f;
  ray.pixel = 42;
  ray.sample_count = 3;
  ray.thread = 1;
  ray.diffuse_bounces = 1, ray.glossy_bounces = 2, ray.specular_bounces = 3, ray.bounces = 6;
  ray.hit.primitive = 9;
  ray.hit.shader = 4;
  ray.hit.kind = 3;
  ray.hit.depth = 2;
  ray.hit.transmissions = 1;
  return ray;
}

struct ChildRule {
  uint8_t event;
  int diffuse, glossy, specular;  // counter increments
  uint32_t dimension;             // after the parent's 4
  int transmissions;              // after the parent's 1
  bool timesEta;
};
}  // namespace

TEST(ChildRay, EveryEventChangesItsOwnCountersDimensionTransmissionsAndIndex) {
  const ChildRule rules[] = {{3, 1, 0, 0, 6, 1, false}, {4, 1, 0, 0, 6, 2, false}, {5, 0, 1, 0, 6, 1, false},
                             {6, 0, 1, 0, 6, 2, true},  {7, 0, 0, 1, 4, 1, false}, {8, 0, 0, 1, 4, 2, true},
                             {9, 0, 0, 0, 6, 1, false}};
  const Ray parent = hitRay();
  Surface surface;
  surface.position = {1, 2, 3};
  surface.eta = 0.5f;
  for (const ChildRule& rule : rules) {
    SCOPED_TRACE(int(rule.event));
    const Ray child = childRay(parent, surface, rule.event, 77, 4);
    EXPECT_EQ(std::tuple(child.origin, child.parent, child.hit.event, child.diffuse_bounces, child.glossy_bounces),
              std::tuple(surface.position, &surface, rule.event, 1 + rule.diffuse, 2 + rule.glossy));
    EXPECT_EQ(std::tuple(child.specular_bounces, child.bounces, child.cursor.dimension, child.cursor.index),
              std::tuple(3 + rule.specular, 7, rule.dimension, 77u));
    EXPECT_EQ(std::tuple(child.cursor.scramble, child.hit.transmissions),
              std::tuple(parent.cursor.scramble, rule.transmissions));
    EXPECT_FLOAT_EQ(child.ior, rule.timesEta ? 1.25f * 0.5f : 1.25f);
    EXPECT_EQ(std::tuple(child.sample_count, child.weight, child.time, child.pixel, child.thread),
              std::tuple(12u, parent.weight, parent.time, parent.pixel, parent.thread));
    // It leaves the parent's primitive and has found nothing yet.
    EXPECT_EQ(std::tuple(child.prev_primitive, child.prev_shader, child.prev_kind, child.prev_depth, child.hit.kind),
              std::tuple(9u, 4u, 3, 2, 0));
    EXPECT_EQ(child.hit.primitive, uint32_t(-1));
  }
}

class FirstBounceBudget : public testing::Test {
 protected:
  void SetUp() override {
    quietStartup();
    cameras.clear();
    qzSetCameraSample(qzAddCamera(), 4);
    renderer.sample = 64;
  }
  void TearDown() override {
    cameras.clear();
    renderer.pass = 0;
    renderer.sample = 64;
  }
};

TEST_F(FirstBounceBudget, ShrinksWithTheThroughputCoversEveryIndexOnceAndLaterBouncesTakeOne) {
  Ray ray;  // bounce index 0
  // 0.3 x 64 = 19.2: 19, rounded down to 16, four a pass.
  std::multiset<uint32_t> taken;
  for (int pass = 0; pass < 4; ++pass) {
    renderer.pass = uint16_t(pass);
    const LobeSamples s = lobeSamples(ray, {0.3f, 0.3f, 0.3f});
    EXPECT_EQ(s.k, 4u);
    EXPECT_EQ(s.end, 16u);
    for (uint32_t i = s.first; i < s.end; i += s.step) taken.insert(i);
  }
  EXPECT_EQ(taken.size(), 16u);
  EXPECT_EQ(std::set<uint32_t>(taken.begin(), taken.end()).size(), 16u);
  EXPECT_EQ(*taken.rbegin(), 15u);

  // A bright path takes all of `sample`, a dim one one sample a pass, and so
  // does a budget below the pass count.
  EXPECT_EQ(lobeSamples(ray, {2, 2, 2}).k, 16u);
  EXPECT_EQ(lobeSamples(ray, {0.01f, 0, 0}).k, 1u);
  renderer.sample = 2;
  EXPECT_EQ(lobeSamples(ray, white).k, 1u);

  // Later bounces take one sample with their own index.
  ray.cursor = {13, 2, 0};
  const LobeSamples later = lobeSamples(ray, white);
  EXPECT_EQ(std::tuple(later.first, later.end, later.k), std::tuple(13u, 14u, 1u));
}

TEST(PathDepth, WorkerThreadsHaveTheStackForTheDeepestPath) {
  int short_stacks = 0;
#pragma omp parallel num_threads(4) reduction(+ : short_stacks)
  {
    if (omp_get_thread_num() != 0) {
      pthread_attr_t attributes;
      size_t size = 0;
      pthread_getattr_np(pthread_self(), &attributes);
      pthread_attr_getstacksize(&attributes, &size);
      pthread_attr_destroy(&attributes);
      if (size < workerStackBytes) ++short_stacks;
    }
  }
  EXPECT_EQ(short_stacks, 0);
}

// A fibre's diffuse lobe inside a box that emits everywhere: every direction
// comes back with the emission, so the lobe is its colour times the emission.
TEST_F(PathTest, AFibresDiffuseLobeTakesEveryDirection) {
  addCube(addShader(emissionChannel, {0.5f, 1, 2}), 1, false);
  addCamera(1, 2, {0, 0, 0}, {0, 0, -1}, 45);
  captureOutput([] { qzInitialize(); });
  Ray ray;
  ray.hit.kind = 2;
  Surface fibre;
  fibre.tangent = {1, 0, 0};
  fibre.bitangent = {0, 0, -1};
  fibre.normal = fibre.geometric_normal = {0, 1, 0};
  fibre.diffuse[0] = {0.5f, 0.5f, 0.25f};
  LobeRadiance lobes;
  shadeHairLambertian(lobes, ray, fibre);
  EXPECT_EQ(fibre.hair_lobe, 255);
  expectColorNear(lobes.diffuse[0], {0.25f, 0.5f, 0.5f}, 1e-6f);
}

// A floor hit from below: the probe finds the floor again near the hit, turns
// the new normals to the side that was hit, and weights each channel by the
// square root of its radius over the largest.
TEST_F(PathTest, JitterFindsTheSameShaderNearbyOnTheSideThatWasHit) {
  const int floor = addShader(diffuseChannel, {0.5f, 0.5f, 0.5f});
  qzSetShaderColor(floor, 3, jitterChannel, 0.1f, 0.4f, 0.4f);
  addQuad(floor, {0, 0, 0}, {0, 0, 5}, {5, 0, 0});
  addCamera(1, 1, {0, -1, 0}, {0, 0, 0}, 1, {0, 0, -1});
  captureOutput([] { qzInitialize(); });

  Ray ray;
  ray.origin = {0, -1, 0};
  ray.direction = {0, 1, 0};
  ASSERT_TRUE(traceClosest(ray));
  Surface surface;
  fillSurface(ray, shaders[size_t(floor)], surface);
  ASSERT_TRUE(surface.jitter_on);
  const uint64_t probesBefore = probeRays();
  int found = 0, tries = 0;
  for (; tries < 400; ++tries) {
    Surface jittered;
    Hit hit;
    Color3f weight;
    if (!jitterDiffuse(ray, surface, jittered, hit, weight)) continue;
    ++found;
    EXPECT_EQ(hit.shader, uint32_t(floor));
    EXPECT_NEAR(jittered.position.y, 0, 1e-5f);
    EXPECT_LE(length(jittered.position), 0.8f + 1e-5f);
    EXPECT_EQ(jittered.geometric_normal, Vec3f(0, -1, 0));
    EXPECT_EQ(jittered.normal, Vec3f(0, -1, 0));
    expectColorNear(weight, {0.5f, 1, 1}, 1e-6f);
  }
  EXPECT_EQ(probeRays() - probesBefore, uint64_t(tries));
  // Two random points of a sphere about a point of the plane lie on its two sides half of the time.
  EXPECT_GT(found, 100);
  EXPECT_LT(found, 300);
}
