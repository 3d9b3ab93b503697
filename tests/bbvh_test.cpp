#include "accel/bbvh.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <sstream>

#include "accel/primitive_bounds.h"
#include "geometry/object.h"
#include "tests/mesh_fixture.h"
#include "tests/test_util.h"

namespace {

void buildHierarchy(Object& object) {
  captureOutput([&] {
    buildBinaryTree(object);
    refitBinaryTree(object, 0);
    restructureTree(object);
    collapseTree(object);
  });
}

Box laneBox(const BvhNode& node, int lane) {
  return {{node.min_x[lane], node.min_y[lane], node.min_z[lane]},
          {node.max_x[lane], node.max_y[lane], node.max_z[lane]}};
}

bool inside(const Box& inner, const Box& outer) {
  return inner.min.x >= outer.min.x && inner.min.y >= outer.min.y && inner.min.z >= outer.min.z &&
         inner.max.x <= outer.max.x && inner.max.y <= outer.max.y && inner.max.z <= outer.max.z;
}

// What a primitive is, independent of where the build put it.
std::string primitiveName(const Object& o, uint8_t kind, uint32_t i) {
  std::ostringstream s;
  s << int(kind) << ":";
  if (kind == kindParticle) s << o.particles.indices[i];
  if (kind == kindCylinder) s << o.cylinders.indices[i].first;
  if (kind == kindTriangle)
    s << o.mesh.triangles[i].i0 << "," << o.mesh.triangles[i].i1 << "," << o.mesh.triangles[i].i2;
  if (kind == kindTetragon) s << o.mesh.tetragons[i].i0 << "," << o.mesh.tetragons[i].i2;
  if (kind == kindInstance) s << o.instances[i].matrix.m[3] << "," << o.instances[i].matrix.m[7];
  return s.str();
}

// Walks from node 0 with mask 0xFF as traversal does, checking that every lane
// box holds everything below it, and describes the tree's shape.
struct TreeWalk {
  const Object& object;
  std::vector<int> seen[6];
  int badBoxes = 0, badLanes = 0;
  std::ostringstream shape;

  explicit TreeWalk(const Object& o) : object(o) {
    seen[kindParticle].assign(o.particles.indices.size(), 0);
    seen[kindCylinder].assign(o.cylinders.indices.size(), 0);
    seen[kindTriangle].assign(o.mesh.triangles.size(), 0);
    seen[kindTetragon].assign(o.mesh.tetragons.size(), 0);
    seen[kindInstance].assign(o.instances.size(), 0);
    walk(0, 0xFF, Box{{-infinity, -infinity, -infinity}, {infinity, infinity, infinity}});
  }

  void walk(uint32_t n, uint32_t mask, const Box& parent) {
    const BvhNode& node = object.bvhNodes.at(n);
    shape << "(";
    for (int lane = 0; lane < 8; ++lane) {
      if (!(mask >> lane & 1)) continue;
      uint64_t child = node.child[lane];
      if (child == emptyLane) continue;
      if (lane >= firstFreeLane(node)) ++badLanes;
      Box box = laneBox(node, lane);
      if (!inside(box, parent)) ++badBoxes;
      shape << box.min.x << " " << box.max.y << " ";
      if (!isLeafReference(child)) {
        walk(referenceIndex(child), referenceMask(child), box);
        continue;
      }
      uint8_t kind = referenceKind(child);
      std::vector<std::string> names;
      for (uint32_t i = referenceIndex(child); i < referenceIndex(child) + referenceCount(child); ++i) {
        ++seen[kind].at(i);
        if (!inside(primitiveBox(object, kind, i), box)) ++badBoxes;
        names.push_back(primitiveName(object, kind, i));
      }
      std::sort(names.begin(), names.end());
      for (const std::string& name : names) shape << name << " ";
    }
    shape << ")";
  }

