// The rules around single hits: self-intersection guards, limits, shader
// substitution and visibility, cut-outs, the probe and deep nesting.
#include <gtest/gtest.h>
#include <omp.h>

#include "accel/primitive_tests.h"
#include "accel/traversal.h"
#include "frame/renderer.h"
#include "geometry/scene_assembly.h"
#include "shading/image.h"
#include "shading/shader.h"
#include "tests/ray_fixture.h"
#include "tests/scene_fixture.h"

namespace {

using RayEdgeTest = SceneTest;

// An object of triangles over the given corners, three floats a corner, three corners a face.
int triangles(const std::vector<float>& corners, int shader = 0) {
  const int o = qzAddObject();
  const int n = int(corners.size() / 3);
  qzSetObjectShader(o, 3, shader);
  qzAddVertexData(o, 3, "position", n, 3, corners.data());
  std::vector<unsigned> indices(size_t(n), 0);
  for (int i = 0; i < n; ++i) indices[size_t(i)] = unsigned(i);
  qzAddPrimitives(o, 3, n / 3, indices.data());
  return o;
}

// Shadow rays count a zero direction component as negative (see below), so
// axis-aligned ones carry -0 in the other components. Inside a placement the
// transformed components come out +0, so rays into placements lean a little.
constexpr Vec3f alongZ{-0.0f, -0.0f, 1};
constexpr Vec3f nearlyAlongZ{1e-3f, 2e-3f, 1};

// A fold: face 0 in the plane z = 0, face 1 rising from their shared edge at x = 1.
const std::vector<float> fold = {0, 0, 0, 1, 0, 0, 1, 1, 0, 1, 0, 0, 2, 0, 1, 1, 1, 0};

}  // namespace

TEST_F(RayEdgeTest, ARayLeavingAFaceSkipsItAndFindsTheNeighbour) {
  triangles(fold);
  assemble();
  // Just below face 0 and heading through it towards face 1.
  const Vec3f through{1, 0.01f, 0.2f};
  Ray ray = rayFrom({0.8f, 0.2f, -1e-3f}, through);
  ASSERT_TRUE(traceClosest(ray));
  EXPECT_EQ(ray.hit.primitive, 0u);

  Ray child = rayFrom({0.8f, 0.2f, -1e-3f}, through);
  child.prev_kind = kindTriangle;
  child.prev_primitive = 0;
  child.prev_object = nullptr;  // the closest triangle test does not look at the object
  ASSERT_TRUE(traceClosest(child));
  EXPECT_EQ(std::tuple(child.hit.primitive, child.hit.kind, child.hit.object),
            std::tuple(1u, kindTriangle, &objects[rootObject]));
  EXPECT_GT(child.t, 0.2f);

  // The shadow form names the primitive in full, so there the object counts.
  Ray shadow = rayFrom({0.8f, 0.2f, -1e-3f}, through);
  shadow.t = 0.1f;
  shadow.prev_kind = kindTriangle;
  shadow.prev_primitive = 0;
  EXPECT_TRUE(traceShadow(shadow));
  shadow.prev_object = &objects[rootObject];
  EXPECT_FALSE(traceShadow(shadow));
}

