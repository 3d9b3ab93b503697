// Stage 1 of the hierarchy: a binary tree by binned surface-area splits,
// one parallel loop per level, and the refit that gives its nodes their boxes.
#include <immintrin.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include "accel/bbvh.h"
#include "accel/primitive_bounds.h"
#include "frame/report.h"
#include "geometry/object.h"

namespace {

// One primitive of the working arrays; the entries are permuted in place.
struct BuildEntry {
  Vec3f min, max;
  uint32_t index;
  uint8_t kind;
};

struct BuildTask {
  uint32_t node, first, count;
};

constexpr int binCount = 16;

// A bin's box on four lanes; the fourth lane carries whatever the load brought along.
struct Bin {
  __m128 min = _mm_set1_ps(infinity), max = _mm_set1_ps(-infinity);
  uint32_t count = 0;
};

Box toBox(__m128 min, __m128 max) {
  alignas(16) float low[4], high[4];
  _mm_store_ps(low, min);
  _mm_store_ps(high, max);
  return {{low[0], low[1], low[2]}, {high[0], high[1], high[2]}};
}

struct Level {
  std::vector<BuildRecord>& records;
  std::vector<BuildEntry>& entries;
  std::vector<BuildTask>& output;
  std::atomic<uint32_t>& outputCount;
  uint32_t nodeCount;
  int level;
};

Vec3f centre(const BuildEntry& e) { return (e.min + e.max) * 0.5f; }

bool contains(const Box& box, const BuildEntry& e) {
  return e.min.x >= box.min.x && e.min.y >= box.min.y && e.min.z >= box.min.z && e.max.x <= box.max.x &&
         e.max.y <= box.max.y && e.max.z <= box.max.z;
}

// Counts every primitive in one bin per axis, bin trunc((1 / extent) (centre - low) 16)
// limited to 0..15, with a NaN in bin 0. The loads of a corner take the next
// float along in the fourth lane, which nothing reads.
void fillBins(const BuildEntry* e, uint32_t count, Vec3f low, Vec3f extent, Bin (&bins)[3][binCount]) {
  const __m128 lowest = _mm_setr_ps(low.x, low.y, low.z, 0);
  const __m128 scale = _mm_setr_ps(1.0f / extent.x, 1.0f / extent.y, 1.0f / extent.z, 0);
  const __m128 half = _mm_set1_ps(0.5f), bins16 = _mm_set1_ps(float(binCount));
  const __m128 first = _mm_setzero_ps(), last = _mm_set1_ps(float(binCount - 1));
  alignas(16) int32_t index[4];
  for (uint32_t i = 0; i < count; ++i) {
    const __m128 min = _mm_loadu_ps(&e[i].min.x), max = _mm_loadu_ps(&e[i].max.x);
    const __m128 centre = _mm_mul_ps(_mm_add_ps(min, max), half);
    __m128 f = _mm_mul_ps(_mm_mul_ps(scale, _mm_sub_ps(centre, lowest)), bins16);
    f = _mm_min_ps(_mm_max_ps(f, first), last);  // max answers its second operand for a NaN
    _mm_store_si128(reinterpret_cast<__m128i*>(index), _mm_cvttps_epi32(f));
    for (int axis = 0; axis < 3; ++axis) {
      Bin& bin = bins[axis][index[axis]];
      // Operands in this order pass a NaN corner over, as growBox does.
      bin.min = _mm_min_ps(min, bin.min);
      bin.max = _mm_max_ps(max, bin.max);
      ++bin.count;
    }
  }
}

uint32_t partitionBoxes(BuildEntry* e, uint32_t count, Box left, Box right) {
  // Partition by the two boxes; a primitive in both goes to the smaller one, ties to the right.
  bool leftSmaller = halfArea(left.min, left.max) < halfArea(right.min, right.max);
  uint32_t i = 0, j = count;
  while (i < j) {
    bool inLeft = contains(left, e[i]), inRight = contains(right, e[i]);
    if (inLeft && (!inRight || leftSmaller))
      ++i;
    else
      std::swap(e[i], e[--j]);
  }
  return i < count ? i : 0;
}

// Returns the size of the left side, or 0 when no split was found.
uint32_t splitBySurfaceArea(BuildEntry* e, uint32_t count, Vec3f low, Vec3f high) {
  Vec3f extent = high - low;
  if (extent.x == 0 && extent.y == 0 && extent.z == 0) return 0;
  Bin bins[3][binCount];
  fillBins(e, count, low, extent, bins);
  float best = infinity;
  Box left, right;
  for (int axis = 0; axis < 3; ++axis) {
    if (extent[axis] == 0) continue;
    const Bin* bin = bins[axis];
    uint32_t used = 0;
    for (int k = 0; k < binCount; ++k) used |= uint32_t(bin[k].count != 0) << k;
    // The sides are tried at k = 1 and after every used bin below 15: past an
    // empty bin both sides and so the cost repeat, and only a strictly smaller
    // cost counts. An empty bin would change no union, so only used bins are
    // visited, which keeps the many small tasks of the deep levels cheap.
    const uint32_t splits = ((used << 1) | 2u) & 0xFFFEu;
    __m128 suffixMin[binCount], suffixMax[binCount];
    uint32_t suffixCount[binCount];
    // The right side of the split after bin b is what the used bins above b
    // hold; bin 0 unused leaves the split at 1 to the union of all.
    __m128 runningMin = _mm_set1_ps(infinity), runningMax = _mm_set1_ps(-infinity);
    uint32_t n = 0;
    for (uint32_t rest = used; rest;) {
      const int b = 31 - __builtin_clz(rest);
      rest ^= 1u << b;
      if (b + 1 < binCount) suffixMin[b + 1] = runningMin, suffixMax[b + 1] = runningMax, suffixCount[b + 1] = n;
      runningMin = _mm_min_ps(runningMin, bin[b].min);
      runningMax = _mm_max_ps(runningMax, bin[b].max);
      n += bin[b].count;
    }
    if (!(used & 1u)) suffixMin[1] = runningMin, suffixMax[1] = runningMax, suffixCount[1] = n;
    __m128 prefixMin = _mm_set1_ps(infinity), prefixMax = _mm_set1_ps(-infinity);
    uint32_t m = 0;
    for (uint32_t rest = splits; rest; rest &= rest - 1) {
      const int k = __builtin_ctz(rest);
      prefixMin = _mm_min_ps(prefixMin, bin[k - 1].min);
      prefixMax = _mm_max_ps(prefixMax, bin[k - 1].max);
      m += bin[k - 1].count;
      const Box prefix = toBox(prefixMin, prefixMax), suffix = toBox(suffixMin[k], suffixMax[k]);
      const float cost =
          halfArea(prefix.min, prefix.max) * float(m) + halfArea(suffix.min, suffix.max) * float(suffixCount[k]);
      if (cost < best) {
        best = cost;
        left = prefix;
        right = suffix;
      }
    }
  }
  if (best == infinity) return 0;
  return partitionBoxes(e, count, left, right);
}

// Entries of the smallest kind to the left; returns their number.
uint32_t splitByKind(BuildEntry* e, uint32_t count) {
  uint8_t smallest = e[0].kind;
  for (uint32_t i = 1; i < count; ++i) smallest = std::min(smallest, e[i].kind);
  return uint32_t(std::partition(e, e + count, [&](const BuildEntry& x) { return x.kind == smallest; }) - e);
}

void makeLeaf(BuildRecord& record, uint32_t first, uint32_t count, uint8_t kind) {
  record.link = first;
  record.kind = kind;
  // The count wraps in its byte and what lies beyond is lost to the hierarchy.
  // A wrap to exactly 0 would read as an inner node, so it keeps 255 instead.
  record.count = uint8_t(count) == 0 ? 255 : uint8_t(count);
}

void splitTask(const BuildTask& task, Level& level) {
  BuildEntry* e = level.entries.data() + task.first;
  Vec3f low{infinity, infinity, infinity}, high{-infinity, -infinity, -infinity};
  uint32_t single = 0;
  bool oneKind = true;
  for (uint32_t i = 0; i < task.count; ++i) {
    Vec3f c = centre(e[i]);
    low = {std::min(low.x, c.x), std::min(low.y, c.y), std::min(low.z, c.z)};
    high = {std::max(high.x, c.x), std::max(high.y, c.y), std::max(high.z, c.z)};
    if (e[i].kind == kindTetragon || e[i].kind == kindInstance) single = 1;
    oneKind = oneKind && e[i].kind == e[0].kind;
  }
  uint32_t leftCount = 0;
  if (level.level < maxBuildDepth - 1 && task.count > 2 - single)
    leftCount = splitBySurfaceArea(e, task.count, low, high);
  if (leftCount == 0) {
    if (oneKind) {
      makeLeaf(level.records[task.node], task.first, task.count, e[0].kind);
      return;
    }
    leftCount = splitByKind(e, task.count);
  }
  uint32_t slot = level.outputCount.fetch_add(2);
  uint32_t child = level.nodeCount + slot;
  level.output[slot] = {child, task.first, leftCount};
  level.output[slot + 1] = {child + 1, task.first + leftCount, task.count - leftCount};
  BuildRecord& record = level.records[task.node];
  record.link = child;
  record.count = 0;
  record.kind = 0;
}

std::vector<BuildEntry> gatherEntries(const Object& object) {
  std::vector<BuildEntry> entries;
  auto add = [&](uint8_t kind, size_t count) {
    for (uint32_t i = 0; i < count; ++i) {
      Box box = primitiveBox(object, kind, i);
      entries.push_back({box.min, box.max, i, kind});
    }
  };
  add(kindParticle, object.particles.indices.size());
  add(kindCylinder, object.cylinders.indices.size());
  add(kindTriangle, object.mesh.triangles.size());
  add(kindTetragon, object.mesh.tetragons.size());
  add(kindInstance, object.instances.size());
  return entries;
}

// Appends a leaf's primitives and answers where they start.
template <typename T>
uint32_t appendLeaf(std::vector<T>& to, const std::vector<T>& from, const BuildEntry* e, uint32_t count) {
  const uint32_t start = uint32_t(to.size());
  for (uint32_t i = 0; i < count; ++i) to.push_back(from[e[i].index]);
  return start;
}

// Leaves take their primitives' new positions: every index after this is in leaf order.
void reorderPrimitives(Object& object, const std::vector<BuildEntry>& entries) {
  std::vector<uint32_t> particles;
  std::vector<Cylinder> cylinders;
  std::vector<Triangle> triangles;
  std::vector<Tetragon> tetragons;
  std::vector<Instance> instances;
  for (BuildRecord& r : object.buildRecords) {
    if (r.count == 0) continue;
    const BuildEntry* e = entries.data() + r.link;
    if (r.kind == kindParticle) r.link = appendLeaf(particles, object.particles.indices, e, r.count);
    if (r.kind == kindCylinder) r.link = appendLeaf(cylinders, object.cylinders.indices, e, r.count);
    if (r.kind == kindTriangle) r.link = appendLeaf(triangles, object.mesh.triangles, e, r.count);
    if (r.kind == kindTetragon) r.link = appendLeaf(tetragons, object.mesh.tetragons, e, r.count);
    if (r.kind == kindInstance) r.link = appendLeaf(instances, object.instances, e, r.count);
  }
  object.particles.indices = std::move(particles);
  object.cylinders.indices = std::move(cylinders);
  object.mesh.triangles = std::move(triangles);
  object.mesh.tetragons = std::move(tetragons);
  object.instances = std::move(instances);
}

}  // namespace

