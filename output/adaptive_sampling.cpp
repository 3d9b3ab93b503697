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
  pixelNoise.converged.assign(count, 0);
  pixelNoise.stopped.assign(count, 0);
}

void freePixelNoise() { pixelNoise = PixelNoise{}; }

float relativeError(float m, float m2, int n) {
  if (n < 2) return infinity;
  const float variance = std::fmax(m2 - m * m, 0.0f) * float(n) / float(n - 1);
  return std::sqrt(variance / float(n)) / std::fmax(std::fabs(m), 0.01f);
}

void addToPixelNoise(int64_t p, Color3f mean, Color3f L, int pass) {
  const float s = (L.r + L.g + L.b) * (1.0f / 3);
  float& m2 = pixelNoise.second_moment[size_t(p)];
  m2 = (float(pass) * m2 + s * s) * (1.0f / float(pass + 1));
  pixelNoise.passes[size_t(p)] = uint16_t(pass + 1);
  const int n = pass + 1;
  pixelNoise.converged[size_t(p)] =
      n >= std::max(renderer.min_passes, 2) &&
      relativeError((mean.r + mean.g + mean.b) * (1.0f / 3), m2, n) < renderer.noise_threshold;
}

int64_t settlePixelNoise(const Region& region, int width) {
  // A stopped pixel is not traced again, so its flag stays converged.
  const auto done = [&](int x, int y) { return pixelNoise.converged[size_t(int64_t(y) * width + x)] != 0; };
  int64_t active = 0;
#pragma omp parallel for reduction(+ : active)
  for (int y = region.min_y; y < region.max_y; ++y)
    for (int x = region.min_x; x < region.max_x; ++x) {
      uint8_t& stopped = pixelNoise.stopped[size_t(int64_t(y) * width + x)];
      if (stopped) continue;
      bool all = true;
      for (int v = std::max(y - 1, region.min_y); v <= std::min(y + 1, region.max_y - 1) && all; ++v)
        for (int u = std::max(x - 1, region.min_x); u <= std::min(x + 1, region.max_x - 1) && all; ++u)
          all = done(u, v);
      stopped = all;
      active += !all;
    }
  return active;
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
