// The walks against a plain loop over every primitive with the same tests:
// real meshes, and a scene of every kind placed four levels deep.
#include <gtest/gtest.h>

#include <random>

#include "accel/primitive_bounds.h"
#include "accel/primitive_tests.h"
#include "accel/traversal.h"
#include "frame/renderer.h"
#include "geometry/scene_assembly.h"
#include "shading/shader.h"
#include "tests/ray_fixture.h"
#include "tests/scene_fixture.h"

namespace {

class RayQueryTest : public SceneTest {
 public:
  std::mt19937 random{7};
  float uniform(float a, float b) { return std::uniform_real_distribution<float>(a, b)(random); }
  Vec3f point(Vec3f min, Vec3f max) { return {uniform(min.x, max.x), uniform(min.y, max.y), uniform(min.z, max.z)}; }
  Vec3f unitVector() {
    for (;;) {
      const Vec3f v = point({-1, -1, -1}, {1, 1, 1});
      if (lengthSquared(v) > 0.01f && lengthSquared(v) <= 1) return normalize(v);
    }
  }
};

// The nearest hit by trying every primitive of every object in index order;
// `chain` is the path of placements, `hitChain` the path to the nearest hit.
struct BruteForce {
  std::vector<const Instance*> chain, hitChain;

  bool closest(const Object& o, Ray& ray) {
    bool found = false;
    auto tryAll = [&](size_t count, bool (*test)(const Object&, uint32_t, Ray&)) {
      for (uint32_t i = 0; i < count; ++i)
        if (test(o, i, ray)) found = true, hitChain = chain;
    };
    tryAll(o.particles.indices.size(), closestParticle);
    tryAll(o.cylinders.indices.size(), closestCylinder);
    tryAll(o.mesh.triangles.size(), closestTriangle);
    tryAll(o.mesh.tetragons.size(), closestTetragon);
    for (uint32_t i = 0; i < o.instances.size(); ++i) {
      const SavedFrame saved = enterPlacement(ray, o.instances[i], false);
      ray.instance_depth += 1;
      ray.instance_id = hashInstanceId(saved.instance_id, i);
      chain.push_back(&o.instances[i]);
      found |= closest(objects[o.instances[i].object], ray);
      chain.pop_back();
      ray.instance_depth -= 1;
      leavePlacement(ray, saved);
    }
    return found;
  }

