#include "geometry/scene_assembly.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <unordered_map>

#include "accel/bbvh.h"
#include "frame/report.h"
#include "geometry/object.h"
#include "qz.h"
#include "shading/shader.h"

uint32_t rootObject = 0;
Vec3f sceneMin, sceneMax, sceneCenter;
float sceneRadius = 0;

namespace {

void resolveInstances() {
  // The first object of each name in array order, looked up once an instance.
  std::unordered_map<std::string_view, int32_t> byName;
  for (size_t i = objects.size(); i-- > 0;) byName[objects[i].name] = int32_t(i);
  for (Object& object : objects) {
    std::vector<Instance> bound;
    for (Instance& instance : object.instances) {
      if (instance.object == -1) {
        const auto found = byName.find(instance.objectName);
        if (found != byName.end()) instance.object = found->second;
      }
      if (instance.object == -1)
        printError("instance - " + instance.objectName + " does not exist");
      else
        bound.push_back(std::move(instance));
    }
    object.instances = std::move(bound);
  }
}

// Indices bound by number may point past the array, most of all after a
// second removal of empty objects; such placements are left out.
void dropDanglingInstances() {
  for (Object& object : objects)
    std::erase_if(object.instances,
                  [](const Instance& i) { return i.object < 0 || size_t(i.object) >= objects.size(); });
}

void chooseRoot() {
  for (Object& object : objects) object.referenced = 0;
  for (const Object& object : objects)
    for (const Instance& instance : object.instances) objects[instance.object].referenced = 1;
  rootObject = 0;
  int unreferenced = 0;
  for (uint32_t i = 0; i < objects.size(); ++i)
    if (!objects[i].referenced) {
      ++unreferenced;
      rootObject = i;
    }
  if (unreferenced == 0) {
    printWarning("object - there is no root object");
    printRule();
  }
  if (unreferenced < 2) return;
  printWarning("object - there are multiple root objects");
  printWarning("object - " + objects[rootObject].name + " is treated as the root object");
  printRule();
  for (uint32_t i = 0; i < objects.size(); ++i) {
    if (objects[i].referenced || i == rootObject) continue;
    Instance instance;
    instance.object = int32_t(i);
    instance.objectName = objects[i].name;
    objects[rootObject].instances.push_back(instance);
  }
}

// Walks the graph below the root once per object, without recursion: a
// placement that leads back to an object on the current path would recurse
// without end and is dropped. Returns the objects reached, each after all it
// places.
std::vector<uint32_t> dropCycles(uint32_t root) {
  enum : uint8_t { unseen, onPath, done };
  std::vector<uint8_t> state(objects.size(), unseen);
  std::vector<std::pair<uint32_t, size_t>> path{{root, 0}};
  std::vector<uint32_t> finished;
  state[root] = onPath;
  while (!path.empty()) {
    auto& [object, next] = path.back();
    std::vector<Instance>& instances = objects[object].instances;
    if (next == instances.size()) {
      state[object] = done;
      finished.push_back(object);
      path.pop_back();
      continue;
    }
    const uint32_t child = uint32_t(instances[next].object);
    if (state[child] == onPath) {
      instances.erase(instances.begin() + ptrdiff_t(next));
      continue;
    }
    ++next;
    if (state[child] == unseen) {
      state[child] = onPath;
      path.emplace_back(child, 0);
    }
  }
  return finished;
}

// An object's level is its longest path from the root, so that every child is
// built before each of its parents however the graph shares objects. Objects
// the root does not reach keep level 0.
void assignLevels(uint32_t root) {
  for (Object& object : objects) object.level = 0;
  const std::vector<uint32_t> finished = dropCycles(root);
  for (auto parent = finished.rbegin(); parent != finished.rend(); ++parent)
    for (const Instance& instance : objects[*parent].instances) {
      Object& child = objects[size_t(instance.object)];
      child.level = std::max(child.level, objects[*parent].level + 1);
    }
}

// Deepest level first, array order within a level.
std::vector<uint32_t> buildOrder() {
  std::vector<uint32_t> order(objects.size());
  for (uint32_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(),
                   [](uint32_t a, uint32_t b) { return objects[a].level > objects[b].level; });
  return order;
}

uint32_t deepestLevel() {
  uint32_t deepest = 0;
  for (const Object& object : objects) deepest = std::max(deepest, object.level);
  return deepest;
}

void publishBounds() {
  if (rootObject >= objects.size()) return;
  sceneMin = objects[rootObject].boundsMin;
  sceneMax = objects[rootObject].boundsMax;
  // The lights take discs and areas from the radius, which must stay finite:
  // boxes that placements stretched to the largest float are held to a range
  // whose squares a float still holds, and a root with nothing in it is a point.
  constexpr float reach = 1e18f;
  for (int axis = 0; axis < 3; ++axis) {
    if (!(sceneMin[axis] <= sceneMax[axis])) sceneMin[axis] = sceneMax[axis] = 0;
    sceneMin[axis] = std::clamp(sceneMin[axis], -reach, reach);
    sceneMax[axis] = std::clamp(sceneMax[axis], -reach, reach);
  }
  sceneCenter = (sceneMin + sceneMax) / 2;
  sceneRadius = length(sceneMax - sceneMin) / 2;
}

}  // namespace

void removeEmptyObjects() {
  int64_t limit = int64_t(objects.size()) - 1;
  for (int64_t i = 0; i <= limit;) {
    if (isEmptyObject(objects[i])) {
      std::swap(objects[i], objects[limit]);
      --limit;
    } else {
      ++i;
    }
  }
  objects.resize(size_t(limit + 1));
}

void assembleScene() {
  clearDepthLists();
  if (objects.empty()) return;
  removeEmptyObjects();
  resolveInstances();
  removeEmptyObjects();
  dropDanglingInstances();
  if (objects.empty()) return;
  chooseRoot();
  assignLevels(rootObject);
  if (deepestLevel() >= maxPlacementDepth)
    printWarning("object - objects placed " + std::to_string(maxPlacementDepth) +
                 " instances deep or deeper are not drawn");
  for (uint32_t i : buildOrder()) prepareObject(objects[i]);
  publishBounds();
  printArrayRow("objects  ", sizeof(Object), int64_t(objects.size()), "M bytes");
  printRule();
  printTripleRow("scene minimum", sceneMin.x, sceneMin.y, sceneMin.z, "n/a");
  printTripleRow("scene maximum", sceneMax.x, sceneMax.y, sceneMax.z, "n/a");
  printTripleRow("scene  center", sceneCenter.x, sceneCenter.y, sceneCenter.z, "n/a");
  const Vec3f size = sceneMax - sceneMin;
  printTripleRow("scene    size", size.x, size.y, size.z, "m");
  printRule();
  for (Shader& shader : shaders) prepareHairShader(shader);
}

void updateMovingObjects() {
  if (objects.empty()) return;
  for (uint32_t i : buildOrder())
    if (objects[i].hasMotion && !isEmptyObject(objects[i])) buildObject(objects[i]);
  publishBounds();
}

void qzInitializeAccelerator() {
  // Every face whose shader is unknown falls back to shader 0; a scene built
  // after qzFinalize without a new qzStartup has none until it is made here.
  if (shaders.empty()) createDefaultShader();
  assembleScene();
}

void qzFinalizeAccelerator() { std::vector<Object>().swap(objects); }