  bool everyPrimitiveOnce() const {
    for (const std::vector<int>& kind : seen)
      for (int count : kind)
        if (count != 1) return false;
    return true;
  }
};

void expectSound(const Object& object) {
  TreeWalk walk(object);
  EXPECT_TRUE(walk.everyPrimitiveOnce());
  EXPECT_EQ(walk.badBoxes, 0);
  EXPECT_EQ(walk.badLanes, 0);
}

std::string shapeWithThreads(Object object, int threads) {
  int saved = omp_get_max_threads();
  omp_set_num_threads(threads);
  buildHierarchy(object);
  omp_set_num_threads(saved);
  expectSound(object);
  return TreeWalk(object).shape.str();
}

// A placed object with a box and nothing else, then a mix of all five kinds.
Object randomMix(uint32_t seed, int perKind) {
  objects.clear();
  objects.emplace_back();
  objects[0].boundsMin = {-0.5f, -0.5f, -0.5f};
  objects[0].boundsMax = {0.5f, 0.5f, 0.5f};
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> coordinate(-10, 10), small(-0.5f, 0.5f), radius(0.01f, 0.3f);
  auto point = [&] { return Vec3f{coordinate(random), coordinate(random), coordinate(random)}; };
  auto near = [&](Vec3f p) { return p + Vec3f{small(random), small(random), small(random)}; };
  Object o;
  for (int i = 0; i < perKind; ++i) {
    o.particles.worldPositions.push_back(point());
    o.particles.scalarChannels[0].values.push_back(radius(random));
    o.particles.indices.push_back(uint32_t(i));
  }
  for (int strand = 0; strand < perKind / 4; ++strand) {
    Vec3f p = point();
    for (int v = 0; v < 5; ++v) {
      uint32_t index = uint32_t(o.cylinders.worldPositions.size());
      o.cylinders.worldPositions.push_back(p);
      o.cylinders.tangents.push_back(packUnitVector({small(random), 1, small(random)}));
      o.cylinders.scalarChannels[0].values.push_back(radius(random) * 0.1f);
      if (v < 4) o.cylinders.indices.push_back({index, uint32_t(strand)});
      p = near(p) + Vec3f{0, 0.5f, 0};
    }
  }
  Mesh& m = o.mesh;
  for (int i = 0; i < perKind; ++i) {
    Vec3f p = point();
    uint32_t v = uint32_t(m.worldPositions.size());
    for (int k = 0; k < 7; ++k) m.worldPositions.push_back(near(p));
    m.triangles.push_back({v, v + 1, v + 2, 0});
    m.tetragons.push_back({v + 3, v + 4, v + 5, v + 6, 0});
  }
  for (int i = 0; i < perKind / 8; ++i) {
    Instance instance;
    instance.object = 0;
    Vec3f p = point();
    instance.matrix.m[3] = p.x;
    instance.matrix.m[7] = p.y;
    instance.matrix.m[11] = p.z;
    o.instances.push_back(instance);
  }
  return o;
}

}  // namespace

TEST(Bbvh, RealMeshesReachEveryPrimitiveOnceInsideNestedBoxes) {
  for (const char* file : {"data/stanford-bunny.obj", "data/ogre.obj"}) {
    Object object;
    ASSERT_TRUE(readObjMesh(file, object.mesh)) << file;
    size_t triangles = object.mesh.triangles.size();
    std::string one = shapeWithThreads(object, 1);
    std::string many = shapeWithThreads(object, 3);
    EXPECT_EQ(one, many) << file;
    buildHierarchy(object);
    EXPECT_EQ(object.mesh.triangles.size(), triangles);
    // Shared nodes keep most lanes busy.
    EXPECT_GT(simdOccupancy(object), 60.0f) << file;
  }
}

TEST(Bbvh, RandomMixesOfAllKindsAreSoundAndIndependentOfThreads) {
  for (uint32_t seed : {1u, 2u, 3u}) {
    Object object = randomMix(seed, 400 * int(seed));
    std::string one = shapeWithThreads(object, 1);
    EXPECT_EQ(one, shapeWithThreads(object, 2)) << seed;
    EXPECT_EQ(one, shapeWithThreads(object, 5)) << seed;
  }
  objects.clear();
}

