#include <gtest/gtest.h>

#include <cmath>

#include "accel/ray.h"
#include "frame/renderer.h"
#include "frame/report.h"
#include "geometry/object.h"
#include "geometry/scene_assembly.h"
#include "output/camera.h"
#include "qz.h"
#include "shading/shader.h"
#include "tests/scene_fixture.h"
#include "tests/test_util.h"

namespace {

std::string assembleReport() {
  return captureOutput([] { qzInitializeAccelerator(); });
}

bool has(const std::string& text, const std::string& line) { return text.find(line) != std::string::npos; }

// An object of `count` triangles over the vertices given, cycling through them in threes.
int triangleObject(const std::vector<float>& positions, int count, int shader = 0) {
  int o = qzAddObject();
  qzAddVertexData(o, 3, "position", int(positions.size() / 3), 3, positions.data());
  qzSetObjectShader(o, 3, shader);
  const unsigned vertices = unsigned(positions.size() / 3);
  for (int i = 0; i < count; ++i) {
    const unsigned face[3] = {(3 * i) % vertices, (3 * i + 1) % vertices, (3 * i + 2) % vertices};
    qzAddPrimitives(o, 3, 1, face);
  }
  return o;
}

const std::vector<float> nineApart = {0, 0, 0, 1, 0, 0, 0, 1, 0, 5, 0, 0, 6, 0, 0, 5, 1, 0, 9, 0, 0, 10, 0, 0, 9, 1, 0};
const std::string rule = std::string(80, '_') + "\n\n";

}  // namespace

TEST_F(SceneTest, OneTriangleReportsItsRowsAndTheSceneBounds) {
  triangleObject({0, 0, 0, 2, 0, 0, 0, 4, 0}, 1);
  std::string out = assembleReport();
  const std::string objectsRow = captureOutput([] { printArrayRow("objects  ", sizeof(Object), 1, "M bytes"); });
  const std::string objectReport =
      "positions         12 [bytes]         3      0.000 [M bytes]\n"
      "triangles         16 [bytes]         1      0.000 [M bytes]\n"
      "bvh nodes        256 [bytes]         1      0.000 [M bytes]\n"
      "simd occupancy     12.500 [%]\n";
  const std::string bounds =
      "scene minimum      0.000       0.000       0.000 [n/a]\n"
      "scene maximum      2.000       4.000       0.000 [n/a]\n"
      "scene  center      1.000       2.000       0.000 [n/a]\n"
      "scene    size      2.000       4.000       0.000 [m]\n";
  // The build time is whole milliseconds.
  const std::string accel = out.substr(0, out.find('\n') + 1);
  EXPECT_TRUE(accel.starts_with("accel built ") && accel.ends_with(".000 [m seconds]\n")) << accel;
  EXPECT_EQ(out, accel + objectReport + objectsRow + rule + bounds + rule);
  EXPECT_EQ(rootObject, 0u);
  EXPECT_FLOAT_EQ(sceneRadius, std::sqrt(20.0f) / 2);
  EXPECT_EQ(sceneCenter, Vec3f(1, 2, 0));
}

TEST_F(SceneTest, LeavesFillTheirLanesAndTheRowsCountThem) {
  // Two triangles share a leaf, three split; 300 on one centre make one leaf
  // whose count wraps in its byte.
  const struct {
    std::vector<float> positions;
    int count;
    std::string row;
  } cases[] = {
      {nineApart, 2, "simd occupancy     12.500 [%]\n"},
      {nineApart, 3, "simd occupancy     25.000 [%]\n"},
      {{-1, 0, 0, 1, 0, 0, 0, 1, 0}, 300, "triangles         16 [bytes]        44      0.001 [M bytes]\n"},
  };
  for (const auto& c : cases) {
    triangleObject(c.positions, c.count);
    const std::string out = assembleReport();
    EXPECT_TRUE(has(out, c.row)) << out;
    if (c.count == 2) {
      EXPECT_EQ(referenceCount(objects[0].bvhNodes[0].child[0]), 2);
    }
    qzFinalizeAccelerator();
  }
}

TEST_F(SceneTest, TwoIndependentObjectsEndUnderTheSecond) {
  triangleObject(nineApart, 1);
  triangleObject(nineApart, 2);
  std::string out = assembleReport();
  EXPECT_TRUE(has(out, "warning :( object - there are multiple root objects\n"
                       "warning :( object - object0001 is treated as the root object\n" +
                           rule));
  EXPECT_EQ(rootObject, 1u);
  ASSERT_EQ(objects[1].instances.size(), 1u);
  EXPECT_EQ(std::tuple(objects[1].instances[0].object, objects[1].instances[0].objectName, objects[0].level),
            std::tuple(0, "object0000", 1));
  EXPECT_EQ(objects[0].referenced, 0);
  // The child was built first, so the root's box holds it; boxes take every vertex, used or not.
  EXPECT_EQ(objects[1].emitters.count, 1);
  EXPECT_EQ(sceneMax, Vec3f(10, 1, 0));
}

