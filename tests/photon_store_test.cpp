// The caustic store on its own: the RGBE power, the kd-tree's shape, and the
// gather against a brute-force search over the same photons.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

#include "frame/renderer.h"
#include "geometry/object.h"
#include "geometry/scene_assembly.h"
#include "qz.h"
#include "tests/test_util.h"
#include "transport/density_estimator.h"
#include "transport/photon.h"

namespace {
class PhotonStoreTest : public testing::Test {
 protected:
  void SetUp() override { quietStartup(); }
  void TearDown() override {
    clearPhotons();
    renderer.radius = 0;
  }

  // n photons in the box [0, size]^3 with random arrival directions and powers.
  void scatter(int n, float size, unsigned seed) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> unit(0, 1), signed_(-1, 1);
    photonStore.photons.clear();
    for (int i = 0; i < n; ++i) {
      Photon p;
      p.position = {unit(random) * size, unit(random) * size, unit(random) * size};
      encodePower({0.5f + unit(random), 0.5f + unit(random), 0.5f + unit(random)}, p.power);
      p.direction = packUnitVector(normalize(Vec3f{signed_(random), signed_(random), signed_(random)}));
      photonStore.photons.push_back(p);
    }
  }
  static void build(float radius) {
    renderer.radius = radius;
    buildPhotonTree();
  }

  // Every photon lies in exactly one leaf, and leaves lie inside the array.
  static void expectLeavesCoverAllPhotons() {
    std::vector<int> seen(photonStore.photons.size(), 0);
    for (const PhotonNode& node : photonStore.nodes) {
      if (node.children != 0) {
        EXPECT_LT(node.first + (node.children == 3 ? 1 : 0), photonStore.nodes.size());
        continue;
      }
      ASSERT_LE(size_t(node.first) + node.count, seen.size());
      for (uint32_t i = node.first; i < node.first + node.count; ++i) ++seen[i];
    }
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), long(seen.size()));
  }
};

// The estimate by looking at every photon: the 32 nearest within the radius
// that arrived on the normal's side, over the disk of the farthest of them.
Color3f bruteForce(Vec3f p, Vec3f normal, float r2) {
  std::vector<std::pair<float, const Photon*>> found;
  for (const Photon& photon : photonStore.photons) {
    const float d2 = lengthSquared(photon.position - p);
    if (d2 < r2 && dot(unpackUnitVector(photon.direction), normal) >= 0) found.push_back({d2, &photon});
  }
  std::sort(found.begin(), found.end(), [](auto& a, auto& b) { return a.first < b.first; });
  if (found.size() > 32) found.resize(32);
  if (found.size() < 2) return black;
  Color3f sum;
  for (auto& f : found) sum += decodePower(f.second->power);
  return sum / (testPi * found.back().first);
}

Ray firstHit(uint32_t thread = 0) {
  Ray ray;
  ray.thread = thread;
  return ray;
}

Surface pointWithNormal(Vec3f position, Vec3f normal) {
  Surface s;
  s.position = position;
  s.geometric_normal = normal;
  return s;
}

void expectRelativelyNear(Color3f a, Color3f b, float tolerance) {
  for (int c = 0; c < 3; ++c) EXPECT_NEAR(a[c], b[c], tolerance * std::fabs(b[c]) + 1e-30f);
}
}  // namespace

TEST_F(PhotonStoreTest, PowerSurvivesTheRGBEFormWithinTheMantissasStep) {
  for (float m = 1e-30f; m < 1e30f; m *= 7.3f) {
    const Color3f power{m, m * 0.37f, m * 0.0041f};
    uint8_t rgbe[4];
    encodePower(power, rgbe);
    const Color3f back = decodePower(rgbe);
    int e;
    std::frexp(m, &e);
    // Truncation to 8 bits under 2^e: every channel loses less than 2^(e - 8) and never gains.
    const float step = std::ldexp(1.0f, e - 8);
    for (int c = 0; c < 3; ++c) {
      EXPECT_LE(back[c], power[c]) << m;
      EXPECT_LT(power[c] - back[c], step) << m;
    }
  }
  uint8_t rgbe[4] = {1, 1, 1, 1};
  for (Color3f nothing : {Color3f{1e-33f, 0, 1e-34f}, Color3f{NAN, NAN, NAN}, Color3f{3e38f, 0, 0}}) {
    encodePower(nothing, rgbe);
    EXPECT_EQ(rgbe[0] | rgbe[1] | rgbe[2] | rgbe[3], 0);
    EXPECT_EQ(decodePower(rgbe), black);
  }
  // A channel that is not a number is dropped; the others keep their values.
  encodePower({NAN, 1, 0.5f}, rgbe);
  EXPECT_EQ(decodePower(rgbe), Color3f(0, 1, 0.5f));
}

