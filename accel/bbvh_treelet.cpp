// Stage 2 of the hierarchy: every treelet of 16 leaves is reclustered
// greedily by the area of pair unions, deepest treelets first.
#include <immintrin.h>

#include <algorithm>
#include <cmath>
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

// The boxes of the live clusters by slot, one row of 16 lanes per bound.
struct SlotBoxes {
  alignas(32) float bound[6][treeletLeaves];  // min x, y, z, max x, y, z
  void set(int slot, const Box& box) {
    for (int axis = 0; axis < 3; ++axis) bound[axis][slot] = box.min[axis], bound[3 + axis][slot] = box.max[axis];
  }
};

// halfArea of the union of slot `a`'s box with the boxes of slots
// `first` .. `first + 7`, with the operations that the scalar forms compile
// to: std::min (a, b) is minps (b, a), std::max (a, b) is maxps (b, a), and
// the area is x (y + z) + y z with the first product fused.
__m256 unionAreas(const SlotBoxes& s, int a, int first) {
  __m256 extent[3];
  for (int axis = 0; axis < 3; ++axis) {
    const __m256 low = _mm256_min_ps(_mm256_load_ps(s.bound[axis] + first), _mm256_set1_ps(s.bound[axis][a]));
    const __m256 high = _mm256_max_ps(_mm256_load_ps(s.bound[3 + axis] + first), _mm256_set1_ps(s.bound[3 + axis][a]));
    extent[axis] = _mm256_max_ps(_mm256_setzero_ps(), _mm256_sub_ps(high, low));
  }
  const __m256 y = extent[1], z = extent[2];
  return _mm256_fmadd_ps(extent[0], _mm256_add_ps(y, z), _mm256_mul_ps(y, z));
}

// The pair table: row i holds the union areas of the pairs (i, j > i) among
// the live slots; every other entry is +infinity and is never chosen.
struct PairTable {
  alignas(32) float area[treeletLeaves][treeletLeaves];

  // Every pair from its row's side, as refreshing each slot from the last to
  // the first would leave it.
  void fill(const SlotBoxes& s) {
    const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256 none = _mm256_set1_ps(infinity);
    for (int i = 0; i < treeletLeaves; ++i)
      for (int first = 0; first < treeletLeaves; first += 8) {
        const __m256 after = _mm256_castsi256_ps(
            _mm256_cmpgt_epi32(_mm256_add_epi32(lane, _mm256_set1_epi32(first)), _mm256_set1_epi32(i)));
        _mm256_store_ps(area[i] + first, _mm256_blendv_ps(none, unionAreas(s, i, first), after));
      }
  }

  // Writes slot a's row and column from its union areas with every slot.
  void refresh(const SlotBoxes& s, int a, int liveCount) {
    alignas(32) float row[treeletLeaves];
    _mm256_store_ps(row, unionAreas(s, a, 0));
    _mm256_store_ps(row + 8, unionAreas(s, a, 8));
    for (int k = 0; k < a; ++k) area[k][a] = row[k];
    for (int k = a + 1; k < liveCount; ++k) area[a][k] = row[k];
  }

  // The pair that a row-major scan keeping the first strictly smaller value
  // would find, starting from (0, 1): a NaN there keeps it, NaNs elsewhere
  // never win, and among equal values the first in row-major order stands.
  void smallest(int liveCount, int& bi, int& bj) const {
    bi = 0, bj = 1;
    if (std::isnan(area[0][1])) return;
    __m256 low = _mm256_set1_ps(infinity);
    for (int i = 0; i < liveCount - 1; ++i)  // a NaN operand leaves the second, the running minimum
      low = _mm256_min_ps(_mm256_min_ps(_mm256_load_ps(area[i]), low), _mm256_min_ps(_mm256_load_ps(area[i] + 8), low));
    low = _mm256_min_ps(low, _mm256_permute2f128_ps(low, low, 1));
    low = _mm256_min_ps(low, _mm256_shuffle_ps(low, low, _MM_SHUFFLE(1, 0, 3, 2)));
    low = _mm256_min_ps(low, _mm256_shuffle_ps(low, low, _MM_SHUFFLE(2, 3, 0, 1)));
    if (_mm256_cvtss_f32(low) == infinity) return;
    for (int i = 0; i < liveCount - 1; ++i) {
      const uint32_t equal = uint32_t(_mm256_movemask_ps(_mm256_cmp_ps(_mm256_load_ps(area[i]), low, _CMP_EQ_OQ))) |
                             uint32_t(_mm256_movemask_ps(_mm256_cmp_ps(_mm256_load_ps(area[i] + 8), low, _CMP_EQ_OQ)))
                                 << 8;
      if (equal) {
        bi = i, bj = __builtin_ctz(equal);
        return;
      }
    }
  }
};

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
  SlotBoxes boxes;
  for (int i = 0; i < treeletLeaves; ++i) {
    leafRecords[i] = records[leaves[i]];
    clusters[i].box = {leafRecords[i].min, leafRecords[i].max};
    boxes.set(i, clusters[i].box);
    live[i] = i;
  }
  PairTable table;
  table.fill(boxes);

  float newCost = 0;
  int liveCount = treeletLeaves;
  for (int made = treeletLeaves; made < clusterCount; ++made) {
    int bi, bj;
    table.smallest(liveCount, bi, bj);
    Cluster& c = clusters[made];
    c.left = live[bi];
    c.right = live[bj];
    c.box = clusters[c.left].box;
    growBox(c.box, clusters[c.right].box);
    newCost += table.area[bi][bj];
    live[bi] = made;
    live[bj] = live[--liveCount];
    boxes.set(bi, c.box);
    boxes.set(bj, clusters[live[bj]].box);
    // The freed last slot leaves the table.
    for (int k = 0; k < liveCount; ++k) table.area[k][liveCount] = infinity;
    std::fill(table.area[liveCount], table.area[liveCount] + treeletLeaves, infinity);
    // The pair of the two changed slots takes its value from slot bi's side, as a
    // scan that refreshed both slots for every k in turn would leave it.
    if (bj < liveCount) table.refresh(boxes, bj, liveCount);
    table.refresh(boxes, bi, liveCount);
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
  std::vector<uint32_t> preorder;
  preorder.reserve(records.size());
  walkTree(records, [&](uint32_t node, uint32_t depth) {
    if (depth < maxBuildDepth) depthLists[depth].push_back(node);
    preorder.push_back(node);
  });
  // A subtree of fewer than 16 leaves can form no treelet, and reclustering
  // below a node keeps its leaves: counted once, children before parents.
  std::vector<uint32_t> leaves(records.size());
  for (auto node = preorder.rbegin(); node != preorder.rend(); ++node) {
    const BuildRecord& r = records[*node];
    leaves[*node] = r.count != 0 ? 1 : leaves[r.link] + leaves[r.link + 1];
  }
  for (int d = maxBuildDepth - 1; d >= 0; --d) {
    std::vector<uint32_t>& list = depthLists[d];
    std::erase_if(list, [&](uint32_t node) { return leaves[node] < treeletLeaves; });
    const int count = int(list.size());
    // Even a loop kept on one thread touches the team: small trees skip it.
    if (count == 0) continue;
    // Short lists are not worth waking the other threads for; chunks shrink
    // so that a thread held back by the system does not hold the others.
#pragma omp parallel for schedule(guided) if (count >= 64)
    for (int i = 0; i < count; ++i) optimizeTreelet(records, list[i]);
  }
  clearDepthLists();
}
