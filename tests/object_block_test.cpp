#include "geometry/object_block.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "geometry/scene_assembly.h"
#include "qz.h"
#include "shading/shader.h"
#include "tests/scene_fixture.h"

namespace {

class ObjectBlockTest : public SceneTest {
 protected:
  void SetUp() override {
    SceneTest::SetUp();
    folder = scratchFolder("object-block") + "/";
    std::filesystem::create_directories(folder + "geometry");
    std::ofstream(folder + "geometry/quad.obj") << "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nf 1 2 3 4\n";
  }
  std::string loadScene(const std::string& geometry) {
    std::filesystem::create_directories(folder + "shader");
    std::ofstream(folder + "shader/shaders.qz") << "shader\nname \"clay\"\nend\nshader\nname \"gold\"\nend\n";
    std::ofstream(folder + "geometry/scene.qz") << geometry;
    return captureOutput([&] { qzLoadScene(folder.c_str()); });
  }

  std::string folder;
};

}  // namespace

TEST_F(ObjectBlockTest, KeysFillTheObject) {
  const std::string out = loadScene(
      "object\n"
      "name quad extra words\n"
      "uv_texture \"a.png\"\nposition_texture \"b\"\nnormal_texture \"c\"\ntangent_texture \"d\"\n"
      "triangle_texture \"e\"\nparticle_texture \"f\"\n"
      "obj \"quad.obj\"\n"
      "shader \"clay\"\n"
      "obj \"quad.obj\"\n"
      "unknown key\n"
      "end\n"
      "object\nend\n");
  ASSERT_EQ(objects.size(), 2u);
  const Object& quad = objects[0];
  EXPECT_EQ(quad.name, "quad");
  EXPECT_EQ(objects[1].name, "object0001");
  // Two files append to one mesh; faces take no shader from the block, the mesh takes the last one.
  EXPECT_EQ(quad.mesh.tetragons.size(), 2u);
  EXPECT_EQ(quad.mesh.tetragons[1].shader, 0u);
  EXPECT_EQ(quad.mesh.shader, findOrAddShader("clay"));
  EXPECT_EQ(quad.particles.shader, 0);
  // The texture keys load nothing and print nothing; each file prints its first-line row.
  EXPECT_EQ(quad.particles.indices.size() + quad.cylinders.indices.size(), 0u);
  const std::string fileRow = "scene loading      0.000 [M lines]\n";
  EXPECT_EQ(out.rfind(fileRow + fileRow + "scene loading ", 0), 0u) << out;
}

TEST_F(ObjectBlockTest, InstancesPlaceAndOverride) {
  loadScene(
      "object\nname quad\nobj \"quad.obj\"\nend\n"
      "object\nname world\n"
      "instance\nobject quad\nmatrix 1 0 0 5 0 1 0 0 0 0 1 0 0 0 0 1\n"
      "override \"undefined\"\nby \"clay\"\nby \"gold\"\nend\n"
      "instance\nobject quad\nmatrix 2 0 0\nby \"clay\"\nend\n"
      "end\n");
  ASSERT_EQ(objects.size(), 2u);
  const Object& world = objects[1];
  ASSERT_EQ(world.instances.size(), 2u);
  const Instance& first = world.instances[0];
  EXPECT_EQ(first.objectName, "quad");
  EXPECT_EQ(first.matrix(0, 3), 5.0f);
  // `by` uses the name that the last `override` left.
  EXPECT_EQ(first.overrides.size(), 1u);
  EXPECT_EQ(first.overrides.at(0), findOrAddShader("gold"));
  // Fewer than 16 numbers: the rest of the matrix stays as it was.
  const Instance& second = world.instances[1];
  EXPECT_EQ(second.matrix(0, 0), 2.0f);
  EXPECT_EQ(second.matrix(1, 1), 1.0f);
  EXPECT_EQ(second.matrix(0, 3), 0.0f);
  // A `by` with no `override` before it looks up the empty name.
  EXPECT_EQ(second.overrides.begin()->first, findOrAddShader(""));

  const std::string out = captureOutput([] { qzInitializeAccelerator(); });
  EXPECT_EQ(out.find("warning"), std::string::npos) << out;
  EXPECT_EQ(objects[rootObject].name, "world");
  EXPECT_EQ(sceneMax.x, 6.0f);
}

TEST_F(ObjectBlockTest, MissingFileIsReportedAndTheSceneGoesOn) {
  const std::string out = loadScene("object\nobj \"nowhere.obj\"\nend\nobject\nobj \"quad.obj\"\nend\n");
  EXPECT_NE(out.find("error :( object - cannot open nowhere.obj\n"), std::string::npos);
  ASSERT_EQ(objects.size(), 2u);
  EXPECT_EQ(objects[1].mesh.tetragons.size(), 1u);
}
