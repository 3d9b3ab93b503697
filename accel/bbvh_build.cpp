// Stage 1 of the hierarchy: a binary tree by binned surface-area splits, level
// by level on one thread and as tasks on several, and the refit that gives its
// nodes their boxes.
#include <immintrin.h>
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cmath>
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

// The bounds of a range's centres and the kinds it holds (bit k for kind k),
// gathered while the range is partitioned so that its own task need not pass
// over it again. Lanes 0-2 are x, y, z; the fourth is never read.
struct RangeSummary {
  __m128 low = _mm_set1_ps(infinity), high = _mm_set1_ps(-infinity);
  uint32_t kinds = 0;

  // Operands in this order pass a NaN centre over, as std::min and std::max do.
  void add(__m128 centre, uint8_t kind) {
    low = _mm_min_ps(centre, low);
    high = _mm_max_ps(centre, high);
    kinds |= 1u << kind;
  }
};

struct BuildTask {
  uint32_t node, first, count;
  RangeSummary summary;
};

constexpr int binCount = 16;

// Per axis and bin the box as min x, y, z and max x, y, z negated, so that one
// minimum grows both corners; the fourth and eighth lanes carry whatever the
// load brought along, which nothing reads.
struct Bins {
  __m256 box[3][binCount];
  alignas(32) uint32_t count[3][binCount];
};

const __m128 half = _mm_set1_ps(0.5f);

__m128 loadMin(const BuildEntry& e) { return _mm_loadu_ps(&e.min.x); }
__m128 loadMax(const BuildEntry& e) { return _mm_loadu_ps(&e.max.x); }
__m128 centre(const BuildEntry& e) { return _mm_mul_ps(_mm_add_ps(loadMin(e), loadMax(e)), half); }
Vec3f toVec(__m128 v) {
  alignas(16) float f[4];
  _mm_store_ps(f, v);
  return {f[0], f[1], f[2]};
}

Box toBox(__m256 bin) {
  alignas(32) float f[8];
  _mm256_store_ps(f, bin);
  return {{f[0], f[1], f[2]}, {-f[4], -f[5], -f[6]}};
}

// halfArea of a bin's box without leaving the registers, by the operations the
// scalar form compiles to: the same subtraction, maxps (0, e) keeping a NaN or
// a -0 as std::max (e, 0) does, and x (y + z) + y z with the first product fused.
float binArea(__m256 bin) {
  const __m128 low = _mm256_castps256_ps128(bin);
  const __m128 high = _mm_xor_ps(_mm256_extractf128_ps(bin, 1), _mm_set1_ps(-0.0f));
  const __m128 e = _mm_max_ps(_mm_setzero_ps(), _mm_sub_ps(high, low));
  const float x = _mm_cvtss_f32(e), y = _mm_cvtss_f32(_mm_movehdup_ps(e)), z = _mm_cvtss_f32(_mm_unpackhi_ps(e, e));
  return std::fma(x, y + z, y * z);
}

// A box's corners on four lanes, the fourth 0.
struct LaneBox {
  __m128 min, max;
  explicit LaneBox(const Box& b)
      : min(_mm_setr_ps(b.min.x, b.min.y, b.min.z, 0)), max(_mm_setr_ps(b.max.x, b.max.y, b.max.z, 0)) {}
  // The comparisons are false for a NaN, as the plain ones are.
  bool contains(__m128 low, __m128 high) const {
    const __m128 inside = _mm_and_ps(_mm_cmp_ps(low, min, _CMP_GE_OQ), _mm_cmp_ps(high, max, _CMP_LE_OQ));
    return (_mm_movemask_ps(inside) & 7) == 7;
  }
};

struct Level {
  std::vector<BuildRecord>& records;
  std::vector<BuildEntry>& entries;
  std::vector<BuildTask>& output;
  std::atomic<uint32_t>& outputCount;
  uint32_t nodeCount;
  int level;
};

RangeSummary summarize(const BuildEntry* e, uint32_t count) {
  RangeSummary s;
  for (uint32_t i = 0; i < count; ++i) s.add(centre(e[i]), e[i].kind);
  return s;
}

void clearBins(Bins& bins) {
  for (int axis = 0; axis < 3; ++axis) {
#pragma GCC unroll 16
    for (__m256& box : bins.box[axis]) box = _mm256_set1_ps(infinity);
    for (int k = 0; k < binCount; k += 8)
      _mm256_store_si256(reinterpret_cast<__m256i*>(&bins.count[axis][k]), _mm256_setzero_si256());
  }
}

