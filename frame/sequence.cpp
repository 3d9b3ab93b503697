#include "frame/sequence.h"

namespace {
// The upper 24 bits as a float in [0, 1): exact, and never 1.
float unitFloat(uint32_t bits) { return float(bits >> 8) * 0x1p-24f; }

thread_local uint32_t looseKey = 0, looseCount = 0;

// Direction numbers of the first five Sobol dimensions, from their primitive
// polynomials (degree s, coefficients a) and initial numbers m, kept as the
// xor of the numbers that each byte of the index selects: a point costs four
// loads a dimension, whatever its index.
constexpr int jointDimensions = 5;
struct SobolTables {
  uint32_t bytes[jointDimensions][4][256];
  SobolTables() {
    struct Polynomial {
      int s;
      uint32_t a, m[3];
    };
    const Polynomial polynomials[jointDimensions - 1] = {{1, 0, {1}}, {2, 1, {1, 3}}, {3, 1, {1, 3, 1}}, {3, 2, {1, 1, 1}}};
    uint32_t v[jointDimensions][32];
    for (int k = 0; k < 32; ++k) v[0][k] = 1u << (31 - k);
    for (int d = 1; d < jointDimensions; ++d) {
      const Polynomial& p = polynomials[d - 1];
      for (int k = 0; k < 32; ++k) {
        if (k < p.s) {
          v[d][k] = p.m[k] << (31 - k);
          continue;
        }
        uint32_t x = v[d][k - p.s] ^ (v[d][k - p.s] >> p.s);
        for (int i = 1; i < p.s; ++i)
          if ((p.a >> (p.s - 1 - i)) & 1) x ^= v[d][k - i];
        v[d][k] = x;
      }
    }
    for (int d = 0; d < jointDimensions; ++d)
      for (int b = 0; b < 4; ++b)
        for (uint32_t byte = 0; byte < 256; ++byte) {
          uint32_t r = 0;
          for (int k = 0; k < 8; ++k)
            if ((byte >> k) & 1) r ^= v[d][8 * b + k];
          bytes[d][b][byte] = r;
        }
  }
};
const SobolTables sobolTables;

uint32_t sobolWord(uint32_t index, int dimension) {
  const auto& t = sobolTables.bytes[dimension];
  return t[0][index & 0xff] ^ t[1][(index >> 8) & 0xff] ^ t[2][(index >> 16) & 0xff] ^ t[3][index >> 24];
}

// The first decisions of a camera path share one five-dimensional Sobol point,
// so that pixel position, light sample and bounce are stratified together:
// pixel position (0, 1), the light pick or light pair (2, 3), the first
// bounce's direction (3, 4). The others take padded pairs. -1: no joint dimension.
int jointDimension(uint32_t key) {
  switch (key) {
    case decidePixel: return 0;
    case decideGeometryPick:
    case decideLightPoint:
    case decideSkyCell: return 2;
    case 3: case 4: case 5: case 6: case 7: case 8: return 3;
    default: return -1;
  }
}

// Both numbers from the joint point: the index shuffled and each dimension
// scrambled by hashes of the pixel's scramble alone.
void jointPair(const SampleCursor& c, int dimension, uint32_t& x, uint32_t& y) {
  const uint32_t seed = hashWords(c.scramble, 0x6a6f696eu);
  const uint32_t index = owenScramble(c.index, seed);
  x = owenScramble(sobolWord(index, dimension), hashWords(seed, uint32_t(dimension)));
  y = owenScramble(sobolWord(index, dimension + 1), hashWords(seed, uint32_t(dimension + 1)));
}
}  // namespace

uint32_t owenScramble(uint32_t v, uint32_t seed) {
  // Reversed, each step carries from low bits to high ones only, so that a
  // digit of the fraction depends on the digits before it.
  v = reverseBits(v);
  v ^= v * 0x3d20adeau;
  v += seed;
  v *= (seed >> 16) | 1u;
  v ^= v * 0x05526c56u;
  v ^= v * 0x53a22864u;
  return reverseBits(v);
}

uint32_t hashWords(uint32_t a, uint32_t b) {
  uint32_t x = a ^ (b * 0x9e3779b9u + 0x7f4a7c15u);
  x ^= x >> 16;
  x *= 0x21f0aaadu;
  x ^= x >> 15;
  x *= 0x735a2d97u;
  x ^= x >> 15;
  return x;
}

void sobolWords(uint32_t index, uint32_t& x, uint32_t& y) {
  x = reverseBits(index);
  y = sobolWord(index, 1);
}

void sobolPair(const SampleCursor& cursor, float& u1, float& u2) {
  if (const int joint = jointDimension(cursor.dimension); joint >= 0) {
    uint32_t x, y;
    jointPair(cursor, joint, x, y);
    u1 = unitFloat(x), u2 = unitFloat(y);
    return;
  }
  const uint32_t seed = hashWords(cursor.scramble, cursor.dimension);
  uint32_t x, y;
  sobolWords(owenScramble(cursor.index, seed), x, y);
  u1 = unitFloat(owenScramble(x, hashWords(seed, 1)));
  u2 = unitFloat(owenScramble(y, hashWords(seed, 2)));
}

float sobolNumber(const SampleCursor& cursor) {
  if (const int joint = jointDimension(cursor.dimension); joint >= 0) {
    uint32_t x, y;
    jointPair(cursor, joint, x, y);
    return unitFloat(x);
  }
  const uint32_t seed = hashWords(cursor.scramble, cursor.dimension);
  return unitFloat(owenScramble(reverseBits(owenScramble(cursor.index, seed)), hashWords(seed, 1)));
}

uint32_t pixelScramble(uint32_t seed, uint32_t pixel) { return hashWords(hashWords(seed, 0x51ed270bu), pixel); }

void startLooseStream(uint32_t scramble, uint32_t index) {
  looseKey = hashWords(scramble, index);
  looseCount = 0;
}

float drawLoose() {
  if (renderer.sampler == samplerRandom) return uniformRandom();
  return unitFloat(hashWords(looseKey, looseCount++));
}
