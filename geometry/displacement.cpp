#include "geometry/displacement.h"

#include <algorithm>
#include <string>

#include "frame/memory_budget.h"
#include "frame/report.h"
#include "geometry/mesh_vertices.h"
#include "geometry/smooth_mesh.h"
#include "shading/image.h"
#include "shading/shader.h"

namespace {

const std::vector<TextureNode>* vectorLayers(uint32_t shader) {
  return shader < shaders.size() ? &shaders[shader].geometry.vector : nullptr;
}

// A frame word of vertex v, 0 ("no vector") when the array does not reach it.
uint32_t frameWord(const std::vector<uint32_t>& words, uint32_t v) { return v < words.size() ? words[v] : 0; }

// What a layer at this level allocates, with the copies that the next
// smoothing makes, and the triangle records and hierarchy built on it after;
// vertex indices are 32 bits, so more of them cannot be held.
double tessellationBytes(const Mesh& mesh, size_t triangles, int level) {
  const double n = level, vertices = double(triangles) * (n + 1) * (n + 2) / 2;
  if (vertices + double(mesh.worldPositions.size()) >= 4294967295.0) return infinity;
  double perVertex = sizeof(Vec3f) + 2 * sizeof(uint32_t);
  for (const auto& channel : mesh.vectorChannels) perVertex += channel.values.empty() ? 0 : sizeof(Vec3f);
  for (const auto& channel : mesh.pairChannels) perVertex += channel.values.empty() ? 0 : sizeof(FloatPair);
  for (const auto& channel : mesh.scalarChannels) perVertex += channel.values.empty() ? 0 : sizeof(float);
  // A 64-byte record a triangle and, at most, two build records and a quarter
  // of a 256-byte node.
  const double builtPerTriangle = 64 + 2 * 48 + 64;
  return 3 * (vertices * perVertex + double(triangles) * n * n * sizeof(Triangle)) +
         double(triangles) * n * n * builtPerTriangle;
}

// Tessellates the triangles of shader `s` and displaces the new vertices by one
// layer; false when the mesh has no frames to displace along.
bool displaceLayer(Mesh& mesh, uint32_t s, TextureNode& layer) {
  smoothMesh(mesh);
  bool missing = false;
  for (const std::vector<uint32_t>* words : {&mesh.normals, &mesh.tangents})
    if (words->empty()) {
      printWarning("mesh - missing vertex normals for displacement mapping");
      missing = true;
    }
  if (missing) {
    printRule();
    return false;
  }
  // Vertices are read once each, where only a smooth filter makes sense.
  layer.pixel_sampler = PixelSampler::bilinear;
  prepareNode(layer);
  const int level = std::max(layer.level, 1);

  std::vector<Triangle> kept, tessellated;
  for (const Triangle& t : mesh.triangles) {
    bool framed = t.shader == s;
    for (uint32_t corner : {t.i0, t.i1, t.i2})
      framed = framed && frameWord(mesh.normals, corner) && frameWord(mesh.tangents, corner);
    (framed ? tessellated : kept).push_back(t);
  }
  // No face to tessellate: the level's grid, which grows with its square, is not made.
  if (tessellated.empty()) return false;
  if (!fitsInMemory(tessellationBytes(mesh, tessellated.size(), level))) {
    printError("mesh - displacement level " + std::to_string(level) + " needs more memory than there is");
    printRule();
    return false;
  }
  const TriangleGrid grid = tessellateTriangle(level);

  // Each triangle gets a grid of its own; smoothing welds the grids again by position.
  const size_t perTriangle = grid.weights.size();
  Mesh fresh = vertexLayout(mesh);
  fresh.worldPositions.resize(tessellated.size() * perTriangle);
  fresh.normals.resize(fresh.worldPositions.size());
  fresh.tangents.resize(fresh.worldPositions.size());
#pragma omp parallel for schedule(dynamic, 64)
  for (int64_t k = 0; k < int64_t(tessellated.size()); ++k) {
    const Triangle& t = tessellated[size_t(k)];
    const uint32_t v[3] = {t.i0, t.i1, t.i2};
    Vec3f P[3], normals[3], tangents[3];
    for (int i = 0; i < 3; ++i) {
      P[i] = mesh.worldPositions[v[i]];
      normals[i] = unpackUnitVector(mesh.normals[v[i]]);
      tangents[i] = unpackUnitVector(mesh.tangents[v[i]]);
    }
    for (size_t j = 0; j < perTriangle; ++j) {
      const std::array<float, 3>& b = grid.weights[j];
      const size_t n = size_t(k) * perTriangle + j;
      fresh.worldPositions[n] = curvedPoint(b[0], b[1], b[2], P, normals);
      fresh.normals[n] = packUnitVector(b[0] * normals[0] + b[1] * normals[1] + b[2] * normals[2]);
      fresh.tangents[n] = packUnitVector(b[0] * tangents[0] + b[1] * tangents[1] + b[2] * tangents[2]);
    }
  }
  for (size_t k = 0; k < tessellated.size(); ++k) {
    const Triangle& t = tessellated[k];
    const uint32_t v[3] = {t.i0, t.i1, t.i2};
    for (const std::array<float, 3>& b : grid.weights) appendBlendedValues(fresh, mesh, v, b.data());
    const uint32_t base = uint32_t(k * perTriangle);
    for (const std::array<uint32_t, 3>& g : grid.triangles)
      fresh.triangles.push_back({base + g[0], base + g[1], base + g[2], s});
  }

  // Every grid vertex belongs to a grid triangle and moves once, along its own frame.
  const std::vector<FloatPair>& uvs = fresh.pairChannels[0].values;
#pragma omp parallel for schedule(static)
  for (int64_t i = 0; i < int64_t(fresh.worldPositions.size()); ++i) {
    const size_t v = size_t(i);
    Surface surface;
    if (v < uvs.size()) {
      surface.uv[0] = uvs[v].u;
      surface.uv[1] = uvs[v].v;
    }
    const Vec3f n = unpackUnitVector(fresh.normals[v]);
    const Vec3f tangent = unpackUnitVector(fresh.tangents[v]);
    const Vec3f d = evaluateVector(layer, surface);
    fresh.worldPositions[v] += tangent * d.x + cross(tangent, n) * d.y + n * d.z;
  }
  // Displacement images do not stay in memory.
  if (layer.image >= 0 && size_t(layer.image) < images.size() && images[layer.image].loaded) {
    freeImage(images[layer.image]);
    layer.image = -1;
  }

  // The old vertices stay until the next smoothing drops those no face uses.
  const uint32_t offset = uint32_t(mesh.worldPositions.size());
  for (Triangle t : fresh.triangles) kept.push_back({t.i0 + offset, t.i1 + offset, t.i2 + offset, t.shader});
  mesh.triangles = std::move(kept);
  appendVertices(mesh, fresh);
  return true;
}

}  // namespace

