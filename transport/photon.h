// Caustic photons: light that reached a diffuse surface through one or more
// mirrors or glasses, kept in a kd-tree and gathered by the diffuse lobes.
// Casting also feeds the irradiance patches of the density estimator.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "accel/primitive_bounds.h"
#include "accel/ray.h"
#include "frame/sampling.h"
#include "shading/surface.h"

struct LightLink;

// 24 bytes: the power as RGBE and both directions packed.
struct Photon {
  Vec3f position;
  uint8_t power[4] = {0, 0, 0, 0};  // three mantissas and an exponent
  uint32_t direction = 0;           // packed: back along the incoming path
  uint32_t geometric = 0;           // packed: the geometric normal where it landed
};
static_assert(sizeof(Photon) == 24);

// 12 bytes. Inner: `first` is the child index and `split` the plane; leaf:
// `first` is the first photon and `count` how many.
struct PhotonNode {
  uint32_t first = 0;
  union {
    float split;
    uint32_t count = 0;
  };
  uint8_t axis = 0;
  uint8_t children = 0;  // 0 leaf; 1 low only; 2 high only; 3 both, the high one at first + 1
};
static_assert(sizeof(PhotonNode) == 12);

struct PhotonStore {
  std::vector<Photon> photons;
  std::vector<PhotonNode> nodes;  // the root is node 0
  Box bounds;
  float radius = 0;  // the gather radius when the tree was built
  float radius2 = 0;
};

extern PhotonStore photonStore;

// What a block of photons leaves behind, held back so that the blocks land in
// the order of their photons whatever thread traced them: the store and the
// patches come out the same on any number of threads.
struct PhotonBatch {
  std::vector<Photon> photons;
  std::vector<std::pair<Color3f*, Color3f>> patches;  // power for each patch, in the order it arrived
};
// The batch of the calling thread while it traces a block; null elsewhere,
// where photons and patch power land at once.
extern thread_local PhotonBatch* photonBatch;

// The 32 nearest photons of the last camera hit of each thread bound the
// search at the next one; a radius of `infinity` means nothing is known.
struct GatherCache {
  Vec3f position;
  float radius2 = infinity;
};
extern GatherCache gatherCache[maxThreads];

// Largest component below 1e-32, or beyond what the exponent byte holds
// (2^127 and up), or not a number: all four bytes 0.
void encodePower(Color3f power, uint8_t rgbe[4]);
Color3f decodePower(const uint8_t rgbe[4]);

// Traces photons from every light that has any, in the order parallel,
// point, geometry, sky, reports the three rows and builds the tree.
void castPhotons();
// Follows one photon from a light whose shaders are `link`: every lobe that
// is on branches, diffuse hits feed the patches and, after a specular
// bounce, the caustic store.
void tracePhoton(Ray& ray, const LightLink& link);
// The kd-tree over the stored photons, with threads at large splits.
void buildPhotonTree();
// The caustic radiance at a diffuse hit: the power of the 32 nearest photons
// over the disk that holds them. Black with fewer than 2.
Color3f gatherCaustics(const Ray& ray, const Surface& surface);
// Empties both arrays and forgets the radius.
void clearPhotons();
