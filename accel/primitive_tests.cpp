// The steps after a face's geometric hit: substitution, visibility, cut-out
// and the writing of a closest hit. They run far less often than the
// geometric tests, so they stay out of line.
#include "accel/primitive_tests.h"

#include "shading/shader.h"
#include "shading/texture_node.h"

namespace {
// Out-of-range shader numbers are left on faces by preparation; such a face
// is seen by every ray and never cut out.
const Shader* findShader(uint32_t shader) { return shader < shaders.size() ? &shaders[shader] : nullptr; }
}  // namespace

bool visibleShader(const Ray& ray, uint32_t primitiveShader, uint32_t& shader) {
  shader = primitiveShader;
  if (ray.instance && !ray.instance->overrides.empty()) {
    const auto found = ray.instance->overrides.find(int32_t(primitiveShader));
    if (found != ray.instance->overrides.end()) shader = uint32_t(found->second);
  }
  if (ray.bounces != 0) return true;
  const Shader* s = findShader(shader);
  if (!s) return true;
  const uint8_t hidden = s->geometry.primary_visibility;
  return !((ray.hit.event == lightEvent && hidden == 1) || (ray.hit.event == cameraEvent && hidden == 2));
}

namespace {
FloatPair uvAt(const Mesh& mesh, uint32_t vertex) {
  const std::vector<FloatPair>& uv = mesh.pairChannels[0].values;
  return vertex < uv.size() ? uv[vertex] : FloatPair{};
}

// All or nothing per ray: the opacity at the hit against one fresh random number.
bool cutOut(const Shader& shader, const Mesh& mesh, const Ray& ray, const uint32_t* corners, int cornerCount,
            const FaceCrossing& c) {
  Surface at;
  at.position = at.smooth_position = ray.origin + c.t * ray.direction;
  at.view = -ray.direction;
  at.instance_id = ray.instance_id;
  if (!mesh.pairChannels[0].values.empty())
    for (int i = 0; i < cornerCount; ++i) {
      const FloatPair uv = uvAt(mesh, corners[i]);
      at.uv[0] += c.weights[i] * uv.u;
      at.uv[1] += c.weights[i] * uv.v;
    }
  const float u = drawLoose();
  const Color3f opacity = evaluateColor(shader.geometry.opacity, at);
  return u > opacity.r || u > opacity.g || u > opacity.b;
}

void writeFaceHit(const Object& object, Ray& ray, uint8_t kind, uint32_t index, uint32_t shader,
                  const FaceCrossing& c) {
  recordHit(object, ray, kind, index, shader, c.t);
  ray.facing = -c.denominator;
}

bool faceStopsRay(const Mesh& mesh, const Ray& ray, uint32_t faceShader, const uint32_t* corners, int cornerCount,
                  const FaceCrossing& crossing, uint32_t& shader) {
  if (!visibleShader(ray, faceShader, shader)) return false;
  const Shader* s = findShader(shader);
  return !(s && s->geometry.opacity_textured && cutOut(*s, mesh, ray, corners, cornerCount, crossing));
}

// The triangle form skips the cut-out when the mesh has no uv; the tetragon form reads a zero uv.
bool triangleStopsRay(const Object& object, uint32_t index, const Ray& ray, const FaceCrossing& c, uint32_t& shader) {
  const Triangle& t = object.mesh.triangles[index];
  const uint32_t corners[3] = {t.i0, t.i1, t.i2};
  if (object.mesh.pairChannels[0].values.empty()) return visibleShader(ray, t.shader, shader);
  return faceStopsRay(object.mesh, ray, t.shader, corners, 3, c, shader);
}

bool tetragonStopsRay(const Object& object, uint32_t index, const Ray& ray, const FaceCrossing& c, uint32_t& shader) {
  const Tetragon& t = object.mesh.tetragons[index];
  const uint32_t corners[4] = {t.i0, t.i1, t.i2, t.i3};
  return faceStopsRay(object.mesh, ray, t.shader, corners, 4, c, shader);
}
}  // namespace

bool acceptTriangle(const Object& object, uint32_t index, Ray& ray, const FaceCrossing& c) {
  uint32_t shader;
  if (!triangleStopsRay(object, index, ray, c, shader)) return false;
  writeFaceHit(object, ray, kindTriangle, index, shader, c);
  for (int i = 0; i < 3; ++i) ray.coords[i] = c.weights[i];
  return true;
}

bool triangleBlocks(const Object& object, uint32_t index, const Ray& ray, const FaceCrossing& c) {
  uint32_t shader;
  return triangleStopsRay(object, index, ray, c, shader);
}

bool acceptTetragon(const Object& object, uint32_t index, Ray& ray, const FaceCrossing& c) {
  uint32_t shader;
  if (!tetragonStopsRay(object, index, ray, c, shader)) return false;
  writeFaceHit(object, ray, kindTetragon, index, shader, c);
  ray.coords[0] = c.u;
  ray.coords[1] = c.v;
  return true;
}

bool tetragonBlocks(const Object& object, uint32_t index, const Ray& ray, const FaceCrossing& c) {
  uint32_t shader;
  return tetragonStopsRay(object, index, ray, c, shader);
}
