// The two hair readers: every failure line of the binary reader, the strand
// rules, defaults and per-point thickness, the fur text, files that lie about
// their sizes, and the object block keys that run them.
#include "geometry/hair_reader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "geometry/object_block.h"
#include "tests/scene_fixture.h"

namespace {

// A binary hair file built in memory: header fields, the arrays its flags
// select, and a number of bytes cut off the end.
struct HairBytes {
  std::string signature = "HAIR";
  uint32_t strands = 0, points = 0, flags = 2, segments = 0;
  float thickness = 1;
  std::vector<uint16_t> segmentArray;
  std::vector<float> pointArray, thicknessArray, transparencyArray, colorArray;
  size_t cut = 0;

  std::string bytes() const {
    std::string out(128, '\0');
    std::memcpy(out.data(), signature.data(), std::min<size_t>(4, signature.size()));
    const uint32_t words[4] = {strands, points, flags, segments};
    std::memcpy(out.data() + 4, words, 16);
    const float floats[5] = {thickness, 0, 1, 1, 1};
    std::memcpy(out.data() + 20, floats, 20);
    auto append = [&](const void* data, size_t size) { out.append(static_cast<const char*>(data), size); };
    append(segmentArray.data(), segmentArray.size() * 2);
    append(pointArray.data(), pointArray.size() * 4);
    append(thicknessArray.data(), thicknessArray.size() * 4);
    append(transparencyArray.data(), transparencyArray.size() * 4);
    append(colorArray.data(), colorArray.size() * 4);
    out.resize(out.size() - std::min(cut, out.size()));
    return out;
  }
};

// n points along x: point i at (i, 0, 0).
std::vector<float> pointsAlongX(uint32_t n) {
  std::vector<float> p;
  for (uint32_t i = 0; i < n; ++i) p.insert(p.end(), {float(i), 0, 0});
  return p;
}

std::vector<uint32_t> firsts(const CylinderSet& set) {
  std::vector<uint32_t> f;
  for (const Cylinder& c : set.indices) f.push_back(c.first);
  return f;
}

class HairReaderTest : public testing::Test {
 protected:
  void SetUp() override { folder = scratchFolder("hair") + "/"; }
  std::string write(const std::string& name, const std::string& bytes) {
    std::ofstream(folder + name, std::ios::binary) << bytes;
    return folder + name;
  }
  // Reads the file into the set; returns the report and keeps the result code.
  std::string read(const std::string& path) {
    return captureOutput([&] { code = readHairFile(set, path); });
  }
  std::string readFur(const std::string& text, const std::string& name = "strands.fur") {
    const std::string path = write(name, text);
    return captureOutput([&] { readFurFile(set, path); });
  }

  std::string folder;
  CylinderSet set;
  int64_t code = 0;
};

}  // namespace

TEST_F(HairReaderTest, EveryFailurePrintsItsLineAndAddsNothing) {
  // The line of each code, -1 to -8.
  const std::string lines[] = {"cannot open ",
                               "cannot open hair file header ",
                               "hair file has wrong signature ",
                               "cannot read hair segments ",
                               "cannot read hair points ",
                               "cannot read hair thickness ",
                               "cannot read hair transparency ",
                               "cannot read hair color "};
  EXPECT_EQ(read(folder + "missing.hair"), lines[0] + folder + "missing.hair\n");
  EXPECT_EQ(code, -1);
  HairBytes file;
  file.strands = 2, file.points = 3, file.flags = 1 | 2 | 4 | 8 | 16;
  file.segmentArray = {1, 0};
  file.pointArray = pointsAlongX(3);
  file.thicknessArray = {1, 1, 1};
  file.transparencyArray = {0, 0, 0};
  file.colorArray = std::vector<float>(9, 1);
  HairBytes wrongSignature = file;
  wrongSignature.signature = "HAIx";
  const std::string path = write("wrong.hair", wrongSignature.bytes());
  EXPECT_EQ(read(path), lines[2] + path + "\n");
  EXPECT_EQ(code, -3);
  // Every truncation fails with the array it cuts into. Where each ends:
  // header, segments, points, thickness, transparency, colour.
  const std::string whole = file.bytes();
  const size_t ends[] = {128, 132, 168, 180, 192, 228};
  ASSERT_EQ(whole.size(), ends[5]);
  for (size_t size = 0; size < whole.size(); ++size) {
    const std::string cut = write("cut.hair", whole.substr(0, size));
    int64_t expected = 0;
    for (int a = 5; a >= 0; --a)
      if (size < ends[a]) expected = a == 0 ? -2 : -3 - a;
    EXPECT_EQ(read(cut), lines[-expected - 1] + cut + "\n") << size;
    EXPECT_EQ(code, expected) << size;
  }
  EXPECT_TRUE(set.indices.empty());
  EXPECT_TRUE(set.vectorChannels[0].values.empty());
  EXPECT_TRUE(set.scalarChannels[0].values.empty());
  // The whole file reads: two strands, the second of no segment.
  EXPECT_EQ(read(write("good.hair", whole)), "");
  EXPECT_EQ(code, 2);
  EXPECT_EQ(firsts(set), (std::vector<uint32_t>{0}));
}

