// Adaptive sampling: beside each beauty pixel's running mean, the running mean
// of its squared samples, from which the pixel's noise is judged; a pixel
// whose mean is known well enough, and whose neighbours' are too, stops taking
// passes and keeps its value.
#pragma once

#include <cstdint>
#include <vector>

#include "frame/vec.h"
#include "output/camera.h"

struct PixelNoise {
  std::vector<float> second_moment;  // running mean of the squared channel mean of each sample
  std::vector<uint16_t> passes;      // passes each pixel took
  std::vector<uint8_t> converged;    // 1 while a pixel's own error is below the threshold
  std::vector<uint8_t> stopped;      // 1 once a pixel takes no more passes
  int64_t active = 0;                // pixels of the region still taking passes
};

extern PixelNoise pixelNoise;

// Sizes the buffers for the camera when a noise threshold is set, and clears them.
void preparePixelNoise(const Camera& camera);
void freePixelNoise();
bool adaptiveSampling();
inline bool pixelActive(int64_t p) { return !adaptiveSampling() || !pixelNoise.stopped[size_t(p)]; }
// The relative standard error of a mean of n samples whose mean is m and
// whose squares have the mean m2. Below a mean of 0.01 the error is taken
// against 0.01, so that nearly black pixels are not chased for ever.
float relativeError(float m, float m2, int n);
// Counts sample L of pass `pass` into pixel p's noise and judges it: converged
// when its relative error is below the threshold after the minimum of passes.
void addToPixelNoise(int64_t p, Color3f mean, Color3f L, int pass);
// After a pass: a pixel stops when it and every neighbour in the region have
// converged. One estimate from a few samples is itself noisy; asking the
// neighbours too keeps a pixel whose samples happened to agree from stopping
// in a noisy patch. Returns the pixels still active.
int64_t settlePixelNoise(const Region& region, int width);
// After a render that ended early, or pixels that stopped early, the outputs
// that add up a share of every pass (all but the beauty, and the lights')
// are scaled up to what the planned passes would have given.
void completeAOVs(std::vector<CameraAOV>& aovs, size_t first, int planned, int passes);