TEST_F(RayEdgeTest, LimitsAtTheFarEndDifferByKindAndShadowRaysTakeAZeroComponentAsNegative) {
  // A triangle and a particle, each tested alone at exactly its own distance.
  triangles({-1, -1, 2, 1, -1, 2, 0, 1, 2});
  assemble();
  const Object& face = objects[rootObject];
  Ray ray = rayFrom({0, 0, 0}, {0, 0, 1});
  ray.t = 2;
  EXPECT_FALSE(closestTriangle(face, 0, ray));
  ray.t = 2.01f;
  EXPECT_TRUE(closestTriangle(face, 0, ray));
  EXPECT_EQ(ray.t, 2);
  EXPECT_FLOAT_EQ(ray.coords[0] + ray.coords[1] + ray.coords[2], 1);
  EXPECT_LT(ray.facing, 0);  // the face's normal points along +z, towards the ray's travel

  // Shadow rays take a zero component as negative. With +0 in x and y the
  // near planes come from the maxima at +infinity: every box is missed.
  Ray shadow = rayFrom({0, 0, 0}, {0, 0, 1});
  shadow.t = 5;
  EXPECT_FALSE(traceShadow(shadow));
  shadow.direction = alongZ;
  EXPECT_TRUE(traceShadow(shadow));
  // The closest walk counts only a negative component, and sees the face either way.
  Ray closest = rayFrom({0, 0, 0}, {0, 0, 1});
  EXPECT_TRUE(traceClosest(closest));
  qzFinalizeAccelerator();

  particle({0, 0, 3}, 1);
  assemble();
  const Object& ball = objects[rootObject];
  Ray at = rayFrom({0, 0, 0}, {0, 0, 1});
  at.t = 2;
  EXPECT_TRUE(closestParticle(ball, 0, at));
  EXPECT_EQ(at.t, 2);
  EXPECT_EQ(at.facing, 1);
  EXPECT_FLOAT_EQ(at.coords[2], -1);
}

TEST_F(RayEdgeTest, AFourCorneredFaceGivesBilinearParameters) {
  const int o = qzAddObject();
  const float corners[12] = {0, 0, 5, 2, 0, 5, 2, 4, 5, 0, 4, 5};
  const unsigned quad[4] = {0, 1, 2, 3};
  qzAddVertexData(o, 3, "position", 4, 3, corners);
  qzAddPrimitives(o, 4, 1, quad);
  assemble();
  Ray ray = rayFrom({0.5f, 3, 0}, {0, 0, 1});
  ASSERT_TRUE(traceClosest(ray));
  EXPECT_EQ(ray.hit.kind, kindTetragon);
  EXPECT_FLOAT_EQ(ray.t, 5);
  // u runs from the edge 0-1 to the edge 2-3, v from the edge 3-0 to the edge 1-2.
  EXPECT_FLOAT_EQ(ray.coords[0], 0.75f);
  EXPECT_FLOAT_EQ(ray.coords[1], 0.25f);
  EXPECT_LT(ray.facing, 0);

  Ray exact = rayFrom({0.5f, 3, 0}, {0, 0, 1});
  exact.t = 5;
  EXPECT_FALSE(closestTetragon(objects[rootObject], 0, exact));
  Ray beside = rayFrom({2.5f, 3, 0}, {0, 0, 1});
  EXPECT_FALSE(traceClosest(beside));
}

TEST_F(RayEdgeTest, AParticleHitFromInsideTakesTheFarRoot) {
  particle({1, 2, 3}, 0.5f);
  assemble();
  Ray ray = rayFrom({1, 2, 3}, {0, 1, 0});
  ASSERT_TRUE(traceClosest(ray));
  EXPECT_EQ(ray.hit.kind, kindParticle);
  EXPECT_FLOAT_EQ(ray.t, 0.5f);
  EXPECT_EQ(ray.facing, -1);
  EXPECT_FLOAT_EQ(ray.coords[1], 0.5f);

  // The shadow form's window uses the discriminant in place of its root:
  // b = 4, d = 16 - (16 - 0.25) = 0.25, so it sees the sphere at 3.75 and 4.25.
  Ray shadow = rayFrom({1, -2, 3}, {-0.0f, 1, -0.0f});
  shadow.t = 3.7f;
  EXPECT_FALSE(traceShadow(shadow));
  shadow.t = 3.76f;
  EXPECT_TRUE(traceShadow(shadow));
  EXPECT_EQ(shadow.throughput, black);
}