TEST_F(HairReaderTest, HeadersClaimingMoreThanTheFileHoldsFailWithoutReading) {
  HairBytes liar;
  liar.strands = 1, liar.points = 0xFFFFFFFFu, liar.flags = 2;
  liar.pointArray = pointsAlongX(4);
  EXPECT_NE(read(write("liar.hair", liar.bytes())).find("cannot read hair points "), std::string::npos);
  EXPECT_EQ(code, -5);
  liar.strands = 0xFFFFFFFFu, liar.points = 4, liar.flags = 1 | 2;
  EXPECT_NE(read(write("liar.hair", liar.bytes())).find("cannot read hair segments "), std::string::npos);
  EXPECT_TRUE(set.indices.empty());
  // No points array: nothing to place, and nothing is added.
  HairBytes noPoints;
  noPoints.strands = 3, noPoints.points = 1000000, noPoints.flags = 0, noPoints.segments = 5;
  EXPECT_EQ(read(write("empty.hair", noPoints.bytes())), "");
  EXPECT_EQ(code, 3);
  EXPECT_TRUE(set.indices.empty());
  EXPECT_TRUE(set.vectorChannels[0].values.empty());
}

TEST_F(HairReaderTest, PointsOnlyUsesTheHeaderDefaults) {
  HairBytes file;
  file.strands = 2, file.points = 8, file.flags = 2, file.segments = 3, file.thickness = 2;
  file.pointArray = pointsAlongX(8);
  read(write("defaults.hair", file.bytes()));
  EXPECT_EQ(code, 2);
  // Two strands of three segments over four points each.
  EXPECT_EQ(firsts(set), (std::vector<uint32_t>{0, 1, 2, 4, 5, 6}));
  ASSERT_EQ(set.scalarChannels[0].values.size(), 8u);
  for (float r : set.scalarChannels[0].values) EXPECT_EQ(r, 1.0f);  // half the thickness 2
  ASSERT_EQ(set.pairChannels[0].values.size(), 8u);
  EXPECT_EQ(std::tuple(set.pairChannels[0].values[3].u, set.pairChannels[0].values[3].v),
            std::tuple(3.0f / 8, 4.0f / 8));
  EXPECT_EQ(set.vectorChannels[0].values[5], (Vec3f{5, 0, 0}));
}