  // The shadow form of a particle has no square root, so it can answer for
  // rays that pass beside the sphere. `boxedParticles` lets a particle block
  // only when the segment crosses its own box; without it, whenever its form says so.
  static bool blocked(const Object& o, Ray& ray, bool boxedParticles) {
    for (uint32_t i = 0; i < o.particles.indices.size(); ++i) {
      const Box box = particleBox(o.particles, i);
      float near, far;
      if ((!boxedParticles || intersectBox(box.min, box.max, ray, near, far)) && shadowParticle(o, i, ray)) return true;
    }
    for (uint32_t i = 0; i < o.cylinders.indices.size(); ++i)
      if (!isPreviousPrimitive(o, ray, kindCylinder, i) && shadowCylinder(o, i, ray)) return true;
    for (uint32_t i = 0; i < o.mesh.triangles.size(); ++i)
      if (shadowTriangle(o, i, ray)) return true;
    for (uint32_t i = 0; i < o.mesh.tetragons.size(); ++i)
      if (shadowTetragon(o, i, ray)) return true;
    for (uint32_t i = 0; i < o.instances.size(); ++i) {
      const SavedFrame saved = enterPlacement(ray, o.instances[i], false);
      ray.instance_id = i;
      const bool hit = blocked(objects[o.instances[i].object], ray, boxedParticles);
      leavePlacement(ray, saved);
      if (hit) return true;
    }
    return false;
  }
};

// A child ray leaving the parent's hit, as the integrator makes them.
Ray childOf(const Ray& parent, Vec3f direction) {
  Ray ray = rayFrom(parent.origin + parent.t * parent.direction, direction);
  ray.prev_instance = parent.hit.instance;
  ray.prev_object = parent.hit.object;
  ray.prev_primitive = parent.hit.primitive;
  ray.prev_shader = parent.hit.shader;
  ray.prev_kind = parent.hit.kind;
  ray.prev_depth = parent.hit.depth;
  return ray;
}

struct Agreement {
  int rays = 0, hits = 0, kinds[6] = {}, maxDepth = 0;
  int shadows = 0, blocked = 0, undecided = 0;
};

// Runs the closest query and the loop on copies of one ray and compares every result field.
void expectSameClosest(Ray& ray, Agreement& tally) {
  Ray expected = ray;
  BruteForce brute;
  expected.t = infinity;
  expected.inv_direction = {1 / ray.direction.x, 1 / ray.direction.y, 1 / ray.direction.z};
  const bool expectedHit = brute.closest(objects[rootObject], expected);
  const bool hit = traceClosest(ray);
  ++tally.rays;
  ASSERT_EQ(hit, expectedHit) << "ray " << tally.rays;
  ASSERT_EQ(ray.t, expected.t) << "kinds " << int(ray.hit.kind) << " and " << int(expected.hit.kind);
  if (!hit) return;
  ++tally.hits;
  ++tally.kinds[ray.hit.kind];
  tally.maxDepth = std::max(tally.maxDepth, int(ray.hit.depth));
  ASSERT_EQ(ray.hit.kind, expected.hit.kind);
  ASSERT_EQ(ray.hit.primitive, expected.hit.primitive);
  ASSERT_EQ(ray.hit.object, expected.hit.object);
  ASSERT_EQ(ray.hit.instance, expected.hit.instance);
  ASSERT_EQ(ray.hit.instance_id, expected.hit.instance_id);
  ASSERT_EQ(ray.hit.depth, expected.hit.depth);
  ASSERT_EQ(ray.hit.shader, expected.hit.shader);
  if (ray.hit.kind != kindCylinder) {
    ASSERT_EQ(ray.facing, expected.facing);
  }
  for (int i = 0; i < (ray.hit.kind == kindTetragon ? 2 : 3); ++i) ASSERT_EQ(ray.coords[i], expected.coords[i]);
  // The query leaves the ray where it started, and the table holds the chain to the hit.
  ASSERT_EQ(ray.instance, nullptr);
  ASSERT_EQ(ray.instance_depth, 0u);
  const float(*rows)[9] = instanceNormalMatrices(ray.thread);
  for (int level = 0; level < ray.hit.depth; ++level)
    for (int k = 0; k < 9; ++k) ASSERT_EQ(rows[level][k], brute.hitChain[level]->normalMatrix[k]);
}

// The walk tests a particle when the segment crosses the box of its leaf,
// which holds the particle's own box: its answer lies between the two loops.
void expectSameShadow(Ray& ray, Agreement& tally) {
  Ray expected = ray;
  expected.inv_direction = {1 / ray.direction.x, 1 / ray.direction.y, 1 / ray.direction.z};
  const bool surely = BruteForce::blocked(objects[rootObject], expected, true);
  const bool possibly = BruteForce::blocked(objects[rootObject], expected, false);
  const bool blocked = traceShadow(ray);
  ++tally.shadows;
  tally.undecided += surely != possibly;
  ASSERT_TRUE(surely <= blocked && blocked <= possibly) << "shadow ray " << tally.shadows;
  tally.blocked += blocked;
  EXPECT_EQ(ray.throughput, blocked ? black : white);
}

// Random rays through the scene box, then children from their hits in random
// directions, each also as a shadow segment to a random point or to another hit.
Agreement compareQueries(RayQueryTest& test, int count) {
  Agreement tally;
  const Vec3f size = sceneMax - sceneMin, margin = size * 0.3f;
  for (int n = 0; n < count && !testing::Test::HasFatalFailure(); ++n) {
    const Vec3f origin = test.point(sceneMin - margin, sceneMax + margin);
    Ray ray = rayFrom(origin, normalize(test.point(sceneMin, sceneMax) - origin));
    expectSameClosest(ray, tally);
    if (ray.hit.kind == 0) continue;
    Ray child = childOf(ray, test.unitVector());
    Ray shadow = child;
    expectSameClosest(child, tally);

    // A shadow segment to a random point, then one aimed at the hit that the child found.
    const Vec3f target = test.point(sceneMin, sceneMax);
    shadow.direction = normalize(target - shadow.origin);
    shadow.t = length(target - shadow.origin);
    expectSameShadow(shadow, tally);
    if (child.hit.kind == kindTriangle || child.hit.kind == kindTetragon) {
      Ray aimed = childOf(ray, child.direction);
      aimed.t = child.t;
      aimed.hit.kind = child.hit.kind;
      aimed.hit.primitive = child.hit.primitive;
      expectSameShadow(aimed, tally);
    }
  }
  return tally;
}

}  // namespace

TEST_F(RayQueryTest, RealMeshesAgreeWithEveryTriangleTried) {
  for (const char* file : {"data/stanford-bunny.obj", "data/ogre.obj"}) {
    SCOPED_TRACE(file);
    objects.clear();
    ASSERT_GE(addMeshObject(file), 0);
    assemble();
    const Agreement tally = compareQueries(*this, 250);
    if (HasFatalFailure()) return;
    // Most random rays through the box miss a mesh; enough must hit it.
    EXPECT_GT(tally.hits, 100);
    EXPECT_GT(tally.blocked, 20);
    qzFinalizeAccelerator();
  }
}