// Bin number trunc((1 / extent) (centre - low) 16) per axis, limited to 0..15,
// with a NaN in bin 0; and the corners as the bins hold them.
struct BinMap {
  __m128 lowest, scale;
  BinMap(Vec3f low, Vec3f extent)
      : lowest(_mm_setr_ps(low.x, low.y, low.z, 0)),
        scale(_mm_setr_ps(1.0f / extent.x, 1.0f / extent.y, 1.0f / extent.z, 0)) {}

  void add(const BuildEntry& e, Bins& bins) const {
    // min x y z, max x, then max x y z, index: spread to min x y z, -max x y z.
    const __m256 corners =
        _mm256_xor_ps(_mm256_permutevar8x32_ps(_mm256_loadu_ps(&e.min.x), _mm256_setr_epi32(0, 1, 2, 3, 3, 4, 5, 6)),
                      _mm256_setr_ps(0, 0, 0, 0, -0.0f, -0.0f, -0.0f, -0.0f));
    __m128 f = _mm_mul_ps(_mm_mul_ps(scale, _mm_sub_ps(centre(e), lowest)), _mm_set1_ps(float(binCount)));
    // max answers its second operand for a NaN
    f = _mm_min_ps(_mm_max_ps(f, _mm_setzero_ps()), _mm_set1_ps(float(binCount - 1)));
    const __m128i index = _mm_cvttps_epi32(f);
    // Operands in this order pass a NaN corner over, as growBox does.
    auto grow = [&](int axis, int bin) {
      bins.box[axis][bin] = _mm256_min_ps(corners, bins.box[axis][bin]);
      ++bins.count[axis][bin];
    };
    grow(0, _mm_cvtsi128_si32(index));
    grow(1, _mm_extract_epi32(index, 1));
    grow(2, _mm_extract_epi32(index, 2));
  }
};

// Counts every primitive in one bin per axis.
void fillBins(const BuildEntry* e, uint32_t count, Vec3f low, Vec3f extent, Bins& bins) {
  const BinMap map(low, extent);
  clearBins(bins);
  for (uint32_t i = 0; i < count; ++i) map.add(e[i], bins);
}

// Bit k set when bin k of the axis holds a primitive.
uint32_t usedBins(const uint32_t* count) {
  const __m256i zero = _mm256_setzero_si256();
  const __m256i low = _mm256_load_si256(reinterpret_cast<const __m256i*>(count));
  const __m256i high = _mm256_load_si256(reinterpret_cast<const __m256i*>(count + 8));
  const uint32_t empty = uint32_t(_mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(low, zero)))) |
                         uint32_t(_mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(high, zero)))) << 8;
  return ~empty & 0xFFFFu;
}

// Partition by the two boxes; a primitive in both goes to the smaller one, ties
// to the right. Each side's summary is gathered on the way.
uint32_t partitionBoxes(BuildEntry* e, uint32_t count, const Box& left, const Box& right, RangeSummary& leftSide,
                        RangeSummary& rightSide) {
  const bool leftSmaller = halfArea(left.min, left.max) < halfArea(right.min, right.max);
  const LaneBox l(left), r(right);
  uint32_t i = 0, j = count;
  while (i < j) {
    const __m128 low = loadMin(e[i]), high = loadMax(e[i]);
    const __m128 c = _mm_mul_ps(_mm_add_ps(low, high), half);
    const bool inLeft = l.contains(low, high), inRight = r.contains(low, high);
    if (inLeft && (!inRight || leftSmaller)) {
      leftSide.add(c, e[i].kind);
      ++i;
    } else {
      rightSide.add(c, e[i].kind);
      --j;
      const __m256 a = _mm256_loadu_ps(&e[i].min.x), b = _mm256_loadu_ps(&e[j].min.x);
      _mm256_storeu_ps(&e[i].min.x, b);
      _mm256_storeu_ps(&e[j].min.x, a);
    }
  }
  return i < count ? i : 0;
}

