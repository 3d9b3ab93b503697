#include "geometry/smooth_mesh.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "frame/sampling.h"
#include "geometry/mesh_vertices.h"
#include "shading/shader.h"

namespace {

// One face corner around a welded position.
struct CornerEntry {
  uint32_t face;
  uint8_t kind;    // 3 triangle, 4 tetragon
  uint8_t corner;  // 0 to 3
};

uint32_t floatBits(float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, sizeof bits);
  return bits;
}

// Every bit of the position reaches the top bits that pick the slot: whole
// numbers have all-zero low mantissa bits, and a hash that kept only low bits
// would put a voxel or CAD mesh into one bucket. -0 and 0 are equal positions,
// so they hash alike.
uint64_t positionHash(Vec3f p) {
  constexpr uint64_t golden = 0x9e3779b97f4a7c15ull;
  auto bits = [](float f) { return uint64_t(floatBits(f == 0 ? 0.0f : f)); };
  uint64_t h = bits(p.x) * golden;
  h = (h ^ bits(p.y)) * golden;
  h = (h ^ bits(p.z)) * golden;
  return h;
}

FaceFrame faceFrame(const Mesh& mesh, const uint32_t* v, int count) {
  const std::vector<Vec3f>& p = mesh.worldPositions;
  FaceFrame frame;
  frame.normal = normalize(count == 3 ? cross(p[v[1]] - p[v[0]], p[v[2]] - p[v[0]])
                                      : cross(p[v[2]] - p[v[0]], p[v[3]] - p[v[1]]));
  const std::vector<FloatPair>& uv = mesh.pairChannels[0].values;
  bool inside = true;
  for (int i = 0; i < count; ++i)
    if (v[i] >= mesh.tangents.size() || v[i] >= uv.size()) inside = false;
  if (inside) {
    const float du1 = uv[v[1]].u - uv[v[0]].u, dv1 = uv[v[1]].v - uv[v[0]].v;
    const float du2 = uv[v[2]].u - uv[v[0]].u, dv2 = uv[v[2]].v - uv[v[0]].v;
    auto tiny = [](float d) { return std::fabs(d) < 1e-8f; };
    if (!(tiny(du1) && tiny(dv1) && tiny(du2) && tiny(dv2))) {
      frame.tangent = normalize((p[v[1]] - p[v[0]]) * dv2 - (p[v[2]] - p[v[0]]) * dv1);
      return frame;
    }
  }
  Vec3f bitangent;
  buildOrthonormalBasis(frame.normal, frame.tangent, bitangent);
  return frame;
}

}  // namespace

std::vector<uint32_t> weldPositions(const std::vector<Vec3f>& positions, uint32_t& weldedCount) {
  // Open addressing in a table at most half full, sized to the mesh.
  int shift = 64 - 4;
  while ((uint64_t(1) << (64 - shift)) < 2 * positions.size()) --shift;
  const uint64_t mask = (uint64_t(1) << (64 - shift)) - 1;
  constexpr uint32_t empty = ~0u;
  std::vector<uint32_t> slots(mask + 1, empty);
  std::vector<Vec3f> welded;
  std::vector<uint32_t> map(positions.size());
  for (size_t v = 0; v < positions.size(); ++v) {
    const Vec3f p = positions[v];
    uint64_t slot = positionHash(p) >> shift;
    while (slots[slot] != empty && !(welded[slots[slot]] == p)) slot = (slot + 1) & mask;
    if (slots[slot] == empty) {
      slots[slot] = uint32_t(welded.size());
      welded.push_back(p);
    }
    map[v] = slots[slot];
  }
  weldedCount = uint32_t(welded.size());
  return map;
}

namespace {

// The vertex index of a face corner, writable when the face is.
template <typename Face>
auto& cornerSlot(Face& face, int corner) {
  if constexpr (std::is_same_v<std::remove_const_t<Face>, Triangle>)
    return corner == 0 ? face.i0 : corner == 1 ? face.i1 : face.i2;
  else
    return corner == 0 ? face.i0 : corner == 1 ? face.i1 : corner == 2 ? face.i2 : face.i3;
}

template <typename Face>
void sumFrames(const Mesh& mesh, const std::vector<Face>& faces, FaceFrame (*frameOf)(const Mesh&, const Face&),
               int corners, std::vector<Vec3f>& normals, std::vector<Vec3f>& tangents) {
  for (const Face& face : faces) {
    const FaceFrame frame = frameOf(mesh, face);
    for (int c = 0; c < corners; ++c) {
      const uint32_t v = cornerSlot(face, c);
      if (v >= normals.size()) continue;
      normals[v] += frame.normal;
      tangents[v] += frame.tangent;
    }
  }
}

}  // namespace

FaceFrame triangleFrame(const Mesh& mesh, const Triangle& t) {
  const uint32_t v[3] = {t.i0, t.i1, t.i2};
  return faceFrame(mesh, v, 3);
}

FaceFrame tetragonFrame(const Mesh& mesh, const Tetragon& t) {
  const uint32_t v[4] = {t.i0, t.i1, t.i2, t.i3};
  return faceFrame(mesh, v, 4);
}

float smoothAngle(uint32_t shader) { return shader < shaders.size() ? shaders[shader].geometry.smooth_angle : -1.0f; }

