// The renderer's two number sources: hardware random numbers for anything
// that may be uncorrelated, and a scrambled Halton sequence for bounces.
// Neither keeps per-thread state.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/vec.h"

// Per-thread arrays are indexed by the runtime's thread number up to this bound.
constexpr int maxThreads = 256;

constexpr int haltonDimensions = 32;
constexpr int haltonTableSize = 2048;

struct SampleCursor {
  uint32_t index = 0;
  uint32_t dimension = 0;
  uint32_t scramble = 0;
};

extern const uint64_t Prime32[haltonDimensions];
extern uint32_t ScrambleTable[32][32];
extern float ExponentTable[256];

// A float in [0, 1] from RDRAND; 1 itself can come out of the rounding.
float uniformRandom();
float radicalInverse(uint64_t index, uint64_t base);
float lookupRadicalInverse(uint32_t index, uint32_t dimension);
void samplePair(const SampleCursor& cursor, float& u1, float& u2);
// Index of the first of n ascending cdf entries above u; probability of that pick.
int selectFromCdf(const float* cdf, int n, float u, float& probability);

// Where the search of a large cdf may start and end: entry b holds the answer
// for u = b / (entries - 1), so that a u between two entries is searched
// between their answers only. Empty when the cdf is not ascending and finite;
// the whole table is searched then.
struct CdfGuide {
  std::vector<int> first;
};
void buildCdfGuide(const float* cdf, int n, CdfGuide& guide);
// The same answers as the whole search, in a few steps.
int selectFromCdf(const float* cdf, int n, const CdfGuide& guide, float u, float& probability);
void buildOrthonormalBasis(Vec3f v, Vec3f& t, Vec3f& b);

void fillExponentTable();
// Fills the Halton tables in parallel and the per-pixel scramble words.
void buildNumberTables();
// Marks the Halton tables empty; they keep their memory until the next build.
void releaseNumberTables();
bool numberTablesBuilt();
