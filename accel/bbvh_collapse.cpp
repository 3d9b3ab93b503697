// Stage 3 of the hierarchy: the binary tree collapsed into eight-lane nodes.
// A child whose subtree needs only a few lanes is placed into the free lanes
// of a node that other parents already use; its reference carries the mask of
// its own lanes, so a node may serve several unrelated parents.
#include "accel/bbvh.h"
#include "geometry/object.h"

namespace {

BvhNode emptyNode() {
  BvhNode node;
  for (int lane = 0; lane < 8; ++lane) {
    node.min_x[lane] = node.min_y[lane] = node.min_z[lane] = infinity;
    node.max_x[lane] = node.max_y[lane] = node.max_z[lane] = -infinity;
    node.child[lane] = emptyLane;
  }
  return node;
}

struct Collapse {
  const std::vector<BuildRecord>& records;
  HugePageArray<BvhNode>& nodes;
  // Per node the lanes used so far, its firstFreeLane, kept here to save the scans.
  std::vector<uint8_t> used{0};
  // Nodes with at least two lanes left after their first use, in order of creation.
  int64_t ring[8] = {-1, -1, -1, -1, -1, -1, -1, -1};
  int writePosition = 0;

  // Opens the first inner entry from `first` on until lane 7 is used or only
  // leaves remain; returns the last used lane.
  int expand(uint32_t* lanes, int first) const {
    int last = first;
    while (last < 7) {
      int i = first;
      while (i <= last && records[lanes[i]].count != 0) ++i;
      if (i > last) break;
      uint32_t link = records[lanes[i]].link;
      lanes[i] = link;
      lanes[++last] = link + 1;
    }
    return last;
  }

  // A node of the ring that this many lanes fit best, leaving none or at least two free.
  int64_t findSharedNode(int need) const {
    int64_t target = -1;
    unsigned best = 8;
    for (int64_t candidate : ring) {
      if (candidate < 0) continue;
      const int taken = used[size_t(candidate)];
      if (taken == 0) continue;
      unsigned spare = unsigned(8 - taken - need);
      if (spare < best && spare != 1) {
        best = spare;
        target = candidate;
        if (spare == 0) break;
      }
    }
    return target;
  }

  uint32_t placeChild(uint32_t binary) {
    uint32_t scratch[8] = {binary};
    int need = expand(scratch, 0) + 1;
    int64_t target = need < 8 ? findSharedNode(need) : -1;
    if (target < 0) {
      target = int64_t(nodes.size());
      nodes.push_back(emptyNode());
      used.push_back(0);
      if (need < 7) {
        ring[writePosition] = target;
        writePosition = (writePosition + 1) % 8;
      }
    }
    return uint32_t(target);
  }

  // Places binary record `binary` with as much of its subtree as fits into the
  // free lanes of node `n`; returns the mask of the lanes it took.
  uint32_t collapse(uint32_t binary, uint32_t n) {
    uint32_t lanes[8];
    int first = used[n];
    lanes[first] = binary;
    int last = expand(lanes, first);
    // Claim the lanes before any child is placed, so that nothing else lands in them.
    for (int lane = first; lane <= last; ++lane) nodes[n].child[lane] = 0;
    used[n] = uint8_t(last + 1);
    for (int lane = first; lane <= last; ++lane) {
      const BuildRecord& r = records[lanes[lane]];
      BvhNode& node = nodes[n];
      node.min_x[lane] = r.min.x;
      node.min_y[lane] = r.min.y;
      node.min_z[lane] = r.min.z;
      node.max_x[lane] = r.max.x;
      node.max_y[lane] = r.max.y;
      node.max_z[lane] = r.max.z;
      if (r.count != 0) {
        node.child[lane] = uint64_t(r.link) | uint64_t(r.kind) << 48 | uint64_t(r.count) << 56;
        continue;
      }
      uint32_t target = placeChild(lanes[lane]);
      uint32_t mask = collapse(lanes[lane], target);
      nodes[n].child[lane] = uint64_t(target) | uint64_t(mask) << 32;
    }
    return (0xFFu >> (7 - last)) & ~((1u << first) - 1);
  }
};

}  // namespace

int firstFreeLane(const BvhNode& node) {
  for (int lane = 0; lane < 8; ++lane)
    if (uint32_t(node.child[lane]) == 0xFFFFFFFFu) return lane;
  return 8;
}

void collapseTree(Object& object) {
  object.bvhNodes.assign(1, emptyNode());
  Collapse state{object.buildRecords, object.bvhNodes};
  state.collapse(0, 0);
  recordTriangles(object);
}

float simdOccupancy(const Object& object) {
  if (object.bvhNodes.empty()) return 0;
  int64_t used = 0;
  for (const BvhNode& node : object.bvhNodes) used += firstFreeLane(node);
  return float(100.0 * double(used) / (8.0 * double(object.bvhNodes.size())));
}
