#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "shading/slope_tables.h"
#include "tests/test_util.h"

namespace {
constexpr float halfPi = 1.5707964f;
// Width of one slope cell; a row's sums include their right end, so every
// tabulated slope sits half a cell below the exact quantile.
constexpr double cell = 32.0 / 511.0;

double probabilityOfColumn(int j) { return j * 0.9999998 / 511 + 1e-7; }

class SlopeTables : public testing::Test {
 protected:
  static void SetUpTestSuite() { quietStartup(); }
};
}  // namespace

TEST_F(SlopeTables, StartupFillsEveryRowMonotonically) {
  for (const SlopeTable* table : {&beckmannSlopeX, &beckmannSlopeY, &ggxSlopeX, &ggxSlopeY}) {
    for (int i = 0; i < slopeTableSize; ++i) {
      const float* row = table->value[i];
      // Only the Beckmann y table has rows far enough out for all weights to underflow.
      if (row[0] == 0 && row[slopeTableSize - 1] == 0) {
        ASSERT_EQ(table, &beckmannSlopeY);
        ASSERT_GT(std::fabs(i * cell - 16), 10.0) << "row " << i;
        continue;
      }
      for (int j = 0; j < slopeTableSize; ++j) {
        ASSERT_TRUE(std::isfinite(row[j]));
        ASSERT_GE(row[j], -16.0f);
        ASSERT_LE(row[j], 16.0f);
        if (j > 0) {
          ASSERT_GE(row[j], row[j - 1]) << "row " << i << " column " << j;
        }
      }
      EXPECT_LT(row[0], row[slopeTableSize - 1]);
    }
  }
}

TEST_F(SlopeTables, BeckmannRowsInvertTheGaussian) {
  // Seen head-on every facet is visible, so both tables hold the quantiles of exp(-s^2).
  for (int j = 8; j < slopeTableSize - 8; ++j) {
    double u = probabilityOfColumn(j);
    double exact = 0.5 * (1 + std::erf(beckmannSlopeY.value[255][j] + 0.5 * cell));
    ASSERT_NEAR(exact, u, 2e-3) << j;
    ASSERT_NEAR(beckmannSlopeX.value[0][j], beckmannSlopeY.value[300][j], 1e-4) << j;
  }
}

TEST_F(SlopeTables, GrazingBeckmannRowSeesOnlyFacetsTurnedToTheViewer) {
  // At theta = pi/2 the weight is -x exp(-x^2) for x < 0, whose distribution is exp(-x^2).
  const float* row = beckmannSlopeX.value[slopeTableSize - 1];
  for (int j = 8; j < slopeTableSize - 8; ++j) {
    ASSERT_LE(row[j], 0.0f);
    ASSERT_NEAR(std::exp(-std::pow(row[j] + 0.5 * cell, 2)), probabilityOfColumn(j), 3e-3) << j;
  }
}

TEST_F(SlopeTables, GgxMiddleRowInvertsItsDistribution) {
  // Row 256 is slope x = 0.03; its y weight 1 / (1 + x^2 + y^2)^2 has a closed-form integral.
  double a2 = 1 + std::pow(256 * cell - 16, 2), a = std::sqrt(a2);
  auto primitive = [&](double y) { return (y / (a2 + y * y) + std::atan(y / a) / a) / (2 * a2); };
  double total = primitive(16) - primitive(-16);
  for (int j = 8; j < slopeTableSize - 8; ++j) {
    double exact = (primitive(ggxSlopeY.value[256][j] + 0.5 * cell) - primitive(-16)) / total;
    ASSERT_NEAR(exact, probabilityOfColumn(j), 3e-3) << j;
  }
  // The visible-slope table differs from its y table: grazing rows lean towards negative slopes.
  EXPECT_LT(ggxSlopeX.value[400][256], ggxSlopeX.value[0][256] - 0.2f);
}

TEST_F(SlopeTables, LookupIsBilinearAndKeepsToTheBorder) {
  const auto& v = beckmannSlopeX.value;
  float theta = 100 * halfPi / 511, u = 200.0f / 511;
  EXPECT_NEAR(lookupSlopeX(beckmannSlopeX, theta, u), v[100][200], 1e-5);
  float mid = lookupSlopeX(beckmannSlopeX, 100.5f * halfPi / 511, 200.5f / 511);
  EXPECT_NEAR(mid, 0.25f * (v[100][200] + v[100][201] + v[101][200] + v[101][201]), 1e-5);
  // Slope x = 0 is half-way between rows 255 and 256 of the y table.
  const auto& y = beckmannSlopeY.value;
  EXPECT_NEAR(lookupSlopeY(beckmannSlopeY, 0, 0.25f), 0.5f * (y[255][127] + y[256][127]) * 0.25f +
                                                           0.5f * (y[255][128] + y[256][128]) * 0.75f,
              1e-5);
  // Angles past the table, probabilities out of range and NaN read the border rows.
  EXPECT_EQ(lookupSlopeX(beckmannSlopeX, 3.0f, 1.0f), v[511][511]);
  EXPECT_EQ(lookupSlopeX(beckmannSlopeX, std::numeric_limits<float>::quiet_NaN(), -2.0f), v[0][0]);
  EXPECT_EQ(lookupSlopeY(beckmannSlopeY, 40.0f, 0.0f), y[511][0]);
}
