// The example scenes of the repository load, assemble and prepare their
// lights without a message that the scene did not mean, with the geometry
// each one is built to have.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "frame/renderer.h"
#include "geometry/object.h"
#include "geometry/scene_assembly.h"
#include "lights/gaffer.h"
#include "lights/geometry_light.h"
#include "lights/sky.h"
#include "output/camera.h"
#include "qz.h"
#include "shading/image.h"
#include "shading/shader.h"
#include "tests/scene_fixture.h"

namespace {

class ExampleScenes : public SceneTest {
 protected:
  // Loads and assembles a scene of the repository; returns the report.
  std::string assemble(const std::string& scene) {
    const char* source = std::getenv("QZ_SOURCE_DIR");
    const std::string directory = std::string(source ? source : "../..") + "/scenes/" + scene + "/";
    return captureOutput([&] {
      qzLoadScene(directory.c_str());
      // Photons are the render tests' business: casting them here would only cost time.
      renderer.radius = renderer.resolution = 0;
      renderer.final_gather = false;
      qzInitialize();
    });
  }
  void TearDown() override {
    finalizeGeometryLight();
    finalizeSky();
    qzFinalizeGaffer();
    // Cleared rather than finalised: finalising would write their empty images.
    cameras.clear();
    SceneTest::TearDown();
  }

  const Object& named(const std::string& name) {
    for (const Object& object : objects)
      if (object.name == name) return object;
    ADD_FAILURE() << "no object " << name;
    return objects.front();
  }
};

void expectQuiet(const std::string& report) {
  EXPECT_EQ(report.find("warning"), std::string::npos) << report;
  EXPECT_EQ(report.find("error"), std::string::npos) << report;
}

}  // namespace

TEST_F(ExampleScenes, CornellBoxKeepsItsRectanglesAndIsLitByItsLampPanel) {
  const std::string report = assemble("cornell-box");
  expectQuiet(report);
  // The panel's two sides take part; only its front emits.
  EXPECT_NE(report.find("geometry light   area      0.720 [m x m]\ngeometry light sample         64 [n/a]\n"),
            std::string::npos)
      << report;
  EXPECT_TRUE(pointLights.empty());
  EXPECT_TRUE(parallelLights.empty());
  ASSERT_EQ(objects.size(), 1u);
  // Walls, lamp and the ten faces of the two blocks are all rectangles.
  EXPECT_EQ(objects[0].mesh.tetragons.size(), 16u);
  EXPECT_TRUE(objects[0].mesh.triangles.empty());
  EXPECT_EQ(sceneMax.y, 2.0f);
}

TEST_F(ExampleScenes, BunnySitsOnTheGround) {
  expectQuiet(assemble("bunny"));
  EXPECT_EQ(named("bunny").mesh.triangles.size(), 69451u);
  EXPECT_EQ(objects[rootObject].name, "world");
  EXPECT_NEAR(sceneMin.y, 0.0f, 1e-3f);
  // Smoothed: every vertex has its normal.
  for (uint32_t word : named("bunny").mesh.normals) ASSERT_NE(word, 0u);
}

TEST_F(ExampleScenes, SpotWearsItsTexture) {
  expectQuiet(assemble("spot"));
  EXPECT_EQ(named("spot").mesh.triangles.size(), 2u * 2928u);
  const TextureNode& diffuse = channelNode(shaders[0], diffuseChannel, 0);
  ASSERT_GE(diffuse.image, 0);
  EXPECT_TRUE(images[diffuse.image].loaded);
  EXPECT_EQ(images[diffuse.image].width, 1024);
}

TEST_F(ExampleScenes, MaterialsDisplaceOneSphere) {
  const std::string report = assemble("materials");
  expectQuiet(report);
  EXPECT_NE(report.find("displacement "), std::string::npos);
  // 960 faces, each a grid of level 6.
  EXPECT_EQ(named("bumpy").mesh.triangles.size(), 960u * 36u);
  EXPECT_EQ(named("sphere").mesh.triangles.size(), 2208u);
  // The sphere is placed twice, once with the coat for the glass; the hierarchy orders placements its own way.
  ASSERT_EQ(named("world").instances.size(), 3u);
  int coated = 0;
  for (const Instance& instance : named("world").instances)
    coated += instance.overrides == std::map<int32_t, int32_t>{{findOrAddShader("glass"), findOrAddShader("coat")}};
  EXPECT_EQ(coated, 1);
  EXPECT_GT(sceneMin.y, -1e-3f);
}

TEST_F(ExampleScenes, FurBallGrowsFromItsCore) {
  expectQuiet(assemble("hair"));
  const Object& ball = named("furball");
  // 20000 strands of seven segments, their roots on the unit sphere of the core.
  EXPECT_EQ(ball.cylinders.indices.size(), 140000u);
  EXPECT_EQ(ball.cylinders.worldPositions.size(), 160000u);
  uint32_t strands = 0;
  for (const Cylinder& c : ball.cylinders.indices) strands = std::max(strands, c.strand + 1);
  EXPECT_EQ(strands, 20000u);
  EXPECT_EQ(shaders[size_t(ball.cylinders.shader)].name, "fur");
  EXPECT_TRUE(shaders[size_t(ball.cylinders.shader)].used_by_hair);
  for (uint32_t v : {0u, 8u, 159992u}) EXPECT_NEAR(length(ball.cylinders.worldPositions[v]), 1, 1e-5f);
}