TEST(Bbvh, RefitFollowsMovedPrimitivesWithoutNewTopology) {
  Object object = randomMix(7, 300);
  buildHierarchy(object);
  size_t nodes = object.bvhNodes.size();
  for (Vec3f& p : object.mesh.worldPositions) p += Vec3f{3, -1, 2};
  for (Vec3f& p : object.particles.worldPositions) p = p * 1.5f;
  captureOutput([&] {
    refitBinaryTree(object, 0);
    restructureTree(object);
    collapseTree(object);
  });
  expectSound(object);
  EXPECT_NEAR(float(object.bvhNodes.size()), float(nodes), nodes * 0.2f);
  objects.clear();
}

TEST(Bbvh, SameCentresFallBackToLeavesByKind) {
  // 300 triangles around one centre: one leaf whose count wraps in its byte.
  Object same;
  same.mesh.worldPositions = {{-1, 0, 0}, {1, 0, 0}, {0, 1, 0}};
  same.mesh.triangles.assign(300, Triangle{0, 1, 2, 0});
  buildHierarchy(same);
  ASSERT_EQ(same.buildRecords.size(), 1u);
  EXPECT_EQ(same.buildRecords[0].count, 44);
  EXPECT_EQ(same.mesh.triangles.size(), 44u);

  // A mix sharing one centre splits by kind, the smallest kind on the left.
  Object mix;
  mix.mesh.worldPositions = {{-1, -1, 0}, {1, -1, 0}, {1, 1, 0}, {-1, 1, 0}, {0, 0, 0}};
  mix.mesh.tetragons = {{0, 1, 2, 3, 0}};
  mix.mesh.triangles.assign(2, Triangle{0, 2, 4, 0});
  mix.particles.worldPositions = {{0, 0, 0}};
  mix.particles.scalarChannels[0].values = {1};
  mix.particles.indices.assign(2, 0);
  buildHierarchy(mix);
  const std::vector<BuildRecord>& r = mix.buildRecords;
  ASSERT_EQ(r.size(), 5u);
  const BuildRecord &left = r[r[0].link], &right = r[r[0].link + 1];
  EXPECT_EQ(left.kind, kindParticle);
  EXPECT_EQ(left.count, 2);
  ASSERT_EQ(right.count, 0);
  EXPECT_EQ(r[right.link].kind, kindTriangle);
  EXPECT_EQ(r[right.link].count, 2);
  EXPECT_EQ(r[right.link + 1].kind, kindTetragon);
  expectSound(mix);
}

TEST(Bbvh, SmallTreesAndTheirLaneMasks) {
  Object one;
  one.mesh.worldPositions = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {5, 0, 0}, {6, 0, 0}, {5, 1, 0}, {9, 0, 0}, {9, 1, 0}};
  one.mesh.triangles = {{0, 1, 2, 0}};
  buildHierarchy(one);
  ASSERT_EQ(one.bvhNodes.size(), 1u);
  EXPECT_EQ(one.bvhNodes[0].child[0], uint64_t(1) << 56 | uint64_t(kindTriangle) << 48);
  EXPECT_EQ(one.bvhNodes[0].child[1], emptyLane);
  EXPECT_EQ(one.bvhNodes[0].max_x[1], -infinity);
  EXPECT_FLOAT_EQ(simdOccupancy(one), 12.5f);

  Object two = one;
  two.mesh.triangles = {{0, 1, 2, 0}, {3, 4, 5, 0}};
  buildHierarchy(two);
  EXPECT_EQ(two.buildRecords.size(), 1u);
  EXPECT_EQ(referenceCount(two.bvhNodes[0].child[0]), 2);

  Object three = one;
  three.mesh.triangles = {{0, 1, 2, 0}, {3, 4, 5, 0}, {4, 6, 7, 0}};
  buildHierarchy(three);
  EXPECT_GT(three.buildRecords.size(), 1u);
  expectSound(three);

  // Two tetragons never share a leaf.
  Object quads = one;
  quads.mesh.triangles.clear();
  quads.mesh.tetragons = {{0, 1, 2, 2, 0}, {3, 4, 5, 5, 0}};
  buildHierarchy(quads);
  EXPECT_EQ(quads.buildRecords.size(), 3u);
  EXPECT_EQ(firstFreeLane(quads.bvhNodes[0]), 2);
}

