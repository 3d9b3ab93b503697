// Hits turned into surfaces: positions, interpolation, rounded normals, the
// frame's orientation and its way back out of placements.
#include <gtest/gtest.h>

#include "accel/fill.h"
#include "geometry/scene_assembly.h"
#include "tests/ray_fixture.h"
#include "tests/scene_fixture.h"

namespace {

using FillTest = SceneTest;

Ray hitFrom(Vec3f origin, Vec3f direction) {
  Ray ray = rayFrom(origin, direction);
  EXPECT_TRUE(traceClosest(ray));
  return ray;
}

void expectOrthonormal(const Surface& s) {
  EXPECT_NEAR(length(s.normal), 1, 1e-5f);
  EXPECT_NEAR(length(s.tangent), 1, 1e-5f);
  EXPECT_NEAR(length(s.bitangent), 1, 1e-5f);
  EXPECT_NEAR(dot(s.normal, s.tangent), 0, 1e-5f);
  EXPECT_NEAR(dot(s.normal, s.bitangent), 0, 1e-5f);
  EXPECT_NEAR(dot(s.tangent, s.bitangent), 0, 1e-5f);
}

// A unit right triangle in z = 0, its corner normals leaning outwards, uv equal to x and y.
int leaningTriangle(int shader) {
  const int o = qzAddObject();
  qzSetObjectShader(o, 3, shader);
  const float corners[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
  const float normals[9] = {-1, -1, 4, 1, 0, 4, 0, 1, 4};
  const float uv[6] = {0, 0, 1, 0, 0, 1};
  const unsigned face[3] = {0, 1, 2};
  qzAddVertexData(o, 3, "position", 3, 3, corners);
  qzAddVertexData(o, 3, "normal", 3, 3, normals);
  qzAddVertexData(o, 3, "uv", 3, 2, uv);
  qzAddPrimitives(o, 3, 1, face);
  return o;
}

Surface fill(const Ray& ray) {
  Surface s;
  const Object& o = *ray.hit.object;
  const Shader& shader = shaders[ray.hit.shader];
  if (ray.hit.kind == kindTriangle) fillTriangle(o.mesh, ray, shader, s);
  if (ray.hit.kind == kindTetragon) fillTetragon(o.mesh, ray, shader, s);
  if (ray.hit.kind == kindParticle) fillParticle(o.particles, ray, shader, s);
  if (ray.hit.kind == kindCylinder) fillCylinder(o.cylinders, ray, shader, s);
  return s;
}

}  // namespace

TEST_F(FillTest, ATriangleBlendsItsCornersFacesTheViewerAndTakesItsTangentFromU) {
  const int shader = qzAddShader();
  leaningTriangle(shader);
  assemble();
  shaders[shader].textured = 1;
  const Vec3f n0 = normalize({-1, -1, 4}), n1 = normalize({1, 0, 4}), n2 = normalize({0, 1, 4});

  // From below: the face's normal points up, away from the viewer, so both normals turn.
  const Ray ray = hitFrom({0.25f, 0.5f, -2}, {0, 0, 1});
  const Surface s = fill(ray);
  expectVecNear(s.position, {0.25f, 0.5f, 0});
  expectVecNear(s.smooth_position, {0.25f, 0.5f, 0});
  expectVecNear(s.view, {0, 0, -1});
  EXPECT_NEAR(s.uv[0], 0.25f, 1e-6f);
  EXPECT_NEAR(s.uv[1], 0.5f, 1e-6f);
  expectVecNear(s.geometric_normal, {0, 0, -1});
  // Packed normals carry ten bits a component.
  expectVecNear(s.normal, -normalize(0.25f * n0 + 0.25f * n1 + 0.5f * n2), 5e-3f);
  expectOrthonormal(s);
  EXPECT_NEAR(s.cos_view, dot(s.view, s.normal), 1e-6f);
  EXPECT_EQ(s.instance_id, ray.hit.instance_id);

  // Not textured: the uv stay zero. A later diffuse bounce takes the face normal.
  shaders[shader].textured = 0;
  shaders[shader].needs_surface_normal = 0;
  Ray bounced = hitFrom({0.25f, 0.5f, 2}, {0, 0, -1});
  bounced.diffuse_bounces = 1;
  const Surface b = fill(bounced);
  EXPECT_EQ(b.uv[0], 0);
  expectVecNear(b.normal, {0, 0, 1});
  shaders[shader].needs_surface_normal = 1;
  EXPECT_GT(fill(bounced).normal.y, 0.05f);

  // Tangents follow increasing u: with uv equal to x and y, +x made orthogonal to the leaning normal.
  shaders[shader].needs_tangents = 1;
  const Surface t = fill(hitFrom({0.2f, 0.2f, 1}, {0, 0, -1}));
  expectOrthonormal(t);
  EXPECT_GT(t.tangent.x, 0.95f);

  // A cheap query of a plain shader stops after the position.
  shaders[shader].plain = 1;
  Surface cheap;
  cheap.cheap_query = 1;
  const Ray top = hitFrom({0.2f, 0.2f, 1}, {0, 0, -1});
  fillTriangle(top.hit.object->mesh, top, shaders[shader], cheap);
  expectVecNear(cheap.position, {0.2f, 0.2f, 0});
  EXPECT_EQ(cheap.normal, zeroVector);
  EXPECT_FALSE(cheap.diffuse_on[0]);
}

TEST_F(FillTest, RoundedCornersKeepTheFaceNormalInsideAndTheirOwnAtTheCorners) {
  const int shader = qzAddShader();
  leaningTriangle(shader);
  assemble();
  shaders[shader].geometry.round_corner = 0.2f;
  // All three weights at or above 0.2: the face normal.
  expectVecNear(fill(hitFrom({0.3f, 0.3f, 1}, {0, 0, -1})).normal, {0, 0, 1});
  // Near corner 1 the corner's own normal takes over.
  expectVecNear(fill(hitFrom({0.999f, 0.0005f, 1}, {0, 0, -1})).normal, normalize({1, 0, 4}), 2e-2f);
  // Beside the edge from corner 1 to corner 2, halfway: the normal of that edge, half blended.
  const Vec3f edge = normalize(normalize({1, 0, 4}) + normalize({0, 1, 4}));
  expectVecNear(fill(hitFrom({0.45f, 0.45f, 1}, {0, 0, -1})).normal, normalize(0.5f * edge + 0.5f * Vec3f{0, 0, 1}), 2e-2f);
}

TEST_F(FillTest, AFourCorneredFaceRoundsByItsSquareRegions) {
  const int shader = qzAddShader();
  const int o = qzAddObject();
  qzSetObjectShader(o, 4, shader);
  const float corners[12] = {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0};
  const float normals[12] = {-1, -1, 2, 1, -1, 2, 1, 1, 2, -1, 1, 2};
  const unsigned quad[4] = {0, 1, 2, 3};
  qzAddVertexData(o, 3, "position", 4, 3, corners);
  qzAddVertexData(o, 3, "normal", 4, 3, normals);
  qzAddPrimitives(o, 4, 1, quad);
  assemble();
  shaders[shader].geometry.round_corner = 0.25f;
  auto normalAt = [](float x, float y) { return fill(hitFrom({x, y, 1}, {0, 0, -1})).normal; };
  // u runs along y here (from edge 0-1 to edge 2-3), v along x.
  expectVecNear(normalAt(0.5f, 0.5f), {0, 0, 1});
  expectVecNear(normalAt(1e-4f, 1e-4f), normalize({-1, -1, 2}), 5e-3f);
  const Vec3f e01 = normalize(normalize({-1, -1, 2}) + normalize({1, -1, 2}));
  expectVecNear(normalAt(0.5f, 1e-4f), e01, 5e-3f);
  // r of 1 blends the four corners over the whole face.
  shaders[shader].geometry.round_corner = 1;
  expectVecNear(normalAt(0.5f, 0.5f), {0, 0, 1});
  expectVecNear(normalAt(0.25f, 0.25f), normalize(0.5625f * normalize({-1, -1, 2}) + 0.1875f * normalize({1, -1, 2}) +
                                               0.0625f * normalize({1, 1, 2}) + 0.1875f * normalize({-1, 1, 2})),
             5e-3f);
}

TEST_F(FillTest, FramesComeBackOutOfPlacements) {
  const int face = leaningTriangle(0);
  const int root = qzAddObject();
  // Turned a quarter about x: the face's normal +z becomes -y; moved to y = 5.
  qzSetInstance(root, qzAddInstance(root), face, placementMatrix({1, 0, 0}, 90, 2, {0, 5, 0}).data());
  assemble();
  const Ray ray = hitFrom({0.5f, 0, 0.5f}, {0, 1, 0});
  EXPECT_EQ(ray.hit.depth, 1);
  const Surface s = fill(ray);
  expectVecNear(s.position, {0.5f, 5, 0.5f});
  expectVecNear(s.geometric_normal, {0, -1, 0});
  EXPECT_GT(dot(s.normal, s.view), 0);
  expectOrthonormal(s);
}

TEST_F(FillTest, AParticleFacesTheViewerFromOutsideAndInside) {
  particle({0, 0, 5}, 2);
  assemble();
  const Surface outside = fill(hitFrom({0, 0, 0}, {0, 0, 1}));
  expectVecNear(outside.position, {0, 0, 3});
  expectVecNear(outside.geometric_normal, {0, 0, -2});  // the offset to the hit, not made unit
  expectVecNear(outside.normal, {0, 0, -1});
  expectOrthonormal(outside);
  const Surface inside = fill(hitFrom({0, 0, 5}, {1, 0, 0}));
  expectVecNear(inside.position, {2, 0, 5});
  expectVecNear(inside.normal, {-1, 0, 0});
}

TEST_F(FillTest, AFibreGetsItsAxisAndATurnedNormal) {
  straightStrand();
  assemble();
  for (int i = 0; i < 20; ++i) {
    const Ray ray = hitFrom({1.3f, 0.05f, -2}, {0, 0, 1});
    const Surface s = fill(ray);
    const float f = ray.coords[2];
    expectVecNear(s.position, {1 + f, 0, 0});
    // The strand's parameter runs 0, 1/3, 2/3 over its vertices.
    EXPECT_NEAR(s.hair_t, (1 + f) / 3, 1e-6f);
    EXPECT_EQ(s.hair_h, ray.across);
    expectVecNear(s.tangent, {1, 0, 0});
    EXPECT_NEAR(dot(s.normal, s.tangent), 0, 1e-5f);
    EXPECT_NEAR(length(s.normal), 1, 1e-5f);
    EXPECT_NEAR(dot(s.bitangent, s.tangent), 0, 1e-5f);
  }
}
