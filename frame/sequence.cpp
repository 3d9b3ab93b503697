#include "frame/sequence.h"

namespace {
// The upper 24 bits as a float in [0, 1): exact, and never 1.
float unitFloat(uint32_t bits) { return float(bits >> 8) * 0x1p-24f; }

thread_local uint32_t looseKey = 0, looseCount = 0;
}  // namespace

uint32_t reverseBits(uint32_t v) {
  v = ((v >> 1) & 0x55555555u) | ((v & 0x55555555u) << 1);
  v = ((v >> 2) & 0x33333333u) | ((v & 0x33333333u) << 2);
  v = ((v >> 4) & 0x0F0F0F0Fu) | ((v & 0x0F0F0F0Fu) << 4);
  v = ((v >> 8) & 0x00FF00FFu) | ((v & 0x00FF00FFu) << 8);
  return (v >> 16) | (v << 16);
}

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
  // The second dimension's direction numbers: v1 = 1/2, v(k+1) = v(k) xor v(k) / 2.
  y = 0;
  for (uint32_t v = 0x80000000u; index != 0; index >>= 1, v ^= v >> 1)
    if (index & 1) y ^= v;
}

void sobolPair(const SampleCursor& cursor, float& u1, float& u2) {
  const uint32_t seed = hashWords(cursor.scramble, cursor.dimension);
  uint32_t x, y;
  sobolWords(owenScramble(cursor.index, seed), x, y);
  u1 = unitFloat(owenScramble(x, hashWords(seed, 1)));
  u2 = unitFloat(owenScramble(y, hashWords(seed, 2)));
}

float sobolNumber(const SampleCursor& cursor) {
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
