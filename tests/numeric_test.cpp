#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <set>
#include <vector>

#include "frame/sampling.h"
#include "frame/vec.h"
#include "tests/test_util.h"

extern uint32_t permutationTable[512];

class Numbers : public testing::Test {
 protected:
  static void SetUpTestSuite() { quietStartup(); }
};

TEST_F(Numbers, RadicalInverseKnownValuesAndItsTables) {
  for (uint64_t base : {2, 3, 5, 131}) EXPECT_EQ(radicalInverse(0, base), 0.0f);
  EXPECT_EQ(radicalInverse(1, 2), 0.5f);
  EXPECT_EQ(radicalInverse(3, 2), 0.75f);
  EXPECT_EQ(radicalInverse(1, 3), 1.0f / 3.0f);
  // 5 is "12" in base 3, mirrored to 0.21: digits added in this float order.
  const float third = 1.0f / 3.0f;
  EXPECT_EQ(radicalInverse(5, 3), 2 * third + 1 * (third * third));
  // The tables agree with the direct form.
  for (uint32_t d = 0; d < 32; ++d)
    for (uint32_t i : {0u, 1u, 7u, 1000u, 2047u}) EXPECT_EQ(lookupRadicalInverse(i, d), radicalInverse(i, Prime32[d]));
  // Past the table the direct form takes over, and dimensions wrap instead of reading past the primes.
  EXPECT_EQ(lookupRadicalInverse(5000, 4), radicalInverse(5000, 11));
  EXPECT_EQ(lookupRadicalInverse(9, 33), radicalInverse(9, 3));
}

TEST_F(Numbers, SamplePairScrambles) {
  float u1, u2;
  samplePair(SampleCursor{5, 0, 0}, u1, u2);
  EXPECT_EQ(u1, radicalInverse(5, 2));
  EXPECT_EQ(u2, radicalInverse(5, 3));
  // Adding 65535/65535 in float gives back the value plus one, wrapped by one subtraction.
  samplePair(SampleCursor{5, 2, 0xFFFFFFFFu}, u1, u2);
  const float k = 65535 * 1.5259022e-05f;
  float e1 = radicalInverse(5, 5) + k, e2 = radicalInverse(5, 7) + k;
  EXPECT_EQ(u1, e1 > 1 ? e1 - 1 : e1);
  EXPECT_EQ(u2, e2 > 1 ? e2 - 1 : e2);
  samplePair(SampleCursor{1, 0, 0x80000000u}, u1, u2);
  EXPECT_NEAR(u1, 0.5f + 32768 * 1.5259022e-05f - 1, 1e-6);
}

TEST_F(Numbers, SelectFromCdf) {
  const float one[1] = {1.0f};
  float p;
  EXPECT_EQ(selectFromCdf(one, 1, 0.7f, p), 0);
  EXPECT_EQ(p, 1.0f);
  const float cdf[4] = {0.1f, 0.4f, 0.4f, 1.0f};
  EXPECT_EQ(selectFromCdf(cdf, 4, 0.0f, p), 0);
  EXPECT_FLOAT_EQ(p, 0.1f);
  EXPECT_EQ(selectFromCdf(cdf, 4, 0.1f, p), 1);  // not above u: move on
  EXPECT_FLOAT_EQ(p, 0.3f);
  EXPECT_EQ(selectFromCdf(cdf, 4, 0.4f, p), 3);  // the empty bin is never picked
  EXPECT_FLOAT_EQ(p, 0.6f);
  EXPECT_EQ(selectFromCdf(cdf, 4, 1.5f, p), 3);

  // The plain branching search is the rule; the single and guided forms give
  // its answers, on steps of equal entries, on a table whose mass sits in a
  // few entries, and on one broken by a NaN, where the probes decide.
  auto plain = [](const std::vector<float>& c, float u) {
    int first = 0, count = int(c.size()) - 1;
    while (count > 0) {
      const int half = count / 2;
      if (!(c[size_t(first + half)] > u)) first += half + 1, count -= half + 1;
      else count = half;
    }
    return first;
  };
  std::vector<float> steps, skewed;
  for (int i = 0; i < 1000; ++i) steps.push_back(float(i / 3) / 333.0f);
  for (int i = 0; i < 777; ++i) skewed.push_back(i < 700 ? float(i) * 1e-6f : 1 - float(776 - i) / 80.0f);
  std::vector<float> us = {0.0f, 1.0f, -0.0f, std::nextafter(1.0f, 0.0f), std::nanf(""), 2.0f, -1e-9f};
  for (int i = 0; i < 203; ++i) us.push_back(float(i) / 200.0f - 0.005f);
  for (float c : steps) us.push_back(c), us.push_back(std::nextafter(c, 0.0f));
  for (float c : skewed) us.push_back(c);
  for (const bool broken : {false, true})
    for (std::vector<float> table : {steps, skewed}) {
      if (broken) table[517] = std::nanf("");
      CdfGuide guide;
      buildCdfGuide(table.data(), int(table.size()), guide);
      EXPECT_EQ(guide.first.empty(), broken);
      for (const float u : us) {
        float q;
        EXPECT_EQ(selectFromCdf(table.data(), int(table.size()), u, p), plain(table, u)) << u;
        EXPECT_EQ(selectFromCdf(table.data(), int(table.size()), guide, u, q), plain(table, u)) << u;
        EXPECT_TRUE(p == q || (std::isnan(p) && std::isnan(q)));
      }
    }
}

