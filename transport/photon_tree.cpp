// The kd-tree over the caustic photons: 17 bins per split on the longest
// axis, the cheapest plane by surface area, and a thread for the larger side
// of a large split.
#include <algorithm>
#include <mutex>
#include <system_error>
#include <thread>

#include "accel/bbvh.h"
#include "frame/renderer.h"
#include "transport/photon.h"

namespace {
constexpr int binCount = 17;
std::mutex nodeLock;  // every write to the node array, which may grow under other threads

struct SplitChoice {
  float plane;
  uint32_t leftCount;
};

int longestAxis(const Box& box) {
  const Vec3f e = box.max - box.min;
  if (e.x >= e.y && e.x >= e.z) return 0;
  return e.y >= e.z ? 1 : 2;
}

// The first strict minimum of the 16 inner planes of the bins.
SplitChoice choosePlane(const Box& bounds, int axis, uint32_t begin, uint32_t end) {
  const float low = bounds.min[axis], extent = bounds.max[axis] - low;
  uint32_t bins[binCount] = {};
  for (uint32_t i = begin; i < end; ++i) {
    // A zero extent puts everything in bin 0; fmin and fmax also catch the NaN of 0 / 0.
    const float b = std::fmin(std::fmax((photonStore.photons[i].position[axis] - low) * binCount / extent, 0.0f),
                              float(binCount - 1));
    ++bins[int(b)];
  }
  SplitChoice best{low, 0};
  float bestCost = infinity;
  uint32_t left = 0;
  for (int k = 1; k < binCount; ++k) {
    left += bins[k - 1];
    const float plane = low + float(k) * extent / binCount;
    Box lowBox = bounds, highBox = bounds;
    lowBox.max[axis] = highBox.min[axis] = plane;
    const float cost =
        halfArea(lowBox.min, lowBox.max) * float(left) + halfArea(highBox.min, highBox.max) * float(end - begin - left);
    if (cost < bestCost) {
      bestCost = cost;
      best = {plane, left};
    }
  }
  return best;
}

void splitPhotons(Box bounds, uint32_t node, uint32_t begin, uint32_t end, int depth) {
  const uint32_t count = end - begin;
  const Vec3f extent = bounds.max - bounds.min;
  const float largest = std::fmax(extent.x, std::fmax(extent.y, extent.z));
  if (count < 17 || depth + 1 >= 32 || largest < photonStore.radius * 0.25f) {
    std::lock_guard<std::mutex> guard(nodeLock);
    PhotonNode& leaf = photonStore.nodes[node];
    leaf.first = begin;
    leaf.count = count;
    leaf.children = 0;
    return;
  }
  const int axis = longestAxis(bounds);
  const SplitChoice choice = choosePlane(bounds, axis, begin, end);
  Box lowBox = bounds, highBox = bounds;
  lowBox.max[axis] = highBox.min[axis] = choice.plane;

  uint32_t lowEnd = end, highBegin = begin;  // the ranges of the two sides
  uint8_t children;
  if (choice.leftCount > 0 && choice.leftCount < count) {
    // The whole range is sorted: a photon left behind on the wrong side of
    // the plane would be missed by a walk that prunes by the plane.
    Photon* p = photonStore.photons.data();
    std::sort(p + begin, p + end,
              [axis](const Photon& a, const Photon& b) { return a.position[axis] < b.position[axis]; });
    uint32_t left = 0;
    while (begin + left < end && p[begin + left].position[axis] < choice.plane) ++left;
    lowEnd = highBegin = begin + left;
    children = 3;
  } else {
    children = choice.leftCount > 0 ? 1 : 2;
  }

  uint32_t child;
  {
    std::lock_guard<std::mutex> guard(nodeLock);
    child = uint32_t(photonStore.nodes.size());
    photonStore.nodes.resize(child + (children == 3 ? 2 : 1));
    PhotonNode& inner = photonStore.nodes[node];
    inner.first = child;
    inner.split = choice.plane;
    inner.axis = uint8_t(axis);
    inner.children = children;
  }
  if (children == 1) return splitPhotons(lowBox, child, begin, end, depth + 1);
  if (children == 2) return splitPhotons(highBox, child, begin, end, depth + 1);

  const uint32_t lowCount = lowEnd - begin, highCount = end - highBegin;
  if (depth < 16 && lowCount >= 1025 && highCount >= 1025) {
    // The larger side runs on a thread of its own; the ranges do not overlap.
    const bool lowLarger = lowCount > highCount;
    std::thread larger;
    try {
      larger = lowLarger ? std::thread(splitPhotons, lowBox, child, begin, lowEnd, depth + 1)
                         : std::thread(splitPhotons, highBox, child + 1, highBegin, end, depth + 1);
    } catch (const std::system_error&) {
      // No thread to be had: both sides on this one.
    }
    if (larger.joinable()) {
      if (lowLarger)
        splitPhotons(highBox, child + 1, highBegin, end, depth + 1);
      else
        splitPhotons(lowBox, child, begin, lowEnd, depth + 1);
      larger.join();
      return;
    }
  }
  splitPhotons(lowBox, child, begin, lowEnd, depth + 1);
  splitPhotons(highBox, child + 1, highBegin, end, depth + 1);
}
}  // namespace

void buildPhotonTree() {
  photonStore.radius = renderer.radius;
  photonStore.radius2 = renderer.radius * renderer.radius;
  photonStore.nodes.clear();
  photonStore.bounds = Box();
  for (const Photon& p : photonStore.photons) growBox(photonStore.bounds, p.position, p.position);
  if (photonStore.photons.empty()) return;
  photonStore.nodes.resize(1);
  splitPhotons(photonStore.bounds, 0, 0, uint32_t(photonStore.photons.size()), 0);
  for (GatherCache& cache : gatherCache) cache = GatherCache();
}
