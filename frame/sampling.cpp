#include "frame/sampling.h"

#include <immintrin.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <vector>

const uint64_t Prime32[haltonDimensions] = {2,  3,  5,  7,  11, 13, 17, 19, 23, 29, 31,  37,  41,  43,  47,  53,
                                            59, 61, 67, 71, 73, 79, 83, 89, 97, 101, 103, 107, 109, 113, 127, 131};
uint32_t ScrambleTable[32][32];
float ExponentTable[256];

namespace {
std::vector<float> RadicalInverseTable[haltonDimensions];
}

float uniformRandom() {
  unsigned int value;
  // The success flag is deliberately not checked: the instruction is taken as reliable.
  (void)_rdrand32_step(&value);
  return float(value) * 2.3283064e-10f;
}

float radicalInverse(uint64_t index, uint64_t base) {
  // The order of these float operations is what the tables hold: keep it.
  float r = 0, step = 1.0f / float(base), inverse = 1.0f / float(base);
  while (index > 0) {
    r += float(index % base) * step;
    step *= inverse;
    index /= base;
  }
  return r;
}

float lookupRadicalInverse(uint32_t index, uint32_t dimension) {
  // Dimensions past the prime table wrap, so deep paths reuse bases instead of reading past it.
  dimension %= haltonDimensions;
  const std::vector<float>& table = RadicalInverseTable[dimension];
  if (index < table.size()) return table[index];
  return radicalInverse(index, Prime32[dimension]);
}

void samplePair(const SampleCursor& c, float& u1, float& u2) {
  const float unit = 1.5259022e-05f;
  u1 = lookupRadicalInverse(c.index, c.dimension) + float(c.scramble >> 16) * unit;
  if (u1 > 1) u1 -= 1;
  u2 = lookupRadicalInverse(c.index, c.dimension + 1) + float(c.scramble & 65535) * unit;
  if (u2 > 1) u2 -= 1;
}

namespace {
// One step of the search for the first entry above u within [first, first + count].
// It selects rather than branches: each step's way is a coin toss that a
// branch would mispredict half the time.
inline void searchStep(const float* cdf, float u, int& first, int& count) {
  const int half = count / 2;
  const int right = -int(!(cdf[first + half] > u));  // all ones to go right
  first += (half + 1) & right;
  count = half + ((count - 2 * half - 1) & right);
}

float pickProbability(const float* cdf, int first) { return first == 0 ? cdf[0] : cdf[first] - cdf[first - 1]; }
}  // namespace

int selectFromCdf(const float* cdf, int n, float u, float& probability) {
  int first = 0, count = n - 1;
  while (count > 0) searchStep(cdf, u, first, count);
  probability = pickProbability(cdf, first);
  return first;
}

void buildCdfGuide(const float* cdf, int n, CdfGuide& guide) {
  guide.first.clear();
  if (n < 2) return;
  for (int i = 0; i < n; ++i)
    if (!std::isfinite(cdf[i]) || (i > 0 && cdf[i] < cdf[i - 1])) return;
  // A power of two, so that u times it is exact and its whole part names the
  // bucket; about one entry a bucket.
  int buckets = 1;
  while (buckets < n && buckets < (1 << 24)) buckets *= 2;
  guide.first.resize(size_t(buckets) + 1);
  int i = 0;
  for (int b = 0; b <= buckets; ++b) {
    const float edge = float(b) / float(buckets);
    while (i < n - 1 && !(cdf[i] > edge)) ++i;
    guide.first[size_t(b)] = i;
  }
}

int selectFromCdf(const float* cdf, int n, const CdfGuide& guide, float u, float& probability) {
  const int buckets = int(guide.first.size()) - 1;
  const float x = u * float(buckets);
  // The answer only grows with u, so it lies between those of the bucket's edges.
  if (buckets < 1 || !(x >= 0 && x < float(buckets))) return selectFromCdf(cdf, n, u, probability);
  const int b = int(x);
  int first = guide.first[size_t(b)], count = guide.first[size_t(b) + 1] - first;
  while (count > 0) searchStep(cdf, u, first, count);
  probability = pickProbability(cdf, first);
  return first;
}

void buildOrthonormalBasis(Vec3f v, Vec3f& t, Vec3f& b) {
  Vec3f a{v.z, -v.x, v.y};
  b = normalize(cross(v, a));
  t = cross(b, v);
}

void fillExponentTable() {
  for (int e = 0; e < 256; ++e) ExponentTable[e] = std::ldexp(1.0f, e - 136);
}

void buildNumberTables() {
  std::srand(unsigned(std::time(nullptr)));
#pragma omp parallel for schedule(static)
  for (int d = 0; d < haltonDimensions; ++d) {
    RadicalInverseTable[d].resize(haltonTableSize);
    for (int i = 0; i < haltonTableSize; ++i) RadicalInverseTable[d][i] = radicalInverse(i, Prime32[d]);
  }
  // Only the float's 24 bits survive the scaling: the low bits of each word are zero by design.
  for (auto& row : ScrambleTable)
    for (uint32_t& word : row) word = uint32_t(int64_t(uniformRandom() * 4294967296.0f));
}

void releaseNumberTables() {
  // An empty table sends lookups to the direct computation, so a stray use stays defined.
  for (auto& table : RadicalInverseTable) table.clear();
}

bool numberTablesBuilt() { return !RadicalInverseTable[0].empty(); }
