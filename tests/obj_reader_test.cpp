#include "geometry/obj_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <set>

#include "geometry/scene_assembly.h"
#include "qz.h"
#include "shading/shader.h"
#include "tests/scene_fixture.h"

namespace {

class ObjReaderTest : public SceneTest {
 protected:
  void SetUp() override {
    SceneTest::SetUp();
    folder = scratchFolder("obj");
  }

  // Writes the text to a file and reads it into a fresh object; returns the report.
  std::string load(const std::string& text, const std::string& name = "model.obj") {
    const std::string path = folder + "/" + name;
    std::ofstream(path, std::ios::binary) << text;
    object = qzAddObject();
    return captureOutput([&] { qzLoadObject(object, path.c_str()); });
  }
  Mesh& mesh() { return objects[object].mesh; }
  Vec3f position(uint32_t v) { return mesh().vectorChannels[0].values[v]; }
  std::vector<Vec3f> corners(const Triangle& t) { return {position(t.i0), position(t.i1), position(t.i2)}; }

  std::string folder;
  int object = -1;
};

const char* const square = "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n";

}  // namespace

TEST_F(ObjReaderTest, DoubleSlashSkipsTheCoordinateAndGivenNormalsTurnToTheWinding) {
  load(std::string(square) + "vn 1 0 0\nvn 0 0 1\nvn 0 1 0\nvn 0 0 1\nvn 0 0 0\nvn 0 0 1\nf 1//2 2//4 3//6\n");
  ASSERT_EQ(mesh().triangles.size(), 1u);
  const Triangle t = mesh().triangles[0];
  EXPECT_EQ(corners(t), (std::vector<Vec3f>{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}}));
  for (uint32_t v : {t.i0, t.i1, t.i2}) {
    EXPECT_EQ(mesh().normals[v], packUnitVector({0, 0, 1}));
    EXPECT_EQ(mesh().tangents[v], 0u);
    EXPECT_EQ(mesh().pairChannels[0].values[v].u, 0.0f);
  }

  load(std::string(square) + "vn 0 0 -1\nvn 0.1 0 -1\nf 1//1 2//2 3//1\nf 1//1 3//1 4\n");
  const Triangle turned = mesh().triangles[0];
  EXPECT_EQ(mesh().normals[turned.i0], packUnitVector({0, 0, 1}));
  EXPECT_EQ(mesh().normals[turned.i1], packUnitVector({-0.1f, 0, 1}));
  // A corner without a normal keeps the word 0 and stops the turn.
  const Triangle u = mesh().triangles[1];
  EXPECT_EQ(mesh().normals[u.i0], packUnitVector({0, 0, -1}));
  EXPECT_EQ(mesh().normals[u.i2], 0u);
}

TEST_F(ObjReaderTest, IndicesCountFromTheEndWhenNegative) {
  const std::string out = load(std::string(square) + "vt 0.25 0.5 0.75\nf -3/1 -2/-1 -1/1\nv 5 5 5\nf -5 -4 -1\n");
  ASSERT_EQ(mesh().triangles.size(), 2u);
  EXPECT_EQ(corners(mesh().triangles[0]), (std::vector<Vec3f>{{1, 0, 0}, {1, 1, 0}, {0, 1, 0}}));
  EXPECT_EQ(corners(mesh().triangles[1]), (std::vector<Vec3f>{{0, 0, 0}, {1, 0, 0}, {5, 5, 5}}));
  const FloatPair uv = mesh().pairChannels[0].values[mesh().triangles[0].i1];
  EXPECT_EQ(uv.u, 0.25f);  // the third number of vt is not read
  EXPECT_EQ(uv.v, 0.5f);
  // The first line of a file reports, in millions of lines.
  EXPECT_EQ(out, "scene loading      0.000 [M lines]\n");
  EXPECT_TRUE(mesh().normals.size() == 6 && mesh().tangents.size() == 6);
}

TEST_F(ObjReaderTest, PolygonsAreDroppedAndDegenerateQuadranglesCutEachWithOneWarning) {
  const std::string out = load(std::string(square) + "v 2 2 0\nv 3 3 0\nf 1 2 3 4 5 6\nf 1 2 3 4 5\nf 1 2\nf 1\nf 3 2 1\n");
  EXPECT_EQ(occurrences(out, "warning :( object - please triangulate/quadrangulate the input model(s)\n"), 1u);
  EXPECT_EQ(mesh().triangles.size(), 1u);
  EXPECT_TRUE(mesh().tetragons.empty());
  // The warning prints once for each reader: a second load warns again.
  ObjReader reader = readerFor(objects[object]);
  std::ofstream(folder + "/again.obj") << square << "v 2 2 0\nf 1 2 3 4 5\nf 1 2 3 4 5\n";
  EXPECT_EQ(occurrences(captureOutput([&] { readObjFile(reader, folder + "/again.obj"); }), "please triangulate"), 1u);

  // Degenerate quadrangles keep three corners, with a warning of their own, once.
  const std::string degenerate = load(std::string(square) + "f 1 2 2 3\nf 4 1 2 4\nf 1 1 2 2\n");
  EXPECT_EQ(occurrences(degenerate, "warning :( object - there are degenerated quadrangles\n"), 1u);
  ASSERT_EQ(mesh().triangles.size(), 2u);
  // 1 and 2 equal: corners 0, 1, 3.
  EXPECT_EQ(corners(mesh().triangles[0]), (std::vector<Vec3f>{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}}));
  // 0 and 3 equal: corners 0, 1, 2.
  EXPECT_EQ(corners(mesh().triangles[1]), (std::vector<Vec3f>{{0, 1, 0}, {0, 0, 0}, {1, 0, 0}}));
  // "1 1 2 2": the last pair (2, 3) keeps 0, 1, 2, a triangle with two equal positions: dropped.
}

