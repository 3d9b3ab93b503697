#include "output/adaptive_sampling.h"

#include <algorithm>
#include <cmath>

#include "frame/renderer.h"

PixelNoise pixelNoise;

bool adaptiveSampling() { return renderer.noise_threshold > 0 && !pixelNoise.passes.empty(); }

void preparePixelNoise(const Camera& camera) {
  freePixelNoise();
  if (!(renderer.noise_threshold > 0) || camera.width <= 0 || camera.height <= 0) return;
  const size_t count = size_t(camera.width) * size_t(camera.height);
  pixelNoise.second_moment.assign(count, 0.0f);
  pixelNoise.passes.assign(count, 0);
  pixelNoise.stopped.assign(count, 0);
}

void freePixelNoise() { pixelNoise = PixelNoise{}; }

float relativeError(float m, float m2, int n) {
  if (n < 2) return infinity;
  const float variance = std::fmax(m2 - m * m, 0.0f) * float(n) / float(n - 1);
  return std::sqrt(variance / float(n)) / std::fmax(std::fabs(m), 0.01f);
}

bool addToPixelNoise(int64_t p, Color3f mean, Color3f L, int pass) {
  const float s = (L.r + L.g + L.b) * (1.0f / 3);
  float& m2 = pixelNoise.second_moment[size_t(p)];
  m2 = (float(pass) * m2 + s * s) * (1.0f / float(pass + 1));
  pixelNoise.passes[size_t(p)] = uint16_t(pass + 1);
  const int n = pass + 1;
  if (n < std::max(renderer.min_passes, 2)) return true;
  const bool done = relativeError((mean.r + mean.g + mean.b) * (1.0f / 3), m2, n) < renderer.noise_threshold;
  pixelNoise.stopped[size_t(p)] = done;
  return !done;
}

void completeAOVs(std::vector<CameraAOV>& aovs, size_t first, int planned, int passes) {
  const bool perPixel = adaptiveSampling();
  if (!perPixel && passes >= planned) return;
  for (size_t a = first; a < aovs.size(); ++a) {
    Image& image = aovs[a].image;
    const size_t channels = size_t(std::max(image.channels, 1));
    const size_t pixels = image.floats.size() / channels;
    for (size_t p = 0; p < pixels; ++p) {
      const int taken = perPixel && p < pixelNoise.passes.size() ? pixelNoise.passes[p] : passes;
      if (taken <= 0 || taken >= planned) continue;
      const float scale = float(planned) / float(taken);
      for (size_t c = 0; c < channels; ++c) image.floats[p * channels + c] *= scale;
    }
  }
}