TEST_F(RayEdgeTest, ShadowRaysPassTheEmitterTheyAimAtInEveryPlacement) {
  const int face = triangles({-1, -1, 0, 1, -1, 0, 0, 1, 0});
  const int root = qzAddObject();
  for (float z : {2.0f, 4.0f}) {
    const std::vector<float> m = placementMatrix({0, 0, 1}, 0, 1, {0, 0, z});
    qzSetInstance(root, qzAddInstance(root), face, m.data());
  }
  assemble();
  Ray shadow = rayFrom({0, 0, 0.5f}, nearlyAlongZ);
  shadow.t = 3.5f;
  shadow.throughput = {0.3f, 0.3f, 0.3f};
  EXPECT_TRUE(traceShadow(shadow));
  EXPECT_EQ(shadow.throughput, black);
  // Aimed at triangle 0: that index is skipped in both placements.
  shadow.hit.kind = kindTriangle;
  shadow.hit.primitive = 0;
  EXPECT_FALSE(traceShadow(shadow));
  EXPECT_EQ(shadow.throughput, white);
}

TEST_F(RayEdgeTest, AnEmptySceneAnswersNothing) {
  resetRayCounters();
  Ray ray = rayFrom({0, 0, 0}, {0, 0, 1});
  EXPECT_FALSE(traceClosest(ray));
  EXPECT_EQ(ray.t, infinity);
  ray.t = 10;
  EXPECT_FALSE(traceShadow(ray));
  EXPECT_EQ(closestRays(), 1u);
  EXPECT_EQ(shadowRays(), 1u);
  // Each thread counts on its own; the totals gather them all, numbers past
  // the table included, and a reset clears every thread's counts.
  for (uint32_t thread : {3u, uint32_t(maxThreads) + 5}) {
    ray.thread = thread;
    traceClosest(ray);
    ray.t = 10;
    traceShadow(ray);
  }
  EXPECT_EQ(closestRays(), 3u);
  EXPECT_EQ(shadowRays(), 3u);
  EXPECT_EQ(totalRays(), 6u);
  resetRayCounters();
  EXPECT_EQ(totalRays(), 0u);

  // A placed object without primitives has its box inside out, which no ray crosses.
  float near, far;
  EXPECT_FALSE(intersectBox({infinity, infinity, infinity}, {-infinity, -infinity, -infinity}, ray, near, far));
}

TEST_F(RayEdgeTest, PlacementsSubstituteShadersAndHashTheirChain) {
  const int red = qzAddShader(), blue = qzAddShader();
  qzSetShaderName(red, "red");
  qzSetShaderName(blue, "blue");
  const int face = triangles({-1, -1, 0, 1, -1, 0, 0, 1, 0}, red);
  const int middle = qzAddObject();
  const std::vector<float> up = placementMatrix({1, 0, 0}, 0, 2, {0, 0, 3});
  qzSetInstance(middle, qzAddInstance(middle), face, up.data());
  qzSetInstance(middle, qzAddInstance(middle), face, placementMatrix({1, 0, 0}, 0, 1, {5, 0, 3}).data());
  qzOverrideShader(middle, 0, "red", "blue");
  const int root = qzAddObject();
  qzSetInstance(root, qzAddInstance(root), middle, nullptr);
  qzSetInstance(root, qzAddInstance(root), middle, placementMatrix({0, 0, 1}, 90, 1, {0, 0, 10}).data());
  assemble();
  ASSERT_EQ(rootObject, uint32_t(root));

  Ray ray = rayFrom({0, 0, 0}, {0, 0, 1});
  ASSERT_TRUE(traceClosest(ray));
  EXPECT_FLOAT_EQ(ray.t, 3);  // t stays a distance in the scene's space through a scaling
  EXPECT_EQ(std::tuple(ray.hit.shader, ray.hit.depth, ray.hit.object), std::tuple(uint32_t(blue), 2, &objects[face]));
  // The build puts placements in leaf order: find them again by their matrices.
  auto placed = [](int o, float x, float scale) {
    const std::vector<Instance>& list = objects[o].instances;
    uint32_t i = 0;
    while (i < list.size() && !(list[i].matrix.m[3] == x && list[i].matrix.m[0] == scale)) ++i;
    return i;
  };
  const uint32_t rootFirst = placed(root, 0, 1), scaled = placed(middle, 0, 2), moved = placed(middle, 5, 1);
  ASSERT_LT(rootFirst, 2u);
  EXPECT_EQ(ray.hit.instance, &objects[middle].instances[scaled]);
  EXPECT_EQ(ray.hit.instance_id, hashInstanceId(hashInstanceId(0, rootFirst), scaled));
  EXPECT_EQ(ray.origin, Vec3f(0, 0, 0));
  EXPECT_EQ(ray.direction, Vec3f(0, 0, 1));
  // Each level's normal matrix is in its row: the scaling's is a half on the diagonal.
  EXPECT_FLOAT_EQ(instanceNormalMatrices(ray.thread)[1][0], 0.5f);
  EXPECT_FLOAT_EQ(instanceNormalMatrices(ray.thread)[0][0], 1);

  // The second placement of the middle object keeps the face's own shader.
  Ray other = rayFrom({5, 0, 0}, {0, 0, 1});
  ASSERT_TRUE(traceClosest(other));
  EXPECT_EQ(other.hit.shader, uint32_t(red));
  EXPECT_EQ(other.hit.instance_id, hashInstanceId(hashInstanceId(0, rootFirst), moved));
  EXPECT_NE(other.hit.instance_id, ray.hit.instance_id);
}