TEST_F(ObjReaderTest, OnlyRectanglesStayTetragons) {
  load(std::string(square) + "v 3 0 0\nv 2 1 0\nv 0 0 1\nf 1 2 3 4\nf 1 5 6 4\nf 1 2 3 7\n");
  ASSERT_EQ(mesh().tetragons.size(), 1u);
  const Tetragon q = mesh().tetragons[0];
  EXPECT_EQ(position(q.i3), Vec3f(0, 1, 0));
  // The trapezoid is planar, the last face is not: both are cut from corner 2 to corner 0.
  ASSERT_EQ(mesh().triangles.size(), 4u);
  EXPECT_EQ(corners(mesh().triangles[0]), (std::vector<Vec3f>{{0, 0, 0}, {3, 0, 0}, {2, 1, 0}}));
  EXPECT_EQ(corners(mesh().triangles[1]), (std::vector<Vec3f>{{2, 1, 0}, {0, 1, 0}, {0, 0, 0}}));
  EXPECT_EQ(corners(mesh().triangles[3]), (std::vector<Vec3f>{{1, 1, 0}, {0, 0, 1}, {0, 0, 0}}));
  const Vec3f rectangle[4] = {{0, 0, 0}, {2, 0, 0}, {2, 1, 0}, {0, 1, 0}};
  const Vec3f bent[4] = {{0, 0, 0}, {2, 0, 0}, {2, 1, 0.01f}, {0, 1, 0}};
  EXPECT_TRUE(isPlanar(rectangle) && isRectangular(rectangle));
  EXPECT_FALSE(isPlanar(bent));
}

TEST_F(ObjReaderTest, MaterialsSplitWeldsAndNameShaders) {
  const int red = qzAddShader();
  qzSetShaderName(red, "red");
  load(std::string(square) + "f 1 2 3\nf 1 3 4\nusemtl red\nf 1 3 4\nusemtl  \nf 1 2 3\n");
  ASSERT_EQ(mesh().triangles.size(), 4u);
  EXPECT_EQ(mesh().vectorChannels[0].values.size(), 10u);
  EXPECT_EQ(mesh().triangles[0].shader, 0u);
  EXPECT_EQ(mesh().triangles[1].i0, mesh().triangles[0].i0);
  EXPECT_EQ(mesh().triangles[2].shader, uint32_t(red));
  EXPECT_NE(mesh().triangles[2].i0, mesh().triangles[1].i0);
  // A usemtl without a name looks up the empty name, which nothing defines.
  EXPECT_EQ(shaders[mesh().triangles[3].shader].name, "");
  EXPECT_FALSE(shaders[mesh().triangles[3].shader].enabled);
}

TEST_F(ObjReaderTest, MaterialChangesForgetEveryBucketInUse) {
  // Fractional positions spread over many buckets; whole numbers crowd one
  // bucket past its limit, which empties it without giving its memory back.
  std::mt19937 random(3);
  std::uniform_real_distribution<float> coordinate(-10, 10);
  std::string text, faces;
  for (int v = 0; v < 300; ++v) {
    const bool whole = v % 3 == 0;
    text += whole ? "v " + std::to_string(v) + " " + std::to_string(v * 7 % 11) + " 0\n"
                  : "v " + std::to_string(coordinate(random)) + " " + std::to_string(coordinate(random)) + " 1\n";
  }
  for (int f = 1; f + 2 <= 300; f += 3)
    faces += "f " + std::to_string(f) + " " + std::to_string(f + 1) + " " + std::to_string(f + 2) + "\n";
  load(text + faces + faces + "usemtl a\n" + faces + "usemtl b\nusemtl a\n" + faces);
  const size_t perCopy = 300;
  ASSERT_EQ(mesh().triangles.size(), 4 * perCopy / 3);
  // Within a material the second copy welds where its bucket still knows the
  // vertex, which the crowded bucket does not; across a change nothing is
  // shared.
  std::set<uint32_t> before, after;
  for (size_t t = 0; t < 2 * perCopy / 3; ++t)
    before.insert({mesh().triangles[t].i0, mesh().triangles[t].i1, mesh().triangles[t].i2});
  for (size_t t = 2 * perCopy / 3; t < 4 * perCopy / 3; ++t)
    after.insert({mesh().triangles[t].i0, mesh().triangles[t].i1, mesh().triangles[t].i2});
  EXPECT_GT(before.size(), perCopy);
  EXPECT_LT(before.size(), 2 * perCopy);
  for (uint32_t v : after) EXPECT_EQ(before.count(v), 0u) << v;
  EXPECT_EQ(after.size(), 2 * perCopy);
}

