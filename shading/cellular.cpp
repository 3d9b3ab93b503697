#include "shading/cellular.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace {
// The multiply-xor term of the hash: the high half of one word against the low half of another.
uint32_t cross16(uint32_t high, uint32_t low) { return (0xFFFFu - (high >> 16)) * (low & 0xFFFFu); }

const int8_t noOffset[3] = {0, 0, 0};

// Offsets of the 26 neighbours: faces, edges, corners.
const int8_t neighbourOffsets[26][3] = {
    {1, 0, 0},   {-1, 0, 0}, {0, 1, 0},  {0, -1, 0},  {0, 0, 1},   {0, 0, -1},  {1, 1, 0},   {1, -1, 0},  {-1, 1, 0},
    {-1, -1, 0}, {0, 1, 1},  {0, 1, -1}, {0, -1, 1},  {0, -1, -1}, {1, 0, 1},   {1, 0, -1},  {-1, 0, 1},  {-1, 0, -1},
    {1, 1, 1},   {-1, 1, 1}, {1, -1, 1}, {-1, -1, 1}, {1, 1, -1},  {-1, 1, -1}, {1, -1, -1}, {-1, -1, -1}};

struct OuterOffsets {
  int8_t offset[54][3];
};

// Six groups of nine: two steps along one axis (z, y, x, then the same at -2),
// the other two running -1, 0, 1 with the first named one fastest.
constexpr OuterOffsets makeOuterOffsets() {
  OuterOffsets table{};
  const int axis[3] = {2, 1, 0}, fast[3] = {0, 0, 1}, slow[3] = {1, 2, 2};
  int n = 0;
  for (int group = 0; group < 6; ++group) {
    const int g = group % 3;
    for (int b = -1; b <= 1; ++b)
      for (int a = -1; a <= 1; ++a, ++n) {
        table.offset[n][axis[g]] = int8_t(group < 3 ? 2 : -2);
        table.offset[n][fast[g]] = int8_t(a);
        table.offset[n][slow[g]] = int8_t(b);
      }
  }
  return table;
}
constexpr OuterOffsets outerOffsets = makeOuterOffsets();

// A float coordinate to its cell; values beyond any sensible scene (and NaN)
// land on a far cell instead of overflowing the integer.
int32_t cellOf(float v) { return int32_t(std::fmin(std::fmax(std::floor(v), -1073741824.0f), 1073741824.0f)); }

FeaturePoint featurePoint(const int32_t cell[3], const int8_t* offset, uint32_t seed) {
  int32_t c[3];
  for (int k = 0; k < 3; ++k) c[k] = cell[k] + offset[k];
  FeaturePoint point;
  cellHash(uint32_t(c[0]), uint32_t(c[1]), uint32_t(c[2]), seed, point.hash);
  point.place = {float(c[0]) + point.hash[0], float(c[1]) + point.hash[1], float(c[2]) + point.hash[2]};
  return point;
}
}  // namespace

void cellHashWords(uint32_t x, uint32_t y, uint32_t z, uint32_t seed, uint32_t out[4]) {
  using std::rotl, std::rotr;
  const uint32_t a = x ^ 0x0124FDCEu, b = y ^ 0x89AB57EAu, c = z ^ 0xBA89370Au, d = seed ^ 0xFEDC45EFu;
  uint32_t A = (rotr(d, 1) ^ rotl(c, 1) ^ cross16(b, a)) ^ 0x401AB257u;
  uint32_t B = (rotl(d, 2) ^ rotr(a, 2) ^ cross16(c, b)) ^ 0xB7CD34E1u;
  uint32_t C = (rotr(b, 3) ^ rotl(a, 3) ^ cross16(d, c)) ^ 0x76B3A27Cu;
  uint32_t D = (rotr(c, 4) ^ rotl(b, 4) ^ cross16(a, d)) ^ 0xF13C3ADFu;
  out[0] = A ^ 0xE12F23CDu, out[1] = B ^ 0xC5AB6789u, out[2] = C ^ 0xF1234567u, out[3] = D ^ 0x9A8BC7EFu;
  for (int step = 0; step < 4; ++step) {
    const uint32_t a2 = rotr(D, 1) ^ rotl(C, 1) ^ cross16(B, A) ^ 0x401AB257u;
    const uint32_t b2 = rotr(A, 2) ^ rotl(D, 2) ^ cross16(C, B) ^ 0xB7CD34E1u;
    const uint32_t c2 = rotr(B, 3) ^ rotl(A, 3) ^ cross16(D, C) ^ 0x76B3A27Cu;
    const uint32_t d2 = rotr(C, 4) ^ rotl(B, 4) ^ cross16(A, D) ^ 0xF13C3ADFu;
    A = a2, B = b2, C = c2, D = d2;
    out[0] ^= A, out[1] ^= B, out[2] ^= C, out[3] ^= D;
  }
}

void cellHash(uint32_t x, uint32_t y, uint32_t z, uint32_t seed, float out[4]) {
  uint32_t words[4];
  cellHashWords(x, y, z, seed, words);
  for (int i = 0; i < 4; ++i) out[i] = float(words[i]) * 2.3283064e-10f;
}

float cellular(CellNoise& noise, Vec3f p, uint32_t seed, float feature[4]) {
  const int32_t cell[3] = {cellOf(p.x), cellOf(p.y), cellOf(p.z)};
  if (!noise.valid || noise.seed != seed || !std::equal(cell, cell + 3, noise.cell)) {
    noise.inner[0] = featurePoint(cell, noOffset, seed);
    for (int n = 0; n < 26; ++n) noise.inner[n + 1] = featurePoint(cell, neighbourOffsets[n], seed);
    std::copy(cell, cell + 3, noise.cell);
    noise.seed = seed;
    noise.valid = true;
    noise.outerValid = false;
  }
  // Squared distances decide the nearest point; the root is taken once at the end.
  const FeaturePoint* nearest = &noise.inner[0];
  float d2 = lengthSquared(nearest->place - p);
  for (int n = 1; n < 27; ++n) {
    const float dn = lengthSquared(noise.inner[n].place - p);
    if (dn < d2) d2 = dn, nearest = &noise.inner[n];
  }
  if (d2 >= 1) {
    if (!noise.outerValid) {
      for (int n = 0; n < 54; ++n) noise.outer[n] = featurePoint(cell, outerOffsets.offset[n], seed);
      noise.outerValid = true;
    }
    // The outer cells are measured at a running sum of their places, starting
    // from the last neighbour; that is the pattern scenes were made with.
    Vec3f running = noise.inner[26].place;
    for (const FeaturePoint& point : noise.outer) {
      running += point.place;
      const float dn = lengthSquared(running - p);
      if (dn < d2) d2 = dn, nearest = &point;
    }
  }
  std::copy(nearest->hash, nearest->hash + 4, feature);
  return std::fmin(std::sqrt(d2), 1.0f);
}

Vec3f goldenDirection(float t) {
  const float z = 1 - (2 * t + 1) / 1024;
  const float turns = 1.618034f * t - 1;
  const float phi = 6.2831855f * (turns - std::floor(turns));
  const float r = std::sqrt(std::fmax(1 - z * z, 0.0f));
  return {r * std::cos(phi), r * std::sin(phi), z};
}
