// The object exports: they store what the host hands over and compute nothing.
#include "geometry/object.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "frame/report.h"
#include "qz.h"
#include "shading/shader.h"

std::vector<Object> objects;

namespace {

// Indices are the caller's responsibility; a bad one is ignored rather than followed.
Object* findObject(int object) {
  return object >= 0 && size_t(object) < objects.size() ? &objects[object] : nullptr;
}

Instance* findInstance(int object, int instance) {
  Object* o = findObject(object);
  return o && instance >= 0 && size_t(instance) < o->instances.size() ? &o->instances[instance] : nullptr;
}

uint32_t packComponent(float c) {
  float scaled = c * 511.9999f;
  return uint32_t((scaled == scaled ? int(scaled) : 0) + 512);
}

template <typename T>
int appendChannel(std::vector<VertexChannel<T>>& list, const char* name) {
  list.push_back({name, {}});
  return int(list.size()) - 1;
}

// Which list and entry take the data; -1 stands for the packed normals or tangents.
template <typename Set>
int addVertexData(Set& set, Mesh* mesh, const std::string& name, int count, int dim, const float* data) {
  const int n = data ? count : 0;
  if (dim == 1) {
    int channel = !mesh && name == "radius" ? 0 : appendChannel(set.scalarChannels, name.c_str());
    for (int i = 0; i < n; ++i) set.scalarChannels[channel].values.push_back(data[i]);
    return channel;
  }
  if (dim == 2) {
    int channel = name == "uv" ? 0 : appendChannel(set.pairChannels, name.c_str());
    for (int i = 0; i < n; ++i) set.pairChannels[channel].values.push_back({data[2 * i], data[2 * i + 1]});
    return channel;
  }
  if (mesh && (name == "normal" || name == "tangent")) {
    std::vector<uint32_t>& packed = name == "normal" ? mesh->normals : mesh->tangents;
    for (int i = 0; i < n; ++i) packed.push_back(packUnitVector({data[3 * i], data[3 * i + 1], data[3 * i + 2]}));
    return -1;
  }
  int channel = name == "position" ? 0 : appendChannel(set.vectorChannels, name.c_str());
  for (int i = 0; i < n; ++i) set.vectorChannels[channel].values.push_back({data[3 * i], data[3 * i + 1], data[3 * i + 2]});
  return channel;
}

}  // namespace

uint32_t packUnitVector(Vec3f v) {
  v = normalize(v);
  return packComponent(v.x) | packComponent(v.y) << 10 | packComponent(v.z) << 20;
}

Vec3f unpackUnitVector(uint32_t word) {
  auto field = [&](int shift) { return float(int((word >> shift) & 1023) - 512); };
  return normalize({field(0), field(10), field(20)});
}

bool isEmptyObject(const Object& object) {
  return object.particles.indices.empty() && object.cylinders.indices.empty() && object.mesh.triangles.empty() &&
         object.mesh.tetragons.empty() && object.instances.empty();
}

int qzAddObject() {
  objects.emplace_back();
  char name[24];
  std::snprintf(name, sizeof name, "object%04d", int(objects.size() - 1));
  objects.back().name = name;
  return int(objects.size() - 1);
}

void qzSetObjectName(int object, const char* name) {
  if (Object* o = findObject(object)) o->name = name ? name : "";
}

void qzSetObjectMatrix(int object, const float* matrix) {
  Object* o = findObject(object);
  if (o && matrix) std::memcpy(o->matrix.m, matrix, sizeof o->matrix.m);
}

void qzSetObjectShader(int object, int kind, int shader) {
  Object* o = findObject(object);
  if (!o) return;
  if (kind == kindParticle) o->particles.shader = shader;
  if (kind == kindCylinder) o->cylinders.shader = shader;
  if (kind == kindTriangle || kind == kindTetragon) o->mesh.shader = shader;
}

void qzAddPrimitives(int object, int kind, int count, const unsigned* indices) {
  Object* o = findObject(object);
  if (!o || !indices) return;
  const uint32_t shader = uint32_t(o->mesh.shader);
  for (int i = 0; i < count; ++i) {
    switch (kind) {
      case kindParticle:
        o->particles.indices.push_back(indices[i]);
        break;
      case kindCylinder:
        o->cylinders.indices.push_back({indices[i], 0});
        break;
      case kindTriangle:
        o->mesh.triangles.push_back({indices[3 * i], indices[3 * i + 1], indices[3 * i + 2], shader});
        break;
      case kindTetragon:
        o->mesh.tetragons.push_back(
            {indices[4 * i], indices[4 * i + 1], indices[4 * i + 2], indices[4 * i + 3], shader});
        break;
      default:
        return;
    }
  }
}

int qzAddVertexData(int object, int kind, const char* name, int count, int dim, const float* data) {
  if (unsigned(dim) > 3) {
    printError("qzAddVertexData() - currently per vertex data support up to 4 dimensions");
    return -1;
  }
  Object* o = findObject(object);
  if (!o || dim == 0) return -1;
  const std::string channel = name ? name : "";
  switch (kind) {
    case kindParticle:
      return addVertexData(o->particles, nullptr, channel, count, dim, data);
    case kindCylinder:
      return addVertexData(o->cylinders, nullptr, channel, count, dim, data);
    case kindTriangle:
    case kindTetragon:
      return addVertexData(o->mesh, &o->mesh, channel, count, dim, data);
    default:
      return -1;
  }
}

int qzAddInstance(int object) {
  Object* o = findObject(object);
  if (!o) return -1;
  o->instances.emplace_back();
  return int(o->instances.size() - 1);
}

void qzSetInstance(int object, int instance, int target, const float* matrix) {
  Instance* i = findInstance(object, instance);
  if (!i) return;
  i->object = target;
  if (matrix) std::memcpy(i->matrix.m, matrix, sizeof i->matrix.m);
}

void qzOverrideShader(int object, int instance, const char* from, const char* to) {
  Instance* i = findInstance(object, instance);
  if (!i) return;
  const int source = findOrAddShader(from ? from : "");
  i->overrides[source] = findOrAddShader(to ? to : "");
}