TriangleGrid tessellateTriangle(int level) {
  const int n = level;
  TriangleGrid grid;
  for (int r = 0; r <= n; ++r) {
    const float b0 = float(n - r) / float(n);
    for (int c = 0; c <= r; ++c) {
      const float w = r == 0 ? 0.0f : c == 0 ? 1.0f : float(r - c) / float(r);
      grid.weights.push_back({b0, (1 - b0) * w, (1 - b0) * (1 - w)});
    }
  }
  auto rowStart = [](int r) { return uint32_t(r * (r + 1) / 2); };
  for (int r = 0; r < n; ++r)
    for (int c = 0; c <= r; ++c)
      grid.triangles.push_back({rowStart(r) + c, rowStart(r + 1) + c, rowStart(r + 1) + c + 1});
  for (int r = 2; r <= n; ++r)
    for (int c = 0; c <= r - 2; ++c)
      grid.triangles.push_back({rowStart(r - 1) + c, rowStart(r) + 1 + c, rowStart(r - 1) + 1 + c});
  return grid;
}

SurfacePoint edge(float t, SurfacePoint a, SurfacePoint b) {
  const float u = 1 - t;
  const Vec3f line = t * a.position + u * b.position;
  const Vec3f n = normalize(t * a.normal + u * b.normal);
  const Vec3f span = a.position - b.position;
  const float ca = dot(a.normal, span), cb = dot(b.normal, span);
  const float h = ca * t * t * u + cb * (u - 1) * u * u;
  const float g = ca * ((3 * u - 4) * u + 1) + cb * (3 * u - 2) * u;
  const Vec3f direction = normalize((b.normal - a.normal) * h + (b.position - a.position) + n * g);
  return {line + n * h, normalize(cross(cross(direction, n), direction))};
}

Vec3f curvedPoint(float b0, float b1, float b2, const Vec3f P[3], const Vec3f Nrm[3]) {
  const float b[3] = {b0, b1, b2};
  Vec3f sum;
  float total = 0;
  // From each corner run along its two edges, then across between them.
  for (int i = 0; i < 3; ++i) {
    const int j = (i + 1) % 3, k = (i + 2) % 3;
    const SurfacePoint corner{P[i], Nrm[i]};
    const SurfacePoint a = edge(b[i], corner, {P[j], Nrm[j]});
    const SurfacePoint c = edge(b[i], corner, {P[k], Nrm[k]});
    const float t = b[j] == 0 ? 0.0f : b[j] / (b[j] + b[k]);
    const float w = (3 - 2 * b[i]) * b[i] * b[i];
    sum += w * edge(t, a, c).position;
    total += w;
  }
  return sum / total;
}

void splitTetragons(Mesh& mesh) {
  for (const Tetragon& t : mesh.tetragons) {
    mesh.triangles.push_back({t.i0, t.i1, t.i2, t.shader});
    mesh.triangles.push_back({t.i2, t.i3, t.i0, t.shader});
  }
  std::vector<Tetragon>().swap(mesh.tetragons);
}

void displaceMesh(Mesh& mesh) {
  size_t most = 0;
  std::vector<uint32_t> order;  // distinct face shaders, in order of first appearance
  auto note = [&](uint32_t shader) {
    if (const std::vector<TextureNode>* layers = vectorLayers(shader)) most = std::max(most, layers->size());
    if (std::find(order.begin(), order.end(), shader) == order.end()) order.push_back(shader);
  };
  for (const Triangle& t : mesh.triangles) note(t.shader);
  for (const Tetragon& t : mesh.tetragons) note(t.shader);
  if (most == 0) return;
  splitTetragons(mesh);
  for (uint32_t s : order) {
    if (!vectorLayers(s) || vectorLayers(s)->empty()) continue;
    const int64_t start = clockNanoseconds();
    for (TextureNode& layer : shaders[s].geometry.vector)
      if (!displaceLayer(mesh, s, layer)) break;
    printRow("displacement ", float((clockNanoseconds() - start) / 1000000), "m seconds", 3);
    printRule();
  }
}
