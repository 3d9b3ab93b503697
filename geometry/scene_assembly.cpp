#include "geometry/scene_assembly.h"

#include <algorithm>

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
  for (Object& object : objects) {
    std::vector<Instance> bound;
    for (Instance& instance : object.instances) {
      for (size_t i = 0; i < objects.size() && instance.object == -1; ++i)
        if (objects[i].name == instance.objectName) instance.object = int32_t(i);
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

// The depth of the last visit stands. A placement that leads back to an object
// on the current path would recurse without end; it is dropped.
void assignLevels(uint32_t object, uint16_t level, std::vector<uint8_t>& onPath) {
  objects[object].level = level;
  onPath[object] = 1;
  std::vector<Instance>& instances = objects[object].instances;
  for (size_t i = 0; i < instances.size();) {
    const uint32_t child = uint32_t(instances[i].object);
    if (onPath[child]) {
      instances.erase(instances.begin() + ptrdiff_t(i));
      continue;
    }
    assignLevels(child, uint16_t(level + 1), onPath);
    ++i;
  }
  onPath[object] = 0;
}

uint16_t deepestLevel() {
  uint16_t deepest = 0;
  for (const Object& object : objects) deepest = std::max(deepest, object.level);
  return deepest;
}

void publishBounds() {
  if (rootObject >= objects.size()) return;
  sceneMin = objects[rootObject].boundsMin;
  sceneMax = objects[rootObject].boundsMax;
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
  std::vector<uint8_t> onPath(objects.size(), 0);
  assignLevels(rootObject, 0, onPath);
  for (int level = deepestLevel(); level >= 0; --level)
    for (Object& object : objects)
      if (object.level == level) prepareObject(object);
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
  for (int level = deepestLevel(); level >= 0; --level)
    for (Object& object : objects)
      if (object.level == level && object.hasMotion && !isEmptyObject(object)) buildObject(object);
  publishBounds();
}

void qzInitializeAccelerator() { assembleScene(); }

void qzFinalizeAccelerator() { std::vector<Object>().swap(objects); }
