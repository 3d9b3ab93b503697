#include "geometry/emitter.h"

#include "accel/primitive_bounds.h"
#include "geometry/object.h"
#include "shading/shader.h"

namespace {

void addEntry(EmitterTable& table, float& total, Object& object, float weight, uint32_t index, uint8_t kind,
              uint8_t front) {
  table.entries.push_back({&object, weight, int32_t(index), kind, front});
  total += weight;
}

// A shader index past the array has nothing to emit.
Shader* preparedShader(uint32_t shader) {
  if (shader >= shaders.size()) return nullptr;
  prepareShader(shaders[shader]);
  return &shaders[shader];
}

// Front to emitters, back to emitters, front to light faces, back to light faces.
// A particle has a front only.
void addPrimitive(Object& object, uint32_t index, uint8_t kind, uint32_t shader, float area, int sides) {
  Shader* s = preparedShader(shader);
  if (!s) return;
  for (int side = 0; side < sides; ++side)
    if (isOn(channelNode(*s, emissionChannel, side).color))
      addEntry(object.emitters, object.emitterArea, object, area, index, kind, uint8_t(1 - side));
  for (int side = 0; side < sides; ++side)
    if (s->geometry_light[side])
      addEntry(object.lightFaces, object.lightArea, object, area, index, kind, uint8_t(1 - side));
}

void finishTable(EmitterTable& table) {
  table.count = int32_t(table.entries.size());
  table.cdf.resize(table.entries.size());
  double total = 0;
  for (size_t i = 0; i < table.entries.size(); ++i) {
    total += table.entries[i].weight;
    table.cdf[i] = float(total);
  }
  table.total = total;
  for (float& c : table.cdf) c /= float(total);
}

}  // namespace

void buildEmitterTables(Object& object) {
  object.emitters = EmitterTable{};
  object.lightFaces = EmitterTable{};
  object.emitterArea = object.lightArea = 0;
  const ParticleSet& particles = object.particles;
  for (uint32_t i = 0; i < particles.indices.size(); ++i) {
    const float r = particles.scalarChannels[0].values[particles.indices[i]];
    addPrimitive(object, i, kindParticle, uint32_t(particles.shader), 12.566371f * r * r, 1);
  }
  const Mesh& mesh = object.mesh;
  for (uint32_t i = 0; i < mesh.triangles.size(); ++i)
    addPrimitive(object, i, kindTriangle, mesh.triangles[i].shader, triangleArea(mesh, i), 2);
  for (uint32_t i = 0; i < mesh.tetragons.size(); ++i)
    addPrimitive(object, i, kindTetragon, mesh.tetragons[i].shader, tetragonArea(mesh, i), 2);
  for (uint32_t i = 0; i < object.instances.size(); ++i) {
    const Object& placed = objects[object.instances[i].object];
    addEntry(object.emitters, object.emitterArea, object, placed.emitterArea, i, kindInstance, 1);
    addEntry(object.lightFaces, object.lightArea, object, placed.lightArea, i, kindInstance, 1);
  }
  finishTable(object.emitters);
  finishTable(object.lightFaces);
}
