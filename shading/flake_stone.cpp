#include "shading/flake_stone.h"

#include <omp.h>

#include <algorithm>
#include <bit>
#include <cmath>

#include "frame/sampling.h"
#include "frame/scene_file.h"
#include "shading/cellular.h"

namespace {
// The last lookup of one thread for one layer kind, and that thread's noise state.
struct alignas(64) LayerCache {
  bool valid = false;
  int32_t id = 0;
  Vec3f position;
  Vec3f result;
  CellNoise noise;
};

LayerCache flakeCaches[maxThreads];
LayerCache stoneCaches[maxThreads];

LayerCache& threadCache(LayerCache* caches) { return caches[omp_get_thread_num() % maxThreads]; }

// A flake layer's walk below the surface is cut off here, so a scale of 0 cannot loop for ever.
constexpr float maxFlakeSteps = 65536;
// Past this level 2^i overflows and every further level looks up the same far cell.
constexpr uint32_t maxStoneLevel = 128;

int32_t layerId(float a, float b, float c) {
  uint32_t words[4];
  cellHashWords(std::bit_cast<uint32_t>(a), std::bit_cast<uint32_t>(b), std::bit_cast<uint32_t>(c), 0, words);
  return int32_t(words[0]);
}
}  // namespace

void readFlakeBlock(FlakeLayer& flake, std::istream& file) {
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "color")
      line.words >> flake.color.r >> flake.color.g >> flake.color.b;
    else if (line.key == "density")
      line.words >> flake.density;
    else if (line.key == "scale")
      line.words >> flake.scale;
    else if (line.key == "depth")
      line.words >> flake.depth;
  }
}

void readStoneBlock(StoneLayer& stone, std::istream& file) {
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "weathering")
      line.words >> stone.weathering;
    else if (line.key == "density")
      line.words >> stone.density;
    else if (line.key == "scale")
      line.words >> stone.scale;
    else if (line.key == "level")
      line.words >> stone.level;
    else if (line.key == "image")
      readQuotedString(line);
  }
}

void prepareLayer(FlakeLayer& flake) {
  if (flake.density > 0) flake.id = layerId(flake.density, flake.scale, flake.depth);
}

void prepareLayer(StoneLayer& stone) {
  if (stone.density > 0) stone.id = layerId(stone.weathering, stone.density, stone.scale);
}

Vec3f evaluateFlake(const FlakeLayer& flake, const Surface& surface) {
  if (!(flake.density > 0)) return zeroVector;
  LayerCache& cache = threadCache(flakeCaches);
  if (cache.valid && cache.id == flake.id && cache.position == surface.position) return cache.result;

  Vec3f result = zeroVector;
  auto probe = [&](Vec3f p) {
    float feature[4];
    const float d = cellular(cache.noise, p, surface.instance_id, feature);
    if (d < flake.density) result = goldenDirection(1023.999f * d / flake.density);
    return d < flake.density;
  };
  if (!(flake.depth > 0)) {
    probe(surface.position / flake.scale);
  } else {
    // Flakes may lie below the surface, along the line of sight.
    const int n = int(std::fmin(std::ceil(flake.depth / flake.scale), maxFlakeSteps));
    for (int i = 0; i < n; ++i) {
      const float t = (float(i) + 0.5f) * flake.depth / float(n);
      if (probe((surface.position - t * surface.view) / flake.scale)) break;
    }
  }
  cache.valid = true, cache.id = flake.id, cache.position = surface.position, cache.result = result;
  return result;
}

Vec3f evaluateStone(const StoneLayer& stone, const Surface& surface) {
  if (!(stone.density > 0)) return zeroVector;
  LayerCache& cache = threadCache(stoneCaches);
  if (cache.valid && cache.id == stone.id && cache.position == surface.smooth_position) return cache.result;

  Vec3f result = zeroVector;
  const uint32_t levels = std::min(stone.level, maxStoneLevel);
  for (uint32_t i = 0; i < levels; ++i) {
    const Vec3f p = surface.smooth_position * std::ldexp(1.0f, int(i)) / stone.scale;
    float feature[4];
    if (cellular(cache.noise, p, surface.instance_id, feature) < stone.density) {
      const float k = std::exp2((1 - stone.weathering) * -float(i));
      result += Vec3f{k * feature[0], k * feature[1], k * feature[1]};
    }
  }
  cache.valid = true, cache.id = stone.id, cache.position = surface.smooth_position, cache.result = result;
  return result;
}