TEST(Bbvh, HalfAreaClampsNegativeExtents) {
  EXPECT_FLOAT_EQ(halfArea({0, 0, 0}, {1, 2, 3}), 1 * (2 + 3) + 2 * 3);
  EXPECT_FLOAT_EQ(halfArea({0, 0, 0}, {-1, 2, 3}), 6);
  EXPECT_FLOAT_EQ(halfArea({infinity, infinity, infinity}, {-infinity, -infinity, -infinity}), 0);
}

namespace {
// The greedy reclustering in its plainest form: every pair scanned in table
// order for the first strictly smallest union, deepest treelets first.
void referenceTreelet(std::vector<BuildRecord>& r, uint32_t root) {
  auto area = [](const Box& a, const Box& b) {
    Box u = a;
    growBox(u, b);
    return halfArea(u.min, u.max);
  };
  std::vector<uint32_t> leaves{root}, pairs;
  float oldCost = 0;
  while (leaves.size() < 16) {
    int pick = -1;
    float largest = -1;
    for (size_t i = 0; i < leaves.size(); ++i)
      if (r[leaves[i]].count == 0 && halfArea(r[leaves[i]].min, r[leaves[i]].max) > largest)
        largest = halfArea(r[leaves[i]].min, r[leaves[i]].max), pick = int(i);
    if (pick < 0) return;
    oldCost += largest;
    const uint32_t link = r[leaves[pick]].link;
    pairs.push_back(link);
    leaves[pick] = link;
    leaves.push_back(link + 1);
  }
  std::vector<BuildRecord> copies;
  std::vector<Box> boxes;
  std::vector<std::pair<int, int>> members(16, {-1, -1});
  for (uint32_t leaf : leaves) copies.push_back(r[leaf]), boxes.push_back({r[leaf].min, r[leaf].max});
  std::vector<int> live(16);
  for (int i = 0; i < 16; ++i) live[i] = i;
  float newCost = 0;
  while (live.size() > 1) {
    size_t bi = 0, bj = 1;
    for (size_t i = 0; i < live.size(); ++i)
      for (size_t j = i + 1; j < live.size(); ++j)
        if (area(boxes[live[i]], boxes[live[j]]) < area(boxes[live[bi]], boxes[live[bj]])) bi = i, bj = j;
    newCost += area(boxes[live[bi]], boxes[live[bj]]);
    Box merged = boxes[live[bi]];
    growBox(merged, boxes[live[bj]]);
    boxes.push_back(merged);
    members.push_back({live[bi], live[bj]});
    live[bi] = int(boxes.size()) - 1;
    live[bj] = live.back();
    live.pop_back();
  }
  if (!(oldCost > newCost)) return;
  size_t next = 0;
  auto write = [&](auto&& self, int cluster, uint32_t at) -> void {
    if (cluster < 16) {
      r[at] = copies[cluster];
      return;
    }
    const uint32_t link = pairs[next++];
    r[at].min = boxes[cluster].min, r[at].max = boxes[cluster].max;
    r[at].link = link, r[at].kind = 0, r[at].count = 0;
    self(self, members[cluster].first, link);
    self(self, members[cluster].second, link + 1);
  };
  write(write, int(boxes.size()) - 1, root);
}

void referenceRestructure(std::vector<BuildRecord>& r) {
  std::vector<std::vector<uint32_t>> depths;
  auto visit = [&](auto&& self, uint32_t node, size_t depth) -> void {
    if (depths.size() <= depth) depths.resize(depth + 1);
    depths[depth].push_back(node);
    if (r[node].count == 0) self(self, r[node].link, depth + 1), self(self, r[node].link + 1, depth + 1);
  };
  visit(visit, 0, 0);
  for (size_t d = depths.size(); d-- > 0;)
    for (uint32_t node : depths[d]) referenceTreelet(r, node);
}
}  // namespace

