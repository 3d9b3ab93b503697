#include "transport/density_estimator.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iostream>

#include "accel/bbvh.h"
#include "accel/primitive_bounds.h"
#include "frame/renderer.h"
#include "frame/report.h"
#include "geometry/scene_assembly.h"
#include "shading/shader.h"
#include "transport/photon.h"

namespace {
constexpr int largestGrid = 255;
constexpr float lastCell = 0.999999f;

bool hasDiffuse(uint32_t shader) {
  const Shader& s = shaders[shader < shaders.size() ? shader : 0];
  return s.diffuse_present[0] || s.diffuse_present[1];
}

// The smallest N from 1 whose N x N patches are each below `resolution`, at most 255.
uint32_t gridSize(float area, float resolution) {
  const double estimate = std::sqrt(double(area) / double(resolution));
  // Also a NaN area: it takes the largest grid.
  if (!(estimate < largestGrid)) return largestGrid;
  uint32_t n = std::max(uint32_t(estimate), 1u);
  while (n > 1 && float((n - 1) * (n - 1)) * resolution > area) --n;
  while (n < largestGrid && !(float(n * n) * resolution > area)) ++n;
  return n;
}

template <typename Face, typename AreaOf>
void sizeKind(const Mesh& mesh, const std::vector<Face>& faces, float resolution, AreaOf areaOf,
              std::vector<uint32_t>& grid, std::vector<uint32_t>& offset) {
  grid.resize(faces.size());
  offset.resize(faces.size());
  uint64_t total = 0;
  for (uint32_t f = 0; f < faces.size(); ++f) {
    const uint32_t n = hasDiffuse(faces[f].shader) ? gridSize(areaOf(mesh, f), resolution) : 0;
    grid[f] = n;
    offset[f] = uint32_t(total);
    total += uint64_t(n) * n;
    // Two sides of 12 bytes each; the check comes before anything is allocated.
    if (total * 24 > patchMemoryLimit) {
      std::cout << "density estimator consumes more than 1GB memory." << std::endl;
      printRule();
      std::exit(1);
    }
  }
}

uint64_t patchCount(const std::vector<uint32_t>& grid) {
  uint64_t total = 0;
  for (uint32_t n : grid) total += uint64_t(n) * n;
  return total;
}

uint64_t patchBytes(const Mesh& m) {
  return 12 * (m.triangle_front.size() + m.triangle_back.size() + m.tetragon_front.size() + m.tetragon_back.size()) +
         4 * (m.triangle_offset.size() + m.tetragon_offset.size() + m.triangle_grid.size() + m.tetragon_grid.size());
}

void clearPatches(Mesh& m) {
  for (auto* colours : {&m.triangle_front, &m.triangle_back, &m.tetragon_front, &m.tetragon_back}) {
    colours->clear();
    colours->shrink_to_fit();
  }
  for (auto* words : {&m.triangle_offset, &m.tetragon_offset, &m.triangle_grid, &m.tetragon_grid}) {
    words->clear();
    words->shrink_to_fit();
  }
}

// The patch of a hit: its array and index, or null where the face has none.
Color3f* patchAt(const Ray& ray, bool adding) {
  // Only the root object carries patches; photons inside placements leave no trace.
  if (ray.hit.depth != 0 || rootObject >= objects.size() || ray.hit.object != &objects[rootObject]) return nullptr;
  Mesh& mesh = objects[rootObject].mesh;
  const uint32_t f = ray.hit.primitive;
  const bool triangle = ray.hit.kind == kindTriangle;
  if (!triangle && ray.hit.kind != kindTetragon) return nullptr;
  const std::vector<uint32_t>& grid = triangle ? mesh.triangle_grid : mesh.tetragon_grid;
  if (f >= grid.size() || grid[f] == 0) return nullptr;
  const int n = int(grid[f]);
  // Adding clamps the weight below 1, reading clamps the cell; fmin and fmax also turn a NaN into cell 0.
  const float last = float(n - 1);
  auto cellOf = [&](float c) {
    return int(adding ? std::trunc(float(n) * std::fmin(std::fmax(c, 0.0f), lastCell))
                      : std::fmin(std::fmax(std::trunc(c * float(n)), 0.0f), last));
  };
  int cell;
  if (triangle) {
    // Whole cells from the far corners: the triangular numbering of a subdivided triangle.
    const int r0 = cellOf(1 - ray.coords[0]), r1 = cellOf(1 - ray.coords[1]), r2 = cellOf(1 - ray.coords[2]);
    cell = (r0 + 1) * r0 - r2 + r1;
  } else {
    cell = cellOf(ray.coords[1]) + cellOf(ray.coords[0]) * n;
  }
  // Weights that do not sum to 1 can step outside the face's cells; keep to them.
  cell = std::clamp(cell, 0, n * n - 1);
  const bool front = ray.facing > 0;
  std::vector<Color3f>& patches = triangle ? (front ? mesh.triangle_front : mesh.triangle_back)
                                           : (front ? mesh.tetragon_front : mesh.tetragon_back);
  const uint32_t offset = (triangle ? mesh.triangle_offset : mesh.tetragon_offset)[f];
  const size_t index = size_t(offset) + size_t(cell);
  return index < patches.size() ? &patches[index] : nullptr;
}
}  // namespace

void sizePatchGrids(Mesh& mesh, float resolution) {
  sizeKind(mesh, mesh.triangles, resolution, triangleArea, mesh.triangle_grid, mesh.triangle_offset);
  sizeKind(mesh, mesh.tetragons, resolution, tetragonArea, mesh.tetragon_grid, mesh.tetragon_offset);
}

void prepareDensityEstimator() {
  if (!(renderer.resolution >= 1e-8f) || rootObject >= objects.size()) return;
  Mesh& mesh = objects[rootObject].mesh;
  clearPatches(mesh);
  sizePatchGrids(mesh, renderer.resolution);
  const uint64_t triangles = patchCount(mesh.triangle_grid), tetragons = patchCount(mesh.tetragon_grid);
  mesh.triangle_front.assign(triangles, black);
  mesh.triangle_back.assign(triangles, black);
  mesh.tetragon_front.assign(tetragons, black);
  mesh.tetragon_back.assign(tetragons, black);
  uint64_t bytes = 0;
  for (const Object& object : objects) bytes += patchBytes(object.mesh);
  printBytesRow("density estimator buffer", int64_t(bytes));
}

void addPatchPower(const Ray& ray, Color3f power) {
  Color3f* patch = patchAt(ray, true);
  if (!patch) return;
  const Mesh& mesh = ray.hit.object->mesh;
  const bool triangle = ray.hit.kind == kindTriangle;
  const float area = triangle ? triangleArea(mesh, ray.hit.primitive) : tetragonArea(mesh, ray.hit.primitive);
  const float n = float((triangle ? mesh.triangle_grid : mesh.tetragon_grid)[ray.hit.primitive]);
  if (!(area > 0)) return;
  // Power over the patch's area.
  const Color3f density = power * (1 / area) * (n * n);
  if (photonBatch)
    photonBatch->patches.emplace_back(patch, density);
  else
    *patch += density;
}

Color3f readPatch(const Ray& ray) {
  const Color3f* patch = patchAt(ray, false);
  return patch ? *patch : black;
}

void finalizeDensityEstimator() {
  if (rootObject < objects.size()) clearPatches(objects[rootObject].mesh);
}