TEST_F(PhotonStoreTest, SmallSetsStayOneLeafAndSplitsKeepEveryPhotonOnce) {
  scatter(16, 10, 1);
  build(0.1f);
  ASSERT_EQ(photonStore.nodes.size(), 1u);
  EXPECT_EQ(photonStore.nodes[0].children, 0);
  EXPECT_EQ(photonStore.nodes[0].count, 16u);

  // A thousand photons in a cube just under a quarter of the radius: no split.
  scatter(1000, 0.249f, 2);
  build(1);
  ASSERT_EQ(photonStore.nodes.size(), 1u);
  EXPECT_EQ(photonStore.nodes[0].count, 1000u);
  // Just over it they split.
  scatter(1000, 0.26f, 2);
  build(1);
  EXPECT_GT(photonStore.nodes.size(), 1u);
  expectLeavesCoverAllPhotons();

  // Large enough that the top splits run on threads of their own: leaves stay small.
  scatter(20000, 1, 3);
  build(0.001f);
  expectLeavesCoverAllPhotons();
  for (const PhotonNode& node : photonStore.nodes)
    if (node.children == 0) {
      EXPECT_LT(node.count, 17u);
    }

  // No photons: no tree, and every lookup is black.
  photonStore.photons.clear();
  build(1);
  EXPECT_TRUE(photonStore.nodes.empty());
  EXPECT_EQ(gatherCaustics(firstHit(), pointWithNormal({0, 0, 0}, {0, 1, 0})), black);
}

TEST_F(PhotonStoreTest, TheTreeFindsWhatEveryPhotonSays) {
  std::mt19937 random(7);
  std::uniform_real_distribution<float> unit(0, 1);
  for (unsigned seed : {11u, 12u, 13u}) {
    scatter(5000, 1, seed);
    build(0.2f);
    for (int q = 0; q < 200; ++q) {
      const Vec3f p{unit(random), unit(random), unit(random)};
      const Vec3f n = normalize(Vec3f{unit(random) - 0.5f, unit(random) - 0.5f, unit(random) - 0.5f});
      // A later bounce: no cache, and a quarter of the squared radius.
      Ray ray = firstHit();
      ray.diffuse_bounces = 1;
      ray.bounces = 1;
      expectRelativelyNear(gatherCaustics(ray, pointWithNormal(p, n)), bruteForce(p, n, 0.25f * 0.04f), 1e-5f);
    }
    // A walk across the cube on one thread: each point's search is bounded by the last one's.
    for (int q = 0; q <= 100; ++q) {
      const Vec3f p{0.05f + 0.009f * float(q), 0.5f, 0.3f + 0.002f * float(q)};
      const Vec3f n{0, 1, 0};
      expectRelativelyNear(gatherCaustics(firstHit(), pointWithNormal(p, n)), bruteForce(p, n, 0.04f), 1e-5f);
    }
  }
}