TEST_F(ObjReaderTest, CornersWeldByAllTheirAttributes) {
  load(std::string(square) + "vn 0 0 1\nvn 1 0 0\nvt 0 0\nvt 1 1\nf 1//1 2//1 3//1\nf 1//2 3//1 4//1\nf 1/1 2/1 3/1\n" +
       "f 1/2 2/1 3/1\n");
  // Positions 1 and 3 share their vertex across the first two faces only where the normals agree.
  EXPECT_NE(mesh().triangles[1].i0, mesh().triangles[0].i0);
  EXPECT_EQ(mesh().triangles[1].i1, mesh().triangles[0].i2);
  EXPECT_EQ(mesh().triangles[3].i1, mesh().triangles[2].i1);
  EXPECT_NE(mesh().triangles[3].i0, mesh().triangles[2].i0);
}

TEST_F(ObjReaderTest, CrlfFilesReadLikeUnixFiles) {
  const int red = qzAddShader();
  qzSetShaderName(red, "red");
  const std::string lf = std::string(square) + "vt 0.5 0.5\nvn 0 0 1\ng box\ns off\no thing\nmtllib x.mtl\nl 1 2\n" +
                           "usemtl red\nf 1/1/1 2/1/1 3/1/1 4/1/1\n";
  std::string dos;
  for (char c : lf) dos += c == '\n' ? std::string("\r\n") : std::string(1, c);
  load(lf, "lf.obj");
  const Mesh first = mesh();
  load(dos, "dos.obj");
  ASSERT_EQ(mesh().tetragons.size(), 1u);
  EXPECT_EQ(mesh().tetragons[0].shader, uint32_t(red));
  EXPECT_EQ(mesh().vectorChannels[0].values, first.vectorChannels[0].values);
  EXPECT_EQ(mesh().normals, first.normals);
}

TEST_F(ObjReaderTest, IndicesBeyondTheirArraysAndMalformedFilesLoadAndPrepare) {
  load(std::string(square) + "vt 1 1\nvn 0 0 1\nf 1/1/1 2/7/1 9\nf 1/1/1 2/7/1 3/1/8\nf 99999999999 -99999999999 3\n" +
       "f 0 0 0\nf 1 2 3 99\nf 1 2 3 -5\n");
  ASSERT_EQ(mesh().triangles.size(), 1u);
  const Triangle t = mesh().triangles[0];
  EXPECT_EQ(mesh().pairChannels[0].values[t.i1].u, 0.0f);
  EXPECT_EQ(mesh().normals[t.i2], 0u);

  std::mt19937 random(7);
  std::string garbage(1 << 20, '\0');
  for (char& c : garbage) c = char(random());
  std::string longLine = "f " + std::string(10 << 20, '1') + " 2 3\n";
  const std::string cases[] = {
      garbage,
      "v\nvn\nvt\nf\nf / / /\nf //\nv 0 0\nf 1 1 1 1 1\nusemtl\nf a b c\n",
      std::string(square) + "v nan nan nan\nv 1e39 -1e39 0\nv inf 0 0\nf 1 2 5\nf 1 2 6\nf 7 2 3\nf 1 2 3\n",
      std::string(square) + longLine + "v " + std::string(5000, '9') + " 0 0\nf 1 2 3\n",
      std::string(square) + "f 1/" + std::string(9000, '/') + "\nf 1 2 -3 -4 -5 -6 -7 -8 -9 -10\n",
  };
  int i = 0;
  for (const std::string& text : cases) {
    load(text, "bad" + std::to_string(i++) + ".obj");
    captureOutput([&] { prepareObject(objects[object]); });
    // Whatever survived refers to vertices that exist.
    const size_t vertices = mesh().worldPositions.size();
    for (const Triangle& t : mesh().triangles) EXPECT_LT(std::max({t.i0, t.i1, t.i2}), vertices);
    for (const Tetragon& t : mesh().tetragons) EXPECT_LT(std::max({t.i0, t.i1, t.i2, t.i3}), vertices);
  }
}

TEST_F(ObjReaderTest, ProgressRowsCountMillionsOfLinesAndAMissingFileLeavesTheMesh) {
  std::string text;
  for (int i = 0; i < 1048577; ++i) text += "#\n";
  EXPECT_EQ(load(text), "scene loading      0.000 [M lines]\nscene loading      1.000 [M lines]\n");
  object = qzAddObject();
  const std::string out = captureOutput([&] { qzLoadObject(object, "no-such.obj"); });
  EXPECT_EQ(out, "error :( object - cannot open no-such.obj\n" + std::string(80, '_') + "\n\n");
  EXPECT_TRUE(mesh().vectorChannels[0].values.empty());
}
