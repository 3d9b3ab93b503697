// Casting: photons from each light that has any, in parallel, with a
// progress line and a rate row per light, then the totals and the tree.
#include <algorithm>
#include <iomanip>
#include <iostream>

#include "frame/renderer.h"
#include "frame/report.h"
#include "geometry/object.h"
#include "geometry/scene_assembly.h"
#include "lights/gaffer.h"
#include "lights/geometry_light.h"
#include "lights/sky.h"
#include "transport/photon.h"
#include "transport/thread_stack.h"

thread_local PhotonBatch* photonBatch = nullptr;

namespace {
// Photons first to end - 1 of a count, traced into the thread's batch.
template <typename Emit>
void traceBlock(int64_t first, int64_t end, const LightLink& link, Emit& emit, PhotonBatch& batch) {
  photonBatch = &batch;
  for (int64_t i = first; i < end; ++i) {
    Ray ray;
    emit(ray, uint64_t(i));
    if (maxComponent(ray.throughput) > 0 && int(ray.bounces) < photonDepthLimit()) tracePhoton(ray, link);
  }
}

// A block's photons and patch power, added in the blocks' order, with the
// progress line of every hundredth of the count that the block holds.
void landBlock(const PhotonBatch& batch, int64_t first, int64_t end, int64_t count) {
  photonStore.photons.insert(photonStore.photons.end(), batch.photons.begin(), batch.photons.end());
  for (const auto& [patch, power] : batch.patches) *patch += power;
  // With fewer than 100 photons the step is 0, and only photon 0 is its multiple.
  const int64_t step = count / 100;
  for (int64_t i = first; i < end; ++i)
    if (step == 0 ? i == 0 : i % step == 0)
      std::cout << "photon   cast " << std::fixed << std::setprecision(3) << float(100 * i) / float(count) << " [%]\r"
                << std::flush;
}

// One light's photons 0 to count - 1, each filled by `emit`, in blocks that
// threads trace side by side and that land one after the other.
template <typename Emit>
void castFrom(int64_t count, const LightLink& link, Emit emit) {
  resetRayCounters();
  const int64_t start = clockNanoseconds();
  constexpr int64_t block = 1024;
  const int64_t blocks = count / block + (count % block != 0);
  LoopAllocation allocation;
#pragma omp parallel for ordered schedule(dynamic, 1)
  for (int64_t b = 0; b < blocks; ++b) {
    const int64_t first = b * block, end = std::min(count, first + block);
    PhotonBatch batch;
    allocation.run([&] { traceBlock(first, end, link, emit, batch); });
    photonBatch = nullptr;
#pragma omp ordered
#pragma omp critical(photonStore)
    allocation.run([&] { landBlock(batch, first, end, count); });
  }
  // A store cut short has no tree and is not searched.
  if (allocation.failed) clearPhotons();
  allocation.rethrow();
  const int64_t microseconds = std::max<int64_t>((clockNanoseconds() - start) / 1000, 1);
  printRow("photon   cast", float(closestRays()) / float(microseconds), "M rays/s");
}
}  // namespace

void castPhotons() {
  const int64_t start = clockNanoseconds();
  // The geometry light leaves the mark as it finds it: not the sky's, even when no other light casts first.
  skyPhoton.store(0, std::memory_order_relaxed);
  for (const ParallelLight& light : parallelLights)
    if (light.photon > 0) castFrom(light.photon, light.link, [&light](Ray& ray, uint64_t i) { light.emit(ray, i); });
  for (const PointLight& light : pointLights)
    if (light.photon > 0) castFrom(light.photon, light.link, [&light](Ray& ray, uint64_t i) { light.emit(ray, i); });
  if (geometryLight.photon > 0 && rootObject < objects.size() && objects[rootObject].emitterArea > 0)
    castFrom(geometryLight.photon, geometryLight.link, [](Ray& ray, uint64_t i) { emitGeometryPhoton(ray, i); });
  if (sky.photon > 0) castFrom(sky.photon, sky.link, [](Ray& ray, uint64_t i) { emitSkyPhoton(ray, i); });

  printRow("photon   cast", float((clockNanoseconds() - start) / 1000000000), "seconds");
  printRow("photon radius", renderer.radius, "m");
  printBytesRow("photon sotred", int64_t(photonStore.photons.size() * sizeof(Photon)));
  buildPhotonTree();
}