// Returns the size of the left side, or 0 when no split was found.
uint32_t splitBySurfaceArea(BuildEntry* e, uint32_t count, Vec3f low, Vec3f high, RangeSummary& leftSide,
                            RangeSummary& rightSide) {
  Vec3f extent = high - low;
  if (extent.x == 0 && extent.y == 0 && extent.z == 0) return 0;
  Bins bins;
  fillBins(e, count, low, extent, bins);
  float best = infinity;
  __m256 left = _mm256_setzero_ps(), right = left;
  for (int axis = 0; axis < 3; ++axis) {
    if (extent[axis] == 0) continue;
    const __m256* bin = bins.box[axis];
    const uint32_t* binCounts = bins.count[axis];
    const uint32_t used = usedBins(binCounts);
    // The sides are tried at k = 1 and after every used bin below 15: past an
    // empty bin both sides and so the cost repeat, and only a strictly smaller
    // cost counts. An empty bin would change no union, so only used bins are
    // visited, which keeps the many small tasks of the deep levels cheap.
    const uint32_t splits = ((used << 1) | 2u) & 0xFFFEu;
    __m256 suffix[binCount];
    uint32_t suffixCount[binCount];
    // The right side of the split after bin b is what the used bins above b
    // hold; bin 0 unused leaves the split at 1 to the union of all.
    __m256 running = _mm256_set1_ps(infinity);
    uint32_t n = 0;
    for (uint32_t rest = used; rest;) {
      const int b = 31 - __builtin_clz(rest);
      rest ^= 1u << b;
      if (b + 1 < binCount) suffix[b + 1] = running, suffixCount[b + 1] = n;
      running = _mm256_min_ps(running, bin[b]);
      n += binCounts[b];
    }
    if (!(used & 1u)) suffix[1] = running, suffixCount[1] = n;
    __m256 prefixBox = _mm256_set1_ps(infinity);
    uint32_t m = 0;
    for (uint32_t rest = splits; rest; rest &= rest - 1) {
      const int k = __builtin_ctz(rest);
      prefixBox = _mm256_min_ps(prefixBox, bin[k - 1]);
      m += binCounts[k - 1];
      // The sum as the compiler fuses it in the plain form: the right side's product.
      const float cost = std::fma(float(suffixCount[k]), binArea(suffix[k]), binArea(prefixBox) * float(m));
      if (cost < best) {
        best = cost;
        left = prefixBox;
        right = suffix[k];
      }
    }
  }
  if (best == infinity) return 0;
  return partitionBoxes(e, count, toBox(left), toBox(right), leftSide, rightSide);
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

// Splits a task's range in place into `sides`, their nodes still to be
// numbered; answers false when the range became a leaf of `record`.
bool splitRange(const BuildTask& task, int depth, BuildEntry* entries, BuildRecord& record, BuildTask (&sides)[2]) {
  BuildEntry* e = entries + task.first;
  const uint32_t kinds = task.summary.kinds;
  const uint32_t single = kinds & (1u << kindTetragon | 1u << kindInstance) ? 1 : 0;
  const bool oneKind = (kinds & (kinds - 1)) == 0;
  RangeSummary leftSide, rightSide;
  uint32_t leftCount = 0;
  if (depth < maxBuildDepth - 1 && task.count > 2 - single)
    leftCount =
        splitBySurfaceArea(e, task.count, toVec(task.summary.low), toVec(task.summary.high), leftSide, rightSide);
  if (leftCount == 0) {
    if (oneKind) {
      makeLeaf(record, task.first, task.count, e[0].kind);
      return false;
    }
    leftCount = splitByKind(e, task.count);
    leftSide = summarize(e, leftCount);
    rightSide = summarize(e + leftCount, task.count - leftCount);
  }
  sides[0] = {0, task.first, leftCount, leftSide};
  sides[1] = {0, task.first + leftCount, task.count - leftCount, rightSide};
  return true;
}

void makeInner(BuildRecord& record, uint32_t child, BuildTask (&sides)[2]) {
  record.link = child;
  record.count = 0;
  record.kind = 0;
  sides[0].node = child;
  sides[1].node = child + 1;
}

// Ranges still open after the last level would read as inner nodes pointing
// at the root: each keeps the leading run of its first kind as a leaf.
void makeLastLeaf(BuildRecord& record, const BuildTask& task, const BuildEntry* entries) {
  const BuildEntry* e = entries + task.first;
  uint32_t run = 1;
  while (run < task.count && e[run].kind == e[0].kind) ++run;
  makeLeaf(record, task.first, run, e[0].kind);
}

void splitTask(const BuildTask& task, Level& level) {
  BuildTask sides[2];
  BuildRecord& record = level.records[task.node];
  if (!splitRange(task, level.level, level.entries.data(), record, sides)) return;
  const uint32_t slot = level.outputCount.fetch_add(2);
  makeInner(record, level.nodeCount + slot, sides);
  level.output[slot] = sides[0];
  level.output[slot + 1] = sides[1];
}

// Level by level, every node numbered in the order of its level: the order
// that a build on one thread must keep.
uint32_t buildByLevels(std::vector<BuildRecord>& records, std::vector<BuildEntry>& entries, BuildTask root) {
  records.assign(1, BuildRecord{});
  std::vector<BuildTask> tasks{root}, output;
  uint32_t nodeCount = 1;
  std::atomic<uint32_t> outputCount;
  for (int depth = 0; depth < maxBuildDepth && !tasks.empty(); ++depth) {
    records.resize(nodeCount + 2 * tasks.size());
    output.resize(2 * tasks.size());
    outputCount = 0;
    Level level{records, entries, output, outputCount, nodeCount, depth};
    for (const BuildTask& task : tasks) splitTask(task, level);
    uint32_t made = outputCount;
    nodeCount += made;
    output.resize(made);
    std::swap(tasks, output);
  }
  for (const BuildTask& task : tasks) makeLastLeaf(records[task.node], task, entries.data());
  return nodeCount;
}

struct Subtrees {
  std::vector<BuildRecord>& records;
  BuildEntry* entries;
  std::atomic<uint32_t> nodeCount{1};
};

// The same splits as a task per large left side, so that threads meet only
// at the end rather than at every level; nodes are numbered as they come.
void buildSubtree(BuildTask task, int depth, Subtrees& s) {
  for (;; ++depth) {
    BuildRecord& record = s.records[task.node];
    if (depth == maxBuildDepth) {
      makeLastLeaf(record, task, s.entries);
      return;
    }
    BuildTask sides[2];
    if (!splitRange(task, depth, s.entries, record, sides)) return;
    makeInner(record, s.nodeCount.fetch_add(2), sides);
    const BuildTask left = sides[0];
    if (left.count >= 1024) {
#pragma omp task default(none) firstprivate(left, depth) shared(s)
      buildSubtree(left, depth + 1, s);
    } else {
      buildSubtree(left, depth + 1, s);
    }
    task = sides[1];
  }
}

std::vector<BuildEntry> gatherEntries(const Object& object) {
  const size_t counts[] = {object.particles.indices.size(), object.cylinders.indices.size(),
                           object.mesh.triangles.size(), object.mesh.tetragons.size(), object.instances.size()};
  size_t total = 0;
  for (size_t count : counts) total += count;
  std::vector<BuildEntry> entries(total);
  BuildEntry* out = entries.data();
  for (int k = 0; k < 5; ++k) {
    const uint8_t kind = uint8_t(kindParticle + k);
    const int64_t count = int64_t(counts[k]);
#pragma omp parallel for schedule(static) if (count >= 16384)
    for (int64_t i = 0; i < count; ++i) {
      const Box box = primitiveBox(object, kind, uint32_t(i));
      out[i] = {box.min, box.max, uint32_t(i), kind};
    }
    out += count;
  }
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
  const BuildTask root{0, 0, uint32_t(entries.size()), summarize(entries.data(), uint32_t(entries.size()))};
  if (omp_get_max_threads() == 1 || omp_in_parallel()) {
    records.resize(buildByLevels(records, entries, root));
  } else {
    // Every leaf holds a primitive, so a tree has fewer than twice as many nodes.
    records.assign(2 * entries.size(), BuildRecord{});
    Subtrees subtrees{records, entries.data()};
    // No task splits off below two left sides' worth, and waking the team
    // costs a small object far more than its build.
#pragma omp parallel if (entries.size() >= 2048)
#pragma omp single
    buildSubtree(root, 0, subtrees);
    records.resize(subtrees.nodeCount);
  }
  reorderPrimitives(object, entries);
  printRow("accel built", float((clockNanoseconds() - start) / 1000000), "m seconds", 3);
}

namespace {

// The subtrees of the top levels are refitted as tasks of their own; every
// box is still the union of its children's in the same order.
void refitSubtree(Object& object, uint32_t node, int depth) {
  BuildRecord& record = object.buildRecords[node];
  Box box;
  if (record.count != 0) {
    for (uint32_t i = 0; i < record.count; ++i) growBox(box, primitiveBox(object, record.kind, record.link + i));
  } else {
    const uint32_t link = record.link;
    if (depth < 6) {
#pragma omp task shared(object)
      refitSubtree(object, link, depth + 1);
      refitSubtree(object, link + 1, depth + 1);
#pragma omp taskwait
    } else {
      refitSubtree(object, link, depth + 1);
      refitSubtree(object, link + 1, depth + 1);
    }
    for (uint32_t child : {link, link + 1}) {
      const BuildRecord& c = object.buildRecords[child];
      growBox(box, c.min, c.max);
    }
  }
  record.min = box.min;
  record.max = box.max;
}

}  // namespace

void refitBinaryTree(Object& object, uint32_t node) {
#pragma omp parallel if (object.buildRecords.size() >= 16384)
#pragma omp single
  refitSubtree(object, node, 0);
}
