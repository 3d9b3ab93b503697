#include <gtest/gtest.h>

#include <functional>

#include "frame/report.h"
#include "tests/test_util.h"

TEST(Report, EveryRowKindPrintsItsExactText) {
  const std::string rule = std::string(80, '_') + "\n\n";
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[] { printRule(), printRule(); }, rule + rule},
      {[] { printRow("scene loading", 0.25f, "seconds"); }, "scene loading      0.250 [seconds]\n"},
      // The field is a minimum, never a cut.
      {[] { printFloatValue(1234567.5f, 3); }, "1234567.500 "},
      // An empty unit ends the row right after the value's blank.
      {[] { printRow("ratio", -1.5f, "", 2); }, "ratio      -1.50 \n"},
      {[] { printIntegerRow("number of threads", 2, "n/a"); }, "number of threads          2 [n/a]\n"},
      {[] { printIntegerRow("count", -7, ""); }, "count         -7 \n"},
      {[] { printTripleRow("scene minimum", -1, 0.5f, 2, "m"); },
       "scene minimum     -1.000       0.500       2.000 [m]\n"},
      {[] { printArrayRow("shaders", 1024, 2048, "M bytes"); },
       "shaders       1024 [bytes]      2048      2.000 [M bytes]\n"},
      {[] { printArrayRow("shaders", 1024, 0, "M bytes"); }, ""},
      {[] { printBytesRow("photon sotred", 3 << 19); }, "photon sotred      1.500 [M bytes]\n"},
      // The values follow whatever notation the stream is in; a float row leaves it fixed at 3.
      {[] { printFloatValue(0, 3), printVec3Value(1.5f, 0.0f, -2.25f); },
       "     0.000 " + std::string(11, ' ') + " 1.500 -0.000 -2.250"},
      {[] { printProgress(25, 3.14159f); }, " 25[%]   3.14[M rays/s] \n"},
      {[] { printProgress(100, 123.456f); }, "100[%]  123.46[M rays/s] \n"},
      {[] { printWarning("object - there is no root object"); }, "warning :( object - there is no root object\n"},
      {[] { printError("bbvh - depth out of range"); }, "error :( bbvh - depth out of range\n"},
  };
  for (const auto& [print, expected] : cases) EXPECT_EQ(captureOutput(print), expected);
}

TEST(Report, ClockAdvancesInNanoseconds) {
  int64_t a = clockNanoseconds(), b = clockNanoseconds();
  EXPECT_LE(a, b);
  EXPECT_GT(a, 0);
}