void buildBinaryTree(Object& object) {
  int64_t start = clockNanoseconds();
  std::vector<BuildEntry> entries = gatherEntries(object);
  std::vector<BuildRecord>& records = object.buildRecords;
  // Preparation may have dropped every primitive that named a missing vertex.
  if (entries.empty()) {
    records.clear();
    return;
  }
  records.assign(1, BuildRecord{});
  std::vector<BuildTask> tasks{{0, 0, uint32_t(entries.size())}}, output;
  uint32_t nodeCount = 1;
  std::atomic<uint32_t> outputCount;
  for (int depth = 0; depth < maxBuildDepth && !tasks.empty(); ++depth) {
    records.resize(nodeCount + 2 * tasks.size());
    output.resize(2 * tasks.size());
    outputCount = 0;
    Level level{records, entries, output, outputCount, nodeCount, depth};
    const int taskCount = int(tasks.size());
    // Handed out in shrinking chunks: the tasks of a level differ widely in
    // size, and a thread that the system holds back must not hold the others.
#pragma omp parallel for schedule(guided) if (taskCount > 1)
    for (int i = 0; i < taskCount; ++i) splitTask(tasks[i], level);
    uint32_t made = outputCount;
    nodeCount += made;
    output.resize(made);
    std::swap(tasks, output);
  }
  // Ranges still open after the last level would read as inner nodes pointing
  // at the root: each keeps the leading run of its first kind as a leaf.
  for (const BuildTask& task : tasks) {
    const BuildEntry* e = entries.data() + task.first;
    uint32_t run = 1;
    while (run < task.count && e[run].kind == e[0].kind) ++run;
    makeLeaf(records[task.node], task.first, run, e[0].kind);
  }
  records.resize(nodeCount);
  reorderPrimitives(object, entries);
  printRow("accel built", float((clockNanoseconds() - start) / 1000000), "m seconds", 3);
}

void refitBinaryTree(Object& object, uint32_t node) {
  BuildRecord& record = object.buildRecords[node];
  Box box;
  if (record.count != 0) {
    for (uint32_t i = 0; i < record.count; ++i) growBox(box, primitiveBox(object, record.kind, record.link + i));
  } else {
    for (uint32_t child : {record.link, record.link + 1}) {
      refitBinaryTree(object, child);
      const BuildRecord& c = object.buildRecords[child];
      growBox(box, c.min, c.max);
    }
  }
  record.min = box.min;
  record.max = box.max;
}