// Grid-aligned triangles make many equal union areas, so the order among
// equals decides; a few degenerate ones give empty extents.
TEST(Bbvh, RestructureMatchesThePlainGreedyScan) {
  for (const bool grid : {true, false}) {
    Object object = randomMix(5, 600);
    if (grid)
      for (Vec3f& p : object.mesh.worldPositions) p = {std::round(p.x), std::round(p.y), std::round(p.z * 0.25f)};
    const int threads = omp_get_max_threads();
    omp_set_num_threads(1);
    captureOutput([&] {
      buildBinaryTree(object);
      refitBinaryTree(object, 0);
    });
    omp_set_num_threads(threads);
    std::vector<BuildRecord> expected = object.buildRecords;
    referenceRestructure(expected);
    restructureTree(object);
    ASSERT_EQ(object.buildRecords.size(), expected.size());
    EXPECT_EQ(std::memcmp(object.buildRecords.data(), expected.data(), expected.size() * sizeof(BuildRecord)), 0)
        << grid;
  }
  objects.clear();
}

namespace {

// Stage 1 in its plainest form: a pass for each range's centre bounds, 16
// bins per axis grown by growBox, every split from 1 to 15 tried for the first
// strictly smallest cost, and the two-ended partition by the chosen boxes.
// The bin numbers and costs are worked out as the compiler fuses the vector
// forms' products: centre - low as one fused step, the right side's product.
struct ReferenceEntry {
  Box box;
  uint32_t index;
  uint8_t kind;
};

uint32_t referenceSplit(std::vector<ReferenceEntry>& e, uint32_t first, uint32_t count, Vec3f low, Vec3f high) {
  const Vec3f extent = high - low;
  if (extent.x == 0 && extent.y == 0 && extent.z == 0) return 0;
  Box bins[3][16];
  uint32_t counts[3][16] = {};
  for (uint32_t i = first; i < first + count; ++i)
    for (int axis = 0; axis < 3; ++axis) {
      const float twice = e[i].box.min[axis] + e[i].box.max[axis];
      float f = (1.0f / extent[axis]) * std::fma(twice, 0.5f, -low[axis]) * 16.0f;
      f = f > 0 ? f : 0;  // a NaN to bin 0
      const int bin = int(f < 15 ? f : 15);
      growBox(bins[axis][bin], e[i].box);
      ++counts[axis][bin];
    }
  float best = infinity;
  Box left, right;
  for (int axis = 0; axis < 3; ++axis) {
    if (extent[axis] == 0) continue;
    for (int k = 1; k < 16; ++k) {
      Box l, r;
      uint32_t nl = 0, nr = 0;
      for (int b = 0; b < 16; ++b) {
        growBox(b < k ? l : r, bins[axis][b]);
        (b < k ? nl : nr) += counts[axis][b];
      }
      const float cost = std::fma(float(nr), halfArea(r.min, r.max), halfArea(l.min, l.max) * float(nl));
      if (cost < best) best = cost, left = l, right = r;
    }
  }
  if (best == infinity) return 0;
  const bool leftSmaller = halfArea(left.min, left.max) < halfArea(right.min, right.max);
  uint32_t i = first, j = first + count;
  while (i < j) {
    const bool inLeft = inside(e[i].box, left), inRight = inside(e[i].box, right);
    if (inLeft && (!inRight || leftSmaller))
      ++i;
    else
      std::swap(e[i], e[--j]);
  }
  return i < first + count ? i - first : 0;
}

// The records' links, counts and kinds, then each leaf's primitives in leaf order.
std::string referenceTree(const Object& object) {
  std::vector<ReferenceEntry> e;
  for (uint8_t kind = kindParticle; kind <= kindInstance; ++kind) {
    const size_t n = kind == kindParticle   ? object.particles.indices.size()
                     : kind == kindCylinder ? object.cylinders.indices.size()
                     : kind == kindTriangle ? object.mesh.triangles.size()
                     : kind == kindTetragon ? object.mesh.tetragons.size()
                                            : object.instances.size();
    for (uint32_t i = 0; i < n; ++i) e.push_back({primitiveBox(object, kind, i), i, kind});
  }
  std::vector<BuildRecord> records(1);
  struct Task {
    uint32_t node, first, count;
  };
  std::vector<Task> tasks{{0, 0, uint32_t(e.size())}};
  auto leaf = [&](uint32_t node, uint32_t first, uint32_t count) {
    records[node].link = first;
    records[node].kind = e[first].kind;
    records[node].count = uint8_t(count) == 0 ? 255 : uint8_t(count);
  };
  for (int depth = 0; depth < maxBuildDepth && !tasks.empty(); ++depth) {
    std::vector<Task> next;
    for (const Task& t : tasks) {
      Vec3f low{infinity, infinity, infinity}, high{-infinity, -infinity, -infinity};
      bool single = false, oneKind = true;
      for (uint32_t i = t.first; i < t.first + t.count; ++i) {
        const Vec3f c = (e[i].box.min + e[i].box.max) * 0.5f;
        for (int axis = 0; axis < 3; ++axis)
          low[axis] = std::min(low[axis], c[axis]), high[axis] = std::max(high[axis], c[axis]);
        single = single || e[i].kind == kindTetragon || e[i].kind == kindInstance;
        oneKind = oneKind && e[i].kind == e[t.first].kind;
      }
      uint32_t leftCount = 0;
      if (depth < maxBuildDepth - 1 && t.count > (single ? 1u : 2u))
        leftCount = referenceSplit(e, t.first, t.count, low, high);
      if (leftCount == 0) {
        if (oneKind) {
          leaf(t.node, t.first, t.count);
          continue;
        }
        uint8_t smallest = kindInstance;
        for (uint32_t i = t.first; i < t.first + t.count; ++i) smallest = std::min(smallest, e[i].kind);
        auto begin = e.begin() + t.first;
        leftCount = uint32_t(
            std::partition(begin, begin + t.count, [&](const ReferenceEntry& x) { return x.kind == smallest; }) -
            begin);
      }
      const uint32_t child = uint32_t(records.size());
      records.resize(child + 2);
      records[t.node].link = child;
      next.push_back({child, t.first, leftCount});
      next.push_back({child + 1, t.first + leftCount, t.count - leftCount});
    }
    tasks = std::move(next);
  }
  for (const Task& t : tasks) {
    uint32_t run = 1;
    while (run < t.count && e[t.first + run].kind == e[t.first].kind) ++run;
    leaf(t.node, t.first, run);
  }
  // Leaves count their primitives from the start of their kind's array, in record order.
  std::ostringstream s;
  uint32_t next[kindInstance + 1] = {};
  for (const BuildRecord& r : records) {
    s << (r.count ? next[r.kind] : r.link) << "/" << int(r.count) << "/" << int(r.kind) << " ";
    next[r.kind] += r.count;
  }
  for (const BuildRecord& r : records)
    for (uint32_t i = 0; i < r.count; ++i) s << primitiveName(object, r.kind, e[r.link + i].index) << " ";
  return s.str();
}

std::string builtTree(Object& object) {
  captureOutput([&] { buildBinaryTree(object); });
  std::ostringstream s;
  for (const BuildRecord& r : object.buildRecords) s << r.link << "/" << int(r.count) << "/" << int(r.kind) << " ";
  for (const BuildRecord& r : object.buildRecords)
    for (uint32_t i = 0; i < r.count; ++i) s << primitiveName(object, r.kind, r.link + i) << " ";
  return s.str();
}

}  // namespace

// Grid-aligned corners put centres on bin boundaries and make equal costs; a
// few corners are NaN and a few triangles share one centre.
TEST(Bbvh, BinaryTreeMatchesThePlainBinnedSplit) {
  const int threads = omp_get_max_threads();
  omp_set_num_threads(1);
  for (const bool grid : {true, false}) {
    Object object = randomMix(7, 800);
    std::vector<Vec3f>& p = object.mesh.worldPositions;
    if (grid)
      for (Vec3f& v : p) v = {std::round(v.x), std::round(v.y * 0.5f), std::round(v.z * 0.25f)};
    for (size_t i = 0; i < p.size(); i += 97) p[i].y = std::nanf("");
    for (size_t t = 0; t < 40; ++t) object.mesh.triangles[t] = object.mesh.triangles[40];
    const std::string expected = referenceTree(object), built = builtTree(object);
    const size_t at =
        std::mismatch(expected.begin(), expected.end(), built.begin(), built.end()).first - expected.begin();
    EXPECT_EQ(at, expected.size()) << "grid " << grid << ", first difference at " << expected.substr(at, 40)
                                   << " against " << built.substr(std::min(at, built.size()), 40);
  }
  omp_set_num_threads(threads);
  objects.clear();
}