TEST_F(RayEdgeTest, HiddenShadersMissOnlyTheirOwnFirstSegments) {
  const int hidden = qzAddShader();
  qzSetShaderName(hidden, "hidden");
  triangles({-1, -1, 2, 1, -1, 2, 0, 1, 2}, hidden);
  assemble();
  for (int visibility : {1, 2}) {
    shaders[hidden].geometry.primary_visibility = uint8_t(visibility);
    for (uint8_t event : {cameraEvent, lightEvent, diffuseReflectionEvent})
      for (uint8_t bounces : {0, 1}) {
        Ray ray = rayFrom({0, 0, 0}, {0, 0, 1});
        ray.hit.event = event;
        ray.bounces = bounces;
        const bool hiddenHere = bounces == 0 && ((event == cameraEvent && visibility == 2) ||
                                                 (event == lightEvent && visibility == 1));
        EXPECT_EQ(traceClosest(ray), !hiddenHere) << visibility << " " << int(event) << " " << int(bounces);
      }
  }
}

TEST_F(RayEdgeTest, HalfOpaqueFacesStopHalfTheRays) {
  const int lace = qzAddShader();
  qzSetShaderName(lace, "lace");
  const int o = triangles({-1, -1, 2, 1, -1, 2, 0, 1, 2}, lace);
  const float uv[6] = {0, 0, 1, 0, 0, 1};
  qzAddVertexData(o, 3, "uv", 3, 2, uv);
  triangles({-1, -1, 4, 1, -1, 4, 0, 1, 4});
  assemble();
  const int image = qzAddImage();
  qzCreateImage(image, 1, 1);
  qzSetImageColor(image, 0, 0, 0.5f, 0.5f, 0.5f);
  shaders[lace].geometry.opacity = constantNode(white);
  shaders[lace].geometry.opacity.image = image;
  shaders[lace].geometry.opacity_textured = 1;

  const int n = 4000;
  int stopped = 0, blocked = 0;
  for (int i = 0; i < n; ++i) {
    Ray ray = rayFrom({0, 0, 0}, {0, 0, 1});
    ASSERT_TRUE(traceClosest(ray));
    stopped += ray.t == 2;
    Ray shadow = rayFrom({0, 0, 0}, nearlyAlongZ);
    shadow.t = 3;
    blocked += traceShadow(shadow);
  }
  EXPECT_NEAR(stopped / double(n), 0.5, 0.04);
  EXPECT_NEAR(blocked / double(n), 0.5, 0.04);
}

TEST_F(RayEdgeTest, AHairSegmentIsHitAcrossItsWidth) {
  straightStrand();
  assemble();
  Ray ray = rayFrom({0.3f, 0.05f, -2}, {0, 0, 1});
  ASSERT_TRUE(traceClosest(ray));
  EXPECT_EQ(ray.hit.kind, kindCylinder);
  // The chord's cylinder has its axis at z = 0: the distance is to the axis plane.
  EXPECT_NEAR(ray.t, 2, 1e-5);
  EXPECT_NEAR(std::fabs(ray.across), 0.5f, 1e-5);
  EXPECT_EQ(ray.coords[2], 2 * 0.125f + 0.0625f);  // the middle of the lane holding s = 0.3
  Ray shadow = rayFrom({0.3f, 0.05f, -2}, alongZ);
  shadow.t = 3;
  EXPECT_TRUE(traceShadow(shadow));
  Ray beside = rayFrom({0.3f, 0.15f, -2}, {0, 0, 1});
  EXPECT_FALSE(traceClosest(beside));
}