TEST_F(HairReaderTest, StrandRulesAndASecondFile) {
  HairBytes file;
  // A strand of 0 segments holds one point and adds no cylinder; the last
  // strand claims 5 segments but only 2 points remain: one cylinder exists.
  file.strands = 4, file.points = 10, file.flags = 1 | 2 | 4;
  file.segmentArray = {2, 0, 3, 5};
  file.pointArray = pointsAlongX(10);
  file.thicknessArray = {0.5f, 1, 1.5f, 2, 2.5f, 3, 3.5f, 4, 4.5f, 5};
  read(write("rules.hair", file.bytes()));
  EXPECT_EQ(firsts(set), (std::vector<uint32_t>{0, 1, 4, 5, 6, 8}));
  EXPECT_EQ(set.scalarChannels[0].values[8], 2.25f);
  // A second file resizes the channels to its own count and starts its
  // strands at vertex 0 again, appending to the cylinders.
  HairBytes second;
  second.strands = 1, second.points = 3, second.flags = 2, second.segments = 2;
  second.pointArray = pointsAlongX(3);
  read(write("second.hair", second.bytes()));
  EXPECT_EQ(firsts(set), (std::vector<uint32_t>{0, 1, 4, 5, 6, 8, 0, 1}));
  EXPECT_EQ(set.vectorChannels[0].values.size(), 3u);
  EXPECT_EQ(set.scalarChannels[0].values.size(), 3u);
}

TEST_F(HairReaderTest, FurText) {
  EXPECT_EQ(readFur("# segment 3\nsegment 3\nposition 0 0 0\nposition 0 1 0\nposition 0 2 0\n"
                    "junk line\nposition 0 3 0\n"),
            "");
  EXPECT_EQ(firsts(set), (std::vector<uint32_t>{0, 1, 2}));
  ASSERT_EQ(set.scalarChannels[0].values.size(), 4u);
  EXPECT_EQ(set.scalarChannels[0].values[3], 0.003f);
  EXPECT_EQ(set.vectorChannels[0].values[2], (Vec3f{0, 2, 0}));
  EXPECT_TRUE(set.pairChannels[0].values.empty());
  // A second file appends its points, but its cylinders start at vertex 0.
  readFur("segment 1\nposition 5 0 0\nposition 6 0 0\n", "second.fur");
  EXPECT_EQ(set.vectorChannels[0].values.size(), 6u);
  EXPECT_EQ(firsts(set), (std::vector<uint32_t>{0, 1, 2, 0}));
  // A file that cannot be opened says nothing.
  EXPECT_EQ(captureOutput([&] { readFurFile(set, folder + "missing.fur"); }), "");
}

TEST_F(HairReaderTest, FurSizesThatLie) {
  // A negative size adds no cylinder and moves the next strand back; a huge
  // one runs past the points, which end its cylinders; neither reads outside.
  readFur(
      "segment -2\nsegment 2\nsegment 4000000000\nsegment 99999999999999999999\nsegment 1\n"
      "position 0 0 0\nposition 1 0 0\nposition 2 0 0\nposition 3 0 0\n");
  // -2 moves the start to -1; the strand of 2 then covers vertices -1 to 1,
  // of which only the cylinder from 0 exists; the next starts at 2 and runs out at 3.
  EXPECT_EQ(firsts(set), (std::vector<uint32_t>{0, 2}));
  for (const Cylinder& c : set.indices) EXPECT_LT(c.first + 1, set.vectorChannels[0].values.size());
}

TEST_F(HairReaderTest, ObjectBlockKeysReadAndSetTheShader) {
  quietStartup();
  HairBytes file;
  file.strands = 1, file.points = 3, file.flags = 2, file.segments = 2;
  file.pointArray = pointsAlongX(3);
  const std::string hair = write("block.hair", file.bytes());
  const std::string fur = write("block.fur", "segment 1\nposition 0 0 0\nposition 0 0 1\n");
  const int fibre = findOrAddShader("fibre");
  Object object;
  std::istringstream block("shader \"fibre\"\nhair \"" + hair + "\"\nfur \"" + fur + "\"\nhair \"" + folder +
                           "none.hair\"\nend\n");
  const std::string out = captureOutput([&] { readObjectBlock(object, block); });
  EXPECT_EQ(out, "cannot open " + folder + "none.hair\n");
  EXPECT_EQ(object.cylinders.shader, fibre);
  EXPECT_EQ(firsts(object.cylinders), (std::vector<uint32_t>{0, 1, 0}));
  EXPECT_EQ(object.cylinders.vectorChannels[0].values.size(), 5u);
  captureOutput([] { qzShutdown(); });
}