TEST_F(SceneTest, InstancesBindByNameAndTheirMatrixPlacesTheChild) {
  int child = triangleObject({0, 0, 0, 1, 0, 0, 0, 1, 0}, 1);
  qzSetObjectName(child, "leaf");
  int parent = triangleObject({0, 0, 0, 1, 0, 0, 0, 1, 0}, 1);
  // Rotation by 90 degrees about z, then a shift of 10 along x.
  const float matrix[16] = {0, -1, 0, 10, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  int placed = qzAddInstance(parent);
  qzSetInstance(parent, placed, -1, matrix);
  objects[parent].instances[placed].objectName = "leaf";
  int missing = qzAddInstance(parent);
  objects[parent].instances[missing].objectName = "ghost";
  int lonely = qzAddObject();
  objects[lonely].instances.emplace_back().objectName = "nobody";
  std::string out = assembleReport();
  EXPECT_TRUE(has(out, "error :( instance - ghost does not exist\n"));
  EXPECT_TRUE(has(out, "error :( instance - nobody does not exist\n"));
  EXPECT_FALSE(has(out, "warning"));
  // The object that lost its only instance went with the second removal.
  ASSERT_EQ(objects.size(), 2u);
  ASSERT_EQ(objects[rootObject].instances.size(), 1u);
  const Instance& instance = objects[rootObject].instances[0];
  EXPECT_EQ(objects[instance.object].name, "leaf");
  EXPECT_FLOAT_EQ(instance.inverse3[1], 1);
  EXPECT_FLOAT_EQ(instance.normalMatrix[1], -1);
  EXPECT_FLOAT_EQ(instance.inverse.m[7], 10);
  EXPECT_EQ(sceneMin, Vec3f(0, 0, 0));
  EXPECT_EQ(sceneMax, Vec3f(10, 1, 0));
}

TEST_F(SceneTest, CyclesAreCutInsteadOfRecursingForever) {
  int a = triangleObject(nineApart, 1), b = triangleObject(nineApart, 1);
  qzSetInstance(a, qzAddInstance(a), b, nullptr);
  qzSetInstance(b, qzAddInstance(b), a, nullptr);
  std::string out = assembleReport();
  EXPECT_TRUE(has(out, "warning :( object - there is no root object\n" + rule));
  EXPECT_EQ(rootObject, 0u);
  EXPECT_EQ(objects[0].instances.size(), 1u);
  EXPECT_TRUE(objects[1].instances.empty());
  EXPECT_EQ(objects[1].level, 1);
}

TEST_F(SceneTest, EmptyScenesPrintNothingAndEmptyObjectsLeaveByExchangeWithTheBack) {
  EXPECT_EQ(assembleReport(), "");
  qzAddObject();
  qzAddObject();
  EXPECT_EQ(assembleReport(), "");
  EXPECT_TRUE(objects.empty());

  for (int i = 0; i < 5; ++i) qzAddObject();
  const unsigned zero = 0;
  for (int full : {0, 2, 3}) qzAddPrimitives(full, 1, 1, &zero);
  removeEmptyObjects();
  ASSERT_EQ(objects.size(), 3u);
  EXPECT_EQ(std::tuple(objects[0].name, objects[1].name, objects[2].name),
            std::tuple("object0000", "object0003", "object0002"));
}

TEST_F(SceneTest, HairShadersArePreparedAfterAssembly) {
  int hair = qzAddShader();
  qzSetShaderIOR(hair, 1.5f);
  int o = qzAddObject();
  const float strand[6] = {0, 0, 0, 0, 1, 0}, radius[2] = {0.1f, 0.1f};
  qzAddVertexData(o, 2, "position", 2, 3, strand);
  qzAddVertexData(o, 2, "radius", 2, 1, radius);
  qzSetObjectShader(o, 2, hair);
  const unsigned first = 0;
  qzAddPrimitives(o, 2, 1, &first);
  std::string out = assembleReport();
  EXPECT_TRUE(has(out, "cylinders          8 [bytes]         1      0.000 [M bytes]\n")) << out;
  EXPECT_FLOAT_EQ(shaders[hair].hair.f0, 0.04f);
  EXPECT_EQ(shaders[0].prepared, 0);
}

TEST_F(SceneTest, MalformedInputIsPassedOverQuietly) {
  const unsigned faces[8] = {0, 1, 2, 0, 1, 7, 0, 1};
  int hollow = qzAddObject();  // its only face names vertices that are not there
  qzAddPrimitives(hollow, 3, 1, faces);
  int o = qzAddObject();
  const float points[9] = {0, 0, 0, std::nanf(""), 1, 0, 1, 1, 1};
  qzAddVertexData(o, 3, "position", 3, 3, points);
  qzAddVertexData(o, 3, "normal", 1, 3, points);  // one normal for three vertices
  qzAddPrimitives(o, 3, 2, faces);
  qzAddPrimitives(o, 4, 1, faces + 4);
  qzSetObjectShader(o, 1, 12345);  // no such shader
  qzAddVertexData(o, 1, "position", 3, 3, points);
  qzAddPrimitives(o, 1, 3, faces + 4);  // no radius, and vertex 7 does not exist
  qzAddVertexData(o, 2, "position", 2, 3, points);
  const unsigned last = 1;
  qzAddPrimitives(o, 2, 1, &last);  // a segment from the last vertex
  qzSetInstance(o, qzAddInstance(o), 99, nullptr);
  std::string out = assembleReport();
  EXPECT_TRUE(has(out, "scene minimum")) << out;
  EXPECT_TRUE(objects[hollow].bvhNodes.empty());
  const Object& kept = objects[o];
  EXPECT_EQ(kept.mesh.triangles.size(), 1u);
  EXPECT_TRUE(kept.mesh.tetragons.empty());
  EXPECT_EQ(kept.particles.indices.size(), 2u);
  EXPECT_TRUE(kept.cylinders.indices.empty());
  ASSERT_EQ(kept.instances.size(), 1u);  // the hollow object, placed under the last root
  EXPECT_EQ(kept.instances[0].object, hollow);
  EXPECT_EQ(kept.mesh.normals.size(), 3u);
  EXPECT_EQ(kept.mesh.normals[2], 0u);  // the missing ones read as absent
}

TEST_F(SceneTest, MovingObjectsArePosedWithThePassJustFinished) {
  cameras.assign(1, Camera{});
  cameras[0].sample = 4;
  renderer.pass = 0;
  // A still child under a parent of two motion channels: a Bezier curve of degree 1
  // from no offset to 4 along x, so the offset is 4 t with t = (pass + 0.5) / 4.
  int parent = triangleObject({0, 0, 0, 1, 0, 0, 0, 1, 0}, 1);
  const float start[9] = {}, end[9] = {4, 0, 0, 4, 0, 0, 4, 0, 0};
  EXPECT_EQ(qzAddVertexData(parent, 3, "motion", 3, 3, start), 1);
  EXPECT_EQ(qzAddVertexData(parent, 3, "motion", 3, 3, end), 2);
  int child = triangleObject({0, 5, 0, 1, 5, 0, 0, 6, 0}, 1);
  qzSetInstance(parent, qzAddInstance(parent), child, nullptr);
  assembleReport();
  const Object& moving = objects[parent];
  EXPECT_EQ(moving.hasMotion, 1);
  EXPECT_FALSE(moving.buildRecords.empty());
  EXPECT_FALSE(moving.mesh.vectorChannels[0].values.empty());
  EXPECT_TRUE(objects[child].buildRecords.empty());
  EXPECT_FLOAT_EQ(moving.mesh.worldPositions[0].x, 0.5f);
  EXPECT_FLOAT_EQ(sceneMax.x, 1.5f);

  // The loop calls this after each pass, before the pass number rises:
  // pass 1 renders the pose of pass 0, pass 2 that of pass 1.
  updateMovingObjects();
  EXPECT_FLOAT_EQ(moving.mesh.worldPositions[0].x, 0.5f);
  renderer.pass = 1;
  updateMovingObjects();
  EXPECT_FLOAT_EQ(moving.mesh.worldPositions[0].x, 1.5f);
  EXPECT_FLOAT_EQ(sceneMin.x, 0);  // the still child keeps the low end
  EXPECT_FLOAT_EQ(sceneMax.x, 2.5f);
  // The hierarchy was rebuilt around the new positions.
  float lowest = infinity;
  for (const BvhNode& node : moving.bvhNodes)
    for (int lane = 0; lane < firstFreeLane(node); ++lane)
      if (isLeafReference(node.child[lane]) && referenceKind(node.child[lane]) == kindTriangle)
        lowest = std::min(lowest, node.min_x[lane]);
  EXPECT_FLOAT_EQ(lowest, 1.5f);
  // And the triangle test follows: a ray through the new place hits, one
  // through the place left behind does not.
  for (const float x : {1.7f, 0.7f}) {
    Ray ray;
    ray.origin = {x, 0.2f, -1};
    ray.direction = {0, 0, 1};
    ray.bounces = 1;
    EXPECT_EQ(traceClosest(ray), x > 1.5f);
  }

  // One motion channel is a curve of degree 0: its offset counts in full at every pass.
  qzFinalizeAccelerator();
  int still = triangleObject({0, 0, 0, 1, 0, 0, 0, 1, 0}, 1);
  qzAddVertexData(still, 3, "motion", 3, 3, end);
  assembleReport();
  EXPECT_FLOAT_EQ(objects[still].mesh.worldPositions[0].x, 4);
  renderer.pass = 3;
  updateMovingObjects();
  EXPECT_FLOAT_EQ(objects[still].mesh.worldPositions[0].x, 4);
  renderer.pass = 0;
  cameras.clear();
}
