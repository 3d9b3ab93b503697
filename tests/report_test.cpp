#include <iostream>
#include <gtest/gtest.h>

#include "frame/report.h"
#include "tests/test_util.h"

TEST(Report, RuleIsEightyUnderscoresAndAnEmptyLine) {
  const std::string rule = std::string(80, '_') + "\n\n";
  EXPECT_EQ(captureOutput([] { printRule(); }), rule);
  EXPECT_EQ(captureOutput([] { printRule(); printRule(); }), rule + rule);
}

TEST(Report, FloatRowsAlignInAFieldOfTen) {
  EXPECT_EQ(captureOutput([] { printRow("scene loading", 0.25f, "seconds"); }),
            "scene loading      0.250 [seconds]\n");
  // The field is a minimum, never a cut.
  EXPECT_EQ(captureOutput([] { printFloatValue(1234567.5f, 3); }), "1234567.500 ");
  // An empty unit ends the row right after the value's blank.
  EXPECT_EQ(captureOutput([] { printRow("ratio", -1.5f, "", 2); }), "ratio      -1.50 \n");
}

TEST(Report, IntegerAndTripleRows) {
  EXPECT_EQ(captureOutput([] { printIntegerRow("number of threads", 2, "n/a"); }),
            "number of threads          2 [n/a]\n");
  EXPECT_EQ(captureOutput([] { printIntegerRow("count", -7, ""); }), "count         -7 \n");
  EXPECT_EQ(captureOutput([] { printTripleRow("scene minimum", -1, 0.5f, 2, "m"); }),
            "scene minimum     -1.000       0.500       2.000 [m]\n");
}

TEST(Report, ArrayRowsShowSizeCountAndMebibytes) {
  EXPECT_EQ(captureOutput([] { printArrayRow("shaders", 1024, 2048, "M bytes"); }),
            "shaders       1024 [bytes]      2048      2.000 [M bytes]\n");
  EXPECT_EQ(captureOutput([] { printArrayRow("shaders", 1024, 0, "M bytes"); }), "");
  EXPECT_EQ(captureOutput([] { printBytesRow("photon sotred", 3 << 19); }), "photon sotred      1.500 [M bytes]\n");
}

TEST(Report, Vec3ValueSignsZeroAsMinus) {
  // The values follow whatever notation the stream is in; a float row leaves it fixed at 3.
  std::string text = captureOutput([] {
    printFloatValue(0, 3);
    printVec3Value(1.5f, 0.0f, -2.25f);
  });
  EXPECT_EQ(text, "     0.000 " + std::string(11, ' ') + " 1.500 -0.000 -2.250");
}

TEST(Report, ProgressWarningAndErrorLines) {
  EXPECT_EQ(captureOutput([] { printProgress(25, 3.14159f); }), " 25[%]   3.14[M rays/s] \n");
  EXPECT_EQ(captureOutput([] { printProgress(100, 123.456f); }), "100[%]  123.46[M rays/s] \n");
  EXPECT_EQ(captureOutput([] { printWarning("object - there is no root object"); }),
            "warning :( object - there is no root object\n");
  EXPECT_EQ(captureOutput([] { printError("bbvh - depth out of range"); }), "error :( bbvh - depth out of range\n");
}

TEST(Report, ClockAdvancesInNanoseconds) {
  int64_t a = clockNanoseconds(), b = clockNanoseconds();
  EXPECT_LE(a, b);
  EXPECT_GT(a, 0);
}