TEST_F(Numbers, UniformRandomStaysInUnitRangeAndTheTablesHoldTheirValues) {
  double sum = 0;
  const int n = 100000;
  for (int i = 0; i < n; ++i) {
    float u = uniformRandom();
    ASSERT_GE(u, 0.0f);
    ASSERT_LE(u, 1.0f);
    sum += u;
  }
  EXPECT_NEAR(sum / n, 0.5, 0.01);

  std::set<uint32_t> distinct;
  for (auto& row : ScrambleTable)
    for (uint32_t word : row) {
      // A float carries 24 significant bits: no word spans more than that.
      if (word) {
        EXPECT_LT(word >> std::countr_zero(word), 1u << 24);
      }
      distinct.insert(word);
    }
  EXPECT_GT(distinct.size(), 1000u);
  EXPECT_EQ(ExponentTable[136], 1.0f);
  EXPECT_EQ(ExponentTable[128], 1.0f / 256);
  EXPECT_EQ(ExponentTable[0], std::ldexp(1.0f, -136));
  std::set<uint32_t> values(permutationTable, permutationTable + 256);
  EXPECT_EQ(values.size(), 256u);
  EXPECT_EQ(*values.rbegin(), 255u);
  for (int i = 0; i < 256; ++i) EXPECT_EQ(permutationTable[i], permutationTable[i + 256]);
  EXPECT_EQ(permutationTable[0], 151u);
}

TEST(Vectors, NormalizeAndBasis) {
  Vec3f z = normalize(Vec3f{0, 0, 0});
  EXPECT_EQ(z, zeroVector);
  Vec3f n = normalize(Vec3f{3, 4, 12});
  EXPECT_NEAR(length(n), 1.0f, 1e-6);
  for (Vec3f v : {Vec3f{0, 0, 1}, Vec3f{1, 0, 0}, normalize(Vec3f{-1, 2, 0.5f}), normalize(Vec3f{1, 1, 1})}) {
    Vec3f t, b;
    buildOrthonormalBasis(v, t, b);
    EXPECT_NEAR(length(t), 1, 1e-5);
    EXPECT_NEAR(length(b), 1, 1e-5);
    EXPECT_NEAR(dot(t, v), 0, 1e-5);
    EXPECT_NEAR(dot(b, v), 0, 1e-5);
    EXPECT_NEAR(dot(t, b), 0, 1e-5);
    // Right-handed: t x b points along v.
    EXPECT_NEAR(dot(cross(t, b), v), 1, 1e-5);
  }
}

TEST(Vectors, MatrixInverseAndPointTransform) {
  Matrix4f m;
  const float values[16] = {2, 0, 1, 3, 0, 1, 0, -2, 1, 0, 3, 5, 0, 0, 0, 1};
  std::copy(values, values + 16, m.m);
  Matrix4f product = m * inverse(m);
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j) EXPECT_NEAR(product(i, j), i == j ? 1 : 0, 1e-5);
  Vec3f p = transformPoint(m, {1, 2, 3});
  EXPECT_EQ(p, (Vec3f{8, 0, 15}));
  // The homogeneous divide is always taken.
  m(3, 3) = 2;
  EXPECT_EQ(transformPoint(m, {1, 2, 3}), (Vec3f{4, 0, 7.5f}));
  // A singular matrix gives non-finite values rather than a guess.
  Matrix4f zero;
  std::fill(zero.m, zero.m + 16, 0.0f);
  EXPECT_FALSE(std::isfinite(inverse(zero).m[0]));
}
