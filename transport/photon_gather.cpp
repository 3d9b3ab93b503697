// The caustic lookup: the 32 nearest photons that arrived on this side of
// the surface, over the disk that holds them.
#include "geometry/object.h"
#include "transport/photon.h"

namespace {
constexpr int nearestCount = 32;
constexpr float pi = 3.14159265f;

// The nearest photons so far, with the largest squared distance and its slot.
struct Nearest {
  const Photon* photon[nearestCount];
  float distance2[nearestCount];
  int count = 0;
  int largest = 0;

  void offer(const Photon* p, float d2, float& r2) {
    if (count < nearestCount) {
      photon[count] = p;
      distance2[count] = d2;
      if (count == 0 || d2 > distance2[largest]) largest = count;
      if (++count == nearestCount) r2 = distance2[largest];
      return;
    }
    if (!(d2 < distance2[largest])) return;
    photon[largest] = p;
    distance2[largest] = d2;
    // The first of equals stands.
    largest = 0;
    for (int i = 1; i < nearestCount; ++i)
      if (distance2[i] > distance2[largest]) largest = i;
    r2 = distance2[largest];
  }
};

// Within `margin` of the box. Photons on one plane make a box of no
// thickness, which a hit on that plane misses by its rounding about as often
// as not: only a point farther than the gather radius can find nothing.
bool near(const Box& box, Vec3f p, float margin) {
  return p.x >= box.min.x - margin && p.y >= box.min.y - margin && p.z >= box.min.z - margin &&
         p.x <= box.max.x + margin && p.y <= box.max.y + margin && p.z <= box.max.z + margin;
}

// Later diffuse bounces look in a smaller disk.
float gatherRadius2(const Ray& ray) {
  const float r2 = photonStore.radius2;
  switch (ray.diffuse_bounces) {
    case 0: return r2;
    case 1: return r2 * 0.25f;
    case 2: return r2 * 0.0625f;
    default: return r2 * 0.015625f;
  }
}

void searchTree(Vec3f p, Vec3f normal, float& r2, Nearest& nearest) {
  const std::vector<PhotonNode>& nodes = photonStore.nodes;
  // One pending far side per level, and the tree is at most 32 deep.
  uint32_t stack[64];
  int top = 0;
  stack[top++] = 0;
  while (top > 0) {
    const PhotonNode& node = nodes[stack[--top]];
    if (node.children == 0) {
      for (uint32_t i = node.first; i < node.first + node.count; ++i) {
        const Photon& photon = photonStore.photons[i];
        const float d2 = lengthSquared(photon.position - p);
        if (d2 < r2 && dot(unpackUnitVector(photon.direction), normal) >= 0) nearest.offer(&photon, d2, r2);
      }
      continue;
    }
    const float d = p[node.axis] - node.split;
    const bool lowNear = d < 0;
    const int nearChild = lowNear ? 1 : 2, farChild = lowNear ? 2 : 1;
    auto childIndex = [&](int side) { return node.children == 3 ? node.first + (side == 2 ? 1 : 0) : node.first; };
    // The far side goes first on the stack so that the near side is walked first.
    if ((node.children & farChild) && d * d < r2) stack[top++] = childIndex(farChild);
    if (node.children & nearChild) stack[top++] = childIndex(nearChild);
  }
}
}  // namespace

Color3f gatherCaustics(const Ray& ray, const Surface& surface) {
  if (photonStore.radius < 1e-8f || photonStore.nodes.empty() ||
      !near(photonStore.bounds, surface.position, photonStore.radius))
    return black;
  float r2 = gatherRadius2(ray);
  const bool firstSegment =
      ray.diffuse_bounces == 0 && ray.glossy_bounces == 0 && ray.specular_bounces == 0 && ray.bounces == 0;
  GatherCache* cache = firstSegment && ray.thread < uint32_t(maxThreads) ? &gatherCache[ray.thread] : nullptr;
  if (cache) {
    const float bound = length(surface.position - cache->position) + std::sqrt(cache->radius2);
    if (photonStore.radius > bound) r2 = bound * bound;
  }

  Nearest nearest;
  searchTree(surface.position, surface.geometric_normal, r2, nearest);

  if (cache) {
    cache->position = surface.position;
    cache->radius2 = nearest.count >= nearestCount ? nearest.distance2[nearest.largest] : infinity;
  }
  if (nearest.count < 2) return black;
  Color3f sum;
  for (int i = 0; i < nearest.count; ++i) sum += decodePower(nearest.photon[i]->power);
  return sum / (pi * nearest.distance2[nearest.largest]);
}
