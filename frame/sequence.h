// The sampler: where a path's numbers come from. The random sampler reads the
// hardware source and the Halton tables; the sobol sampler reads one
// Owen-scrambled Sobol sequence per pixel, seeded, so that a render can be
// made again bit for bit and its passes are strata of one sequence.
#pragma once

#include <cstdint>

#include "frame/renderer.h"
#include "frame/sampling.h"

enum SamplerKind : uint8_t { samplerRandom = 0, samplerSobol = 1 };

// What a number decides. In the sobol sampler each decision of a bounce has
// dimensions of its own; the random sampler keeps one pair of Halton bases per
// bounce for all of them. The lobes use their event numbers (3 to 8).
enum Decision : uint32_t {
  decidePixel = 0,
  decideLens = 1,
  decideTime = 2,
  decideLightPoint = 9,
  decideGeometryPick = 10,
  decideSkyCell = 11,
  decideVolumeDistance = 12,
  decideVolumeDirection = 13,
  decideHairLobe = 14,
  decideHairChoice = 15,
  decideFibreOffset = 16,
  decidePhotonDirection = 17,
  decidePhotonOrigin = 18,
};
constexpr uint32_t decisionsPerBounce = 32;

inline uint32_t reverseBits(uint32_t v) {
  v = __builtin_bswap32(v);
  v = ((v >> 4) & 0x0F0F0F0Fu) | ((v & 0x0F0F0F0Fu) << 4);
  v = ((v >> 2) & 0x33333333u) | ((v & 0x33333333u) << 2);
  return ((v >> 1) & 0x55555555u) | ((v & 0x55555555u) << 1);
}
// A bijection of 32-bit words in which each bit depends on those above it
// only: a hashed nested uniform scramble (Owen scramble) of a binary fraction.
uint32_t owenScramble(uint32_t v, uint32_t seed);
uint32_t hashWords(uint32_t a, uint32_t b);

// The two-dimensional Sobol point `index`, as binary fractions.
void sobolWords(uint32_t index, uint32_t& x, uint32_t& y);
// Point `index` of the padded sequence of `dimension`: the index shuffled and
// both coordinates scrambled, all by hashes of (scramble, dimension). Any
// power-of-two run of consecutive indices from 0 keeps its stratification.
void sobolPair(const SampleCursor& cursor, float& u1, float& u2);
float sobolNumber(const SampleCursor& cursor);

// The scramble of a pixel's sequence: the seed hashed with the pixel.
uint32_t pixelScramble(uint32_t seed, uint32_t pixel);

// The cursor of one decision of a path whose own cursor is `path` after
// `bounces` segments.
inline SampleCursor decisionCursor(const SampleCursor& path, uint32_t bounces, uint32_t index, uint32_t decision) {
  if (renderer.sampler == samplerRandom) return {index, path.dimension, path.scramble};
  return {index, bounces * decisionsPerBounce + decision, path.scramble};
}

// A pair from the cursor in the renderer's sampler.
inline void drawPair(const SampleCursor& cursor, float& u1, float& u2) {
  if (renderer.sampler == samplerRandom)
    samplePair(cursor, u1, u2);
  else
    sobolPair(cursor, u1, u2);
}

// One number for a decision the random sampler takes from the hardware source.
inline float drawNumber(const SampleCursor& cursor) {
  return renderer.sampler == samplerRandom ? uniformRandom() : sobolNumber(cursor);
}

// Two numbers of one decision: a pair of the sequence, or two hardware numbers.
inline void drawTwo(const SampleCursor& cursor, float& u1, float& u2) {
  if (renderer.sampler == samplerRandom) {
    u1 = uniformRandom();
    u2 = uniformRandom();
  } else {
    sobolPair(cursor, u1, u2);
  }
}

// The scramble of the photons' sequence: 0 (plain Halton) in the random
// sampler, the seed hashed in the sobol one.
inline uint32_t photonScramble() {
  return renderer.sampler == samplerRandom ? 0 : hashWords(renderer.seed, 0x70686f74u);
}
// Two emission numbers of photon `index`: u1 and u2 stay as the random sampler
// has them; the sobol sampler puts a pair of its seeded sequence for the
// emitter's `decision` in their place.
inline void emissionPair(uint64_t index, uint32_t decision, float& u1, float& u2) {
  if (renderer.sampler != samplerRandom) sobolPair({uint32_t(index), decision, photonScramble()}, u1, u2);
}

// Decisions that draw as many numbers as they need (probes, cut-outs, texel
// picks) read a stream: the hardware source, or in the sobol sampler a hash
// of the sample and a running count, restarted for each pixel sample and
// photon. Each thread keeps its own stream.
void startLooseStream(uint32_t scramble, uint32_t index);
float drawLoose();