void smoothMesh(Mesh& mesh) {
  if (mesh.triangles.empty() && mesh.tetragons.empty()) return;
  float smallest = infinity, largest = -infinity;
  auto widen = [&](uint32_t shader) {
    smallest = std::min(smallest, smoothAngle(shader));
    largest = std::max(largest, smoothAngle(shader));
  };
  for (const Triangle& t : mesh.triangles) widen(t.shader);
  for (const Tetragon& t : mesh.tetragons) widen(t.shader);
  if (smallest == 0 && largest == 0) {
    std::vector<uint32_t>().swap(mesh.normals);  // a flat mesh
    return;
  }
  if (largest < 0) return;  // the given frames stand

  uint32_t weldedCount = 0;
  const std::vector<uint32_t> welded = weldPositions(mesh.worldPositions, weldedCount);

  // The corner list: every face corner at each welded position, triangles first.
  std::vector<uint32_t> start(weldedCount + 1, 0);
  auto eachCorner = [&](auto visit) {
    for (uint32_t f = 0; f < mesh.triangles.size(); ++f)
      for (uint8_t c = 0; c < 3; ++c) visit(cornerSlot(mesh.triangles[f], c), CornerEntry{f, 3, c});
    for (uint32_t f = 0; f < mesh.tetragons.size(); ++f)
      for (uint8_t c = 0; c < 4; ++c) visit(cornerSlot(mesh.tetragons[f], c), CornerEntry{f, 4, c});
  };
  eachCorner([&](uint32_t v, CornerEntry) { ++start[welded[v] + 1]; });
  for (uint32_t w = 0; w < weldedCount; ++w) start[w + 1] += start[w];
  std::vector<CornerEntry> corners(start[weldedCount]);
  std::vector<uint32_t> fill(start.begin(), start.end() - 1);
  eachCorner([&](uint32_t v, CornerEntry entry) { corners[fill[welded[v]]++] = entry; });

  std::vector<FaceFrame> triangleFrames, tetragonFrames;
  for (const Triangle& t : mesh.triangles) triangleFrames.push_back(triangleFrame(mesh, t));
  for (const Tetragon& t : mesh.tetragons) tetragonFrames.push_back(tetragonFrame(mesh, t));
  auto frameOf = [&](CornerEntry e) { return e.kind == 3 ? triangleFrames[e.face] : tetragonFrames[e.face]; };
  auto shaderOf = [&](CornerEntry e) {
    return e.kind == 3 ? mesh.triangles[e.face].shader : mesh.tetragons[e.face].shader;
  };
  auto vertexOf = [&](CornerEntry e) -> uint32_t {
    return e.kind == 3 ? cornerSlot(mesh.triangles[e.face], e.corner) : cornerSlot(mesh.tetragons[e.face], e.corner);
  };

  Mesh fresh = vertexLayout(mesh);
  fresh.triangles = mesh.triangles;
  fresh.tetragons = mesh.tetragons;
  for (uint32_t w = 0; w < weldedCount; ++w) {
    const uint32_t firstNew = uint32_t(fresh.worldPositions.size());
    for (uint32_t i = start[w]; i < start[w + 1]; ++i) {
      const CornerEntry corner = corners[i];
      const FaceFrame own = frameOf(corner);
      const float angle = smoothAngle(shaderOf(corner));
      const uint32_t v = vertexOf(corner);
      uint32_t normalWord, tangentWord;
      if (angle < 0) {
        normalWord = v < mesh.normals.size() ? mesh.normals[v] : 0;
        tangentWord = v < mesh.tangents.size() ? mesh.tangents[v] : 0;
      } else if (angle == 0) {
        normalWord = packUnitVector(own.normal);
        tangentWord = packUnitVector(own.tangent);
      } else {
        // Unit vectors summed: faces are not weighted by area or angle.
        const float limit = std::cos(angle * 0.017453292f);
        Vec3f normal, tangent;
        for (uint32_t j = start[w]; j < start[w + 1]; ++j) {
          const FaceFrame other = frameOf(corners[j]);
          if (j == i || dot(other.normal, own.normal) > limit) normal += other.normal;
          if (j == i || dot(other.tangent, own.tangent) > limit) tangent += other.tangent;
        }
        normalWord = packUnitVector(normal);
        tangentWord = packUnitVector(tangent);
      }
      uint32_t k = firstNew;
      while (k < fresh.worldPositions.size() &&
             !(fresh.worldPositions[k] == mesh.worldPositions[v] && fresh.normals[k] == normalWord &&
               fresh.tangents[k] == tangentWord && equalChannelValues(fresh, k, mesh, v)))
        ++k;
      if (k == fresh.worldPositions.size()) {
        fresh.worldPositions.push_back(mesh.worldPositions[v]);
        fresh.normals.push_back(normalWord);
        fresh.tangents.push_back(tangentWord);
        appendChannelValues(fresh, mesh, v);
      }
      if (corner.kind == 3)
        cornerSlot(fresh.triangles[corner.face], corner.corner) = k;
      else
        cornerSlot(fresh.tetragons[corner.face], corner.corner) = k;
    }
  }
  replaceVertices(mesh, fresh);
  mesh.triangles = std::move(fresh.triangles);
  mesh.tetragons = std::move(fresh.tetragons);
}

void refreshFrames(Mesh& mesh) {
  std::vector<Vec3f> normals(mesh.worldPositions.size()), tangents(mesh.worldPositions.size());
  sumFrames(mesh, mesh.triangles, triangleFrame, 3, normals, tangents);
  sumFrames(mesh, mesh.tetragons, tetragonFrame, 4, normals, tangents);
  // Only words that hold a vector are refreshed: the word 0 stays "no vector".
  for (size_t v = 0; v < mesh.normals.size() && v < normals.size(); ++v)
    if (mesh.normals[v] != 0) mesh.normals[v] = packUnitVector(normals[v]);
  for (size_t v = 0; v < mesh.tangents.size() && v < tangents.size(); ++v)
    if (mesh.tangents[v] != 0) mesh.tangents[v] = packUnitVector(tangents[v]);
}