// Particles are tested with the direction taken as unit length, which holds
// only where no placement above them scales: they sit in the top object and
// in a placement that only turns and moves. Everything else is placed four
// levels deep with scaling.
TEST_F(RayQueryTest, EveryKindPlacedFourDeepAgreesWithEveryPrimitiveTried) {
  const int plainA = qzAddShader(), plainB = qzAddShader();
  qzSetShaderName(plainA, "plainA");
  qzSetShaderName(plainB, "plainB");
  std::vector<float> positions, radii;

  auto addParticles = [&](int o, int count, float spread) {
    positions.clear(), radii.clear();
    std::vector<unsigned> particles;
    for (int i = 0; i < count; ++i) {
      const Vec3f p = point({-spread, -spread, -spread}, {spread, spread, spread});
      positions.insert(positions.end(), {p.x, p.y, p.z});
      radii.push_back(uniform(0.05f, 0.3f));
      particles.push_back(unsigned(i));
    }
    qzAddVertexData(o, 1, "position", count, 3, positions.data());
    qzAddVertexData(o, 1, "radius", count, 1, radii.data());
    qzAddPrimitives(o, 1, count, particles.data());
  };

  // The innermost object: hair strands, four-cornered faces and triangles.
  const int leaf = qzAddObject();
  qzSetObjectShader(leaf, 3, plainA);
  std::vector<unsigned> firsts, quads, triangles;
  for (int strand = 0, vertex = 0; strand < 8; ++strand) {
    Vec3f p = point({-1, -1, -1}, {1, 1, 1});
    for (int k = 0; k < 6; ++k, ++vertex) {
      positions.insert(positions.end(), {p.x, p.y, p.z});
      radii.push_back(uniform(0.02f, 0.08f));
      if (k < 5) firsts.push_back(unsigned(vertex));
      p += unitVector() * 0.3f;
    }
  }
  qzAddVertexData(leaf, 2, "position", int(radii.size()), 3, positions.data());
  qzAddVertexData(leaf, 2, "radius", int(radii.size()), 1, radii.data());
  qzAddPrimitives(leaf, 2, int(firsts.size()), firsts.data());
  positions.clear();
  for (int i = 0; i < 25; ++i) {
    const Vec3f c = point({-1, -1, -1}, {1, 1, 1}), u = unitVector() * uniform(0.2f, 0.6f);
    const Vec3f v = unitVector() * uniform(0.2f, 0.6f), bend = unitVector() * 0.02f;
    for (Vec3f p : {c, c + u, c + u + v + bend, c + v}) positions.insert(positions.end(), {p.x, p.y, p.z});
    for (unsigned k = 0; k < 4; ++k) quads.push_back(unsigned(4 * i) + k);
  }
  for (int i = 0; i < 60; ++i) {
    const Vec3f c = point({-1, -1, -1}, {1, 1, 1});
    for (int k = 0; k < 3; ++k) {
      const Vec3f p = c + unitVector() * 0.3f;
      positions.insert(positions.end(), {p.x, p.y, p.z});
      triangles.push_back(unsigned(100 + 3 * i + k));
    }
  }
  qzAddVertexData(leaf, 3, "position", int(positions.size() / 3), 3, positions.data());
  qzAddPrimitives(leaf, 4, 25, quads.data());
  qzAddPrimitives(leaf, 3, 60, triangles.data());

  // Three levels above it, each placing the one below with rotation and scale.
  int below = leaf;
  for (int level = 0; level < 3; ++level) {
    const int o = qzAddObject();
    for (int i = 0; i < 3; ++i) {
      const std::vector<float> m =
          placementMatrix(unitVector(), uniform(0, 360), uniform(0.6f, 1.4f), point({-1, -1, -1}, {1, 1, 1}));
      qzSetInstance(o, qzAddInstance(o), below, m.data());
    }
    if (level == 0) qzOverrideShader(o, 1, "plainA", "plainB");
    below = o;
  }
  const int cloud = qzAddObject();
  addParticles(cloud, 40, 2);
  const std::vector<float> turn = placementMatrix(unitVector(), 70, 1, {0.5f, -0.5f, 1});
  qzSetInstance(below, qzAddInstance(below), cloud, turn.data());
  addParticles(below, 30, 3);
  assemble();
  ASSERT_EQ(rootObject, uint32_t(below));

  const Agreement tally = compareQueries(*this, 6000);
  if (HasFatalFailure()) return;
  for (int kind = kindParticle; kind <= kindTetragon; ++kind) EXPECT_GT(tally.kinds[kind], 20) << "kind " << kind;
  EXPECT_EQ(tally.maxDepth, 3);
  EXPECT_GT(tally.hits, 800);
  EXPECT_GT(tally.blocked, 300);
  EXPECT_LT(tally.undecided, tally.shadows / 20);
}