TEST_F(PhotonStoreTest, OnePhotonFoundIsBlackAndBeyondTheRadiusOfTheBoundsNothingIsLooked) {
  scatter(40, 1, 5);
  for (Photon& p : photonStore.photons) p.position = p.position + Vec3f{10, 0, 0};
  photonStore.photons[0].position = {0, 0, 0};
  photonStore.photons[0].direction = packUnitVector({0, 1, 0});
  build(1);
  // Within the bounds, one photon within reach: black; a second one makes an estimate.
  EXPECT_EQ(gatherCaustics(firstHit(), pointWithNormal({0.1f, 0, 0}, {0, 1, 0})), black);
  photonStore.photons[1].position = {0.2f, 0, 0};
  photonStore.photons[1].direction = packUnitVector({0, 1, 0});
  build(1);
  EXPECT_GT(gatherCaustics(firstHit(), pointWithNormal({0.1f, 0, 0}, {0, 1, 0})).r, 0);
  // Photons that arrived from the other side do not count.
  EXPECT_EQ(gatherCaustics(firstHit(), pointWithNormal({0.1f, 0, 0}, {0, -1, 0})), black);
  // Just off the photons' box, which has no thickness here as on a floor,
  // they count as at any point within the radius; beyond it nothing is looked up.
  EXPECT_EQ(gatherCaustics(firstHit(), pointWithNormal({0.1f, -0.01f, 0}, {0, 1, 0})),
            bruteForce({0.1f, -0.01f, 0}, {0, 1, 0}, 1));
  EXPECT_GT(gatherCaustics(firstHit(), pointWithNormal({0.1f, -0.01f, 0}, {0, 1, 0})).r, 0);
  EXPECT_EQ(gatherCaustics(firstHit(), pointWithNormal({0.1f, -1.01f, 0}, {0, 1, 0})), black);
  // A radius of 0 looks up nothing.
  build(0);
  EXPECT_EQ(gatherCaustics(firstHit(), pointWithNormal({0.1f, 0, 0}, {0, 1, 0})), black);
}

// Patches of a single triangle of the root object, grid 8 on a face of area 32.
class TrianglePatches : public testing::Test {
 protected:
  void SetUp() override {
    quietStartup();
    captureOutput([] { qzInitializeShaders(); });  // shader 0 is diffuse
    objects.assign(1, Object());
    rootObject = 0;
    Mesh& mesh = objects[0].mesh;
    mesh.worldPositions = {{0, 0, 0}, {8, 0, 0}, {0, 0, 8}};
    mesh.triangles = {{0, 1, 2, 0}};
    renderer.resolution = 0.51f;  // 8 x 8 x 0.51 is the first square above the area of 32
    captureOutput([] { prepareDensityEstimator(); });
  }
  void TearDown() override {
    finalizeDensityEstimator();
    objects.clear();
    renderer.resolution = 0;
    qzFinalizeShaders();
  }
  static Ray hitAt(float a, float b, float c) {
    Ray ray;
    ray.hit.object = &objects[0];
    ray.hit.kind = 3;
    ray.hit.primitive = 0;
    ray.coords[0] = a;
    ray.coords[1] = b;
    ray.coords[2] = c;
    ray.facing = 1;
    return ray;
  }
};

TEST_F(TrianglePatches, EveryCellIsOnePatchAndStrayWeightsStayInside) {
  const Mesh& mesh = objects[0].mesh;
  ASSERT_EQ(mesh.triangle_grid[0], 8u);
  ASSERT_EQ(mesh.triangle_front.size(), 64u);
  std::mt19937 random(3);
  std::uniform_real_distribution<float> unit(0, 1);
  for (int i = 0; i < 20000; ++i) {
    float a = unit(random), b = unit(random);
    if (a + b > 1) a = 1 - a, b = 1 - b;
    const Ray ray = hitAt(a, b, 1 - a - b);
    addPatchPower(ray, white);
    // Reading finds the patch that the photon went to: power over 32 / 64 of area.
    EXPECT_GE(readPatch(ray).r, 2.0f);
  }
  // Random points reach all 64 cells of the subdivided triangle, each with its
  // share of the area: about 20000 / 64 hits of 2 each.
  for (const Color3f& patch : mesh.triangle_front) EXPECT_NEAR(patch.r, 2 * 20000 / 64.0f, 2 * 100);
  EXPECT_EQ(mesh.triangle_back[0], black);

  // Weights off the face, or not a number, land in some patch of the face or nowhere.
  for (Vec3f w : {Vec3f{-5, 7, 0}, Vec3f{2, 2, 2}, Vec3f{NAN, 0.5f, 0.5f}, Vec3f{0, 0, 0}}) {
    addPatchPower(hitAt(w.x, w.y, w.z), white);
    (void)readPatch(hitAt(w.x, w.y, w.z));
  }
  EXPECT_EQ(mesh.triangle_front.size(), 64u);
  // A hit inside a placement leaves no trace.
  Ray placed = hitAt(0.3f, 0.3f, 0.4f);
  placed.hit.depth = 1;
  const Color3f before = readPatch(hitAt(0.3f, 0.3f, 0.4f));
  addPatchPower(placed, white);
  EXPECT_EQ(readPatch(hitAt(0.3f, 0.3f, 0.4f)), before);
  EXPECT_EQ(readPatch(placed), black);
}