TEST_F(RayEdgeTest, TheProbeSeesFacesOnlyAndNamesPlacementsByIndex) {
  const int face = triangles({-1, -1, 0, 1, -1, 0, 0, 1, 0});
  const int root = particle({0, 0, 1}, 0.5f);
  const std::vector<float> far = placementMatrix({1, 0, 0}, 0, 4, {0, 0, 3});
  qzSetInstance(root, qzAddInstance(root), face, far.data());
  assemble();
  ASSERT_EQ(rootObject, uint32_t(root));
  Ray ray = rayFrom({0, 0, 0}, {0, 0, 1});
  ray.t = infinity;
  updateInverseDirection(ray);
  ASSERT_TRUE(intersectProbe(objects[root], ray));
  EXPECT_EQ(ray.hit.kind, kindTriangle);
  EXPECT_EQ(ray.hit.instance_id, 0u);
  // The direction is made unit inside the placement, so t is measured in its space.
  EXPECT_FLOAT_EQ(ray.t, 0.75f);
}

TEST_F(RayEdgeTest, NestingBeyondTheTableIsWalkedWithoutWritingPastIt) {
  int below = triangles({-1, -1, 0, 1, -1, 0, 0, 1, 0});
  for (int level = 0; level < 20; ++level) {
    const int o = qzAddObject();
    qzSetInstance(o, qzAddInstance(o), below, placementMatrix({0, 0, 1}, 10, 1, {0, 0, 0.1f}).data());
    below = o;
  }
  assemble();
  Ray ray = rayFrom({0, 0, -1}, {0, 0, 1});
  ASSERT_TRUE(traceClosest(ray));
  EXPECT_EQ(ray.hit.depth, 20);
  EXPECT_NEAR(ray.t, 3, 1e-5);
  Ray shadow = rayFrom({0, 0, -1}, nearlyAlongZ);
  shadow.t = 10;
  EXPECT_TRUE(traceShadow(shadow));
}

TEST_F(RayEdgeTest, ThreadsQueryAtOnceEachWithItsOwnTableRows) {
  const int face = triangles({-1, -1, 0, 1, -1, 0, 0, 1, 0});
  const int middle = qzAddObject();
  for (int i = 0; i < 4; ++i)
    qzSetInstance(middle, qzAddInstance(middle), face, placementMatrix({0, 0, 1}, 0, 1.0f + i, {3.0f * i, 0, 1}).data());
  const int root = qzAddObject();
  qzSetInstance(root, qzAddInstance(root), middle, placementMatrix({1, 0, 0}, 0, 1, {0, 0, 2}).data());
  assemble();
  const int n = 4000;
  std::vector<Ray> serial(n), parallel(n);
  std::vector<float> scale(n);
  for (int i = 0; i < n; ++i) serial[i] = parallel[i] = rayFrom({float(i % 4) * 3, 0, 0}, {1e-3f, 2e-3f, 1});
  for (Ray& ray : serial) traceClosest(ray);
#pragma omp parallel for num_threads(4)
  for (int i = 0; i < n; ++i) {
    parallel[i].thread = uint32_t(omp_get_thread_num());
    traceClosest(parallel[i]);
    // Read back at once: the row belongs to this thread until its next query.
    scale[i] = instanceNormalMatrices(parallel[i].thread)[1][0];
  }
  for (int i = 0; i < n; ++i) {
    ASSERT_EQ(parallel[i].t, serial[i].t);
    ASSERT_EQ(parallel[i].hit.instance, serial[i].hit.instance);
    ASSERT_FLOAT_EQ(scale[i], 1.0f / float(1 + i % 4));
  }
}
