// Stage 2 of the hierarchy: every treelet of 16 leaves is reclustered
// greedily by the area of pair unions, deepest treelets first.
#include <string>

#include "accel/bbvh.h"
#include "accel/primitive_bounds.h"
#include "frame/report.h"
#include "geometry/object.h"

namespace {

constexpr int treeletLeaves = 16;
constexpr int clusterCount = 2 * treeletLeaves - 1;

std::vector<uint32_t> depthLists[maxBuildDepth];

struct Cluster {
  Box box;
  int left = -1, right = -1;  // members; -1 for a treelet leaf
};

float unionArea(const Cluster& a, const Cluster& b) {
  Box box = a.box;
  growBox(box, b.box);
  return halfArea(box.min, box.max);
}

void optimizeTreelet(std::vector<BuildRecord>& records, uint32_t root) {
  // Grow the treelet by opening the largest inner node until it has 16 leaves.
  uint32_t leaves[treeletLeaves] = {root};
  float leafArea[treeletLeaves] = {halfArea(records[root].min, records[root].max)};
  uint32_t pairs[treeletLeaves - 1];
  int n = 1;
  float oldCost = 0;
  while (n < treeletLeaves) {
    int pick = -1;
    float largest = -1;
    for (int i = 0; i < n; ++i)
      if (records[leaves[i]].count == 0 && leafArea[i] > largest) {
        largest = leafArea[i];
        pick = i;
      }
    if (pick < 0) return;
    oldCost += largest;
    const uint32_t link = records[leaves[pick]].link;
    pairs[n - 1] = link;
    leaves[pick] = link;
    leaves[n] = link + 1;
    leafArea[pick] = halfArea(records[link].min, records[link].max);
    leafArea[n] = halfArea(records[link + 1].min, records[link + 1].max);
    ++n;
  }

  BuildRecord leafRecords[treeletLeaves];
  Cluster clusters[clusterCount];
  int live[treeletLeaves];
  float area[treeletLeaves][treeletLeaves];
  for (int i = 0; i < treeletLeaves; ++i) {
    leafRecords[i] = records[leaves[i]];
    clusters[i].box = {leafRecords[i].min, leafRecords[i].max};
    live[i] = i;
  }
  for (int i = 0; i < treeletLeaves; ++i)
    for (int j = i + 1; j < treeletLeaves; ++j) area[i][j] = unionArea(clusters[i], clusters[j]);

  float newCost = 0;
  int liveCount = treeletLeaves;
  for (int made = treeletLeaves; made < clusterCount; ++made) {
    int bi = 0, bj = 1;
    for (int i = 0; i < liveCount; ++i)
      for (int j = i + 1; j < liveCount; ++j)
        if (area[i][j] < area[bi][bj]) bi = i, bj = j;
    Cluster& c = clusters[made];
    c.left = live[bi];
    c.right = live[bj];
    c.box = clusters[c.left].box;
    growBox(c.box, clusters[c.right].box);
    newCost += area[bi][bj];
    live[bi] = made;
    live[bj] = live[--liveCount];
    // The table keeps i < j; refresh the two rows whose clusters changed.
    for (int k = 0; k < liveCount; ++k) {
      for (int slot : {bi, bj}) {
        if (k == slot || slot >= liveCount) continue;
        float a = unionArea(clusters[live[slot]], clusters[live[k]]);
        if (k < slot)
          area[k][slot] = a;
        else
          area[slot][k] = a;
      }
    }
  }
  if (!(oldCost > newCost)) return;

  // Write the clusters back into the child pairs of the opened nodes; the top stays at the root.
  int nextPair = 0;
  auto write = [&](auto&& self, int cluster, uint32_t at) -> void {
    if (cluster < treeletLeaves) {
      records[at] = leafRecords[cluster];
      return;
    }
    const Cluster& c = clusters[cluster];
    uint32_t link = pairs[nextPair++];
    BuildRecord& r = records[at];
    r.min = c.box.min;
    r.max = c.box.max;
    r.link = link;
    r.kind = 0;
    r.count = 0;
    self(self, c.left, link);
    self(self, c.right, link + 1);
  };
  write(write, clusterCount - 1, root);
}

// Calls visit(node, depth) for every node, from the root.
template <typename Visit>
void walkTree(const std::vector<BuildRecord>& records, Visit visit) {
  std::vector<std::pair<uint32_t, uint32_t>> stack{{0, 0}};
  while (!stack.empty()) {
    auto [node, depth] = stack.back();
    stack.pop_back();
    visit(node, depth);
    const BuildRecord& r = records[node];
    if (r.count != 0) continue;
    stack.push_back({r.link + 1, depth + 1});
    stack.push_back({r.link, depth + 1});
  }
}

}  // namespace

void clearDepthLists() {
  for (std::vector<uint32_t>& list : depthLists) std::vector<uint32_t>().swap(list);
}

void restructureTree(Object& object) {
  std::vector<BuildRecord>& records = object.buildRecords;
  size_t counts[maxBuildDepth] = {};
  walkTree(records, [&](uint32_t, uint32_t depth) {
    if (depth < maxBuildDepth)
      ++counts[depth];
    else
      printError("bbvh - depth out of range " + std::to_string(depth) + "/" + std::to_string(maxBuildDepth));
  });
  for (int d = 0; d < maxBuildDepth; ++d) depthLists[d].reserve(counts[d]);
  walkTree(records, [&](uint32_t node, uint32_t depth) {
    if (depth < maxBuildDepth) depthLists[depth].push_back(node);
  });
  for (int d = maxBuildDepth - 1; d >= 0; --d) {
    const std::vector<uint32_t>& list = depthLists[d];
    const int count = int(list.size());
    // Short lists are not worth waking the other threads for; chunks shrink
    // so that a thread held back by the system does not hold the others.
#pragma omp parallel for schedule(guided) if (count >= 64)
    for (int i = 0; i < count; ++i) optimizeTreelet(records, list[i]);
  }
  clearDepthLists();
}
