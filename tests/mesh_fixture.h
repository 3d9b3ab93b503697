// Reads the vertices and triangles of a plain OBJ file into an object's mesh,
// for tests and benchmarks that need real geometry before the reader exists.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

#include "geometry/object.h"

// Only "v" and triangular "f" lines are read; "f a/b/c" keeps the vertex numbers.
inline bool readObjMesh(const std::string& path, Mesh& mesh) {
  std::ifstream file(path);
  std::string line;
  while (std::getline(file, line)) {
    std::istringstream words(line);
    std::string key;
    words >> key;
    if (key == "v") {
      Vec3f p;
      words >> p.x >> p.y >> p.z;
      mesh.worldPositions.push_back(p);
    } else if (key == "f") {
      uint32_t v[3];
      std::string corner;
      for (uint32_t& i : v) {
        words >> corner;
        i = uint32_t(std::stoul(corner) - 1);
      }
      mesh.triangles.push_back({v[0], v[1], v[2], 0});
    }
  }
  return !mesh.triangles.empty();
}
