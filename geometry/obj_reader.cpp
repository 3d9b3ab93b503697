#include "geometry/obj_reader.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "frame/report.h"
#include "frame/scene_directory.h"
#include "frame/scene_file.h"
#include "qz.h"
#include "shading/shader.h"

namespace {

// Buckets of mesh vertex indices, by a hash of the position's bits.
constexpr size_t weldBucketCount = 65536;
constexpr size_t weldBucketLimit = 16;
std::array<std::vector<uint32_t>, weldBucketCount> weldBuckets;
// Buckets holding memory, so that a clear costs what was used, not the whole
// table: a file with thousands of usemtl lines clears it thousands of times.
std::vector<uint16_t> weldBucketsInUse;

// One corner of a face line; 0 is an absent index, since OBJ counts from 1.
// After conversion an index is a position in the reader's array, -1 when absent.
struct Corner {
  int64_t position = 0, coordinate = 0, normal = 0;
};

// Array sizes when the file began: positive indices count from here.
struct FileStart {
  int64_t positions, coordinates, normals;
};

uint32_t floatBits(float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, sizeof bits);
  return bits;
}

template <typename T>
const T* entry(const std::vector<T>& array, int64_t index) {
  return index >= 0 && index < int64_t(array.size()) ? &array[size_t(index)] : nullptr;
}

const char* skipBlanks(const char* s) {
  while (*s == ' ' || *s == '\t') ++s;
  return s;
}

// The line's keyword is `word`, followed by a space or a tab.
bool isKeyword(const char* s, const char* word) {
  const size_t n = std::strlen(word);
  return std::strncmp(s, word, n) == 0 && (s[n] == ' ' || s[n] == '\t');
}

bool endOfLine(char c) { return c == '\0' || c == '\n' || c == '\r'; }

float readFloat(const char*& s) {
  s = skipBlanks(s);
  const float value = std::strtof(s, nullptr);
  s += std::strcspn(s, " \t\r");
  return value;
}

// Read as an integer, then skipped to the next separator. Huge values are held
// to 32 bits so that index arithmetic cannot overflow; they stay out of range.
int64_t readIndex(const char*& s) {
  const int64_t value = std::clamp<long long>(std::strtoll(s, nullptr, 10), INT_MIN, INT_MAX);
  s += std::strcspn(s, "/ \t\r");
  return value;
}

int64_t convertIndex(int64_t index, int64_t start, int64_t current) {
  if (index > 0) return index - 1 + start;
  if (index < 0) return current + index;
  return -1;
}

// A triangle (3 corners) or tetragon (4 corners) of converted indices.
void addFace(ObjReader& reader, const Corner* corners, int count, uint32_t shader) {
  Vec3f p[4];
  for (int i = 0; i < count; ++i) {
    const Vec3f* position = entry(reader.positions, corners[i].position);
    if (!position) return;  // beyond the file's positions: nothing sensible to read
    p[i] = *position;
  }
  if (count == 3 ? p[0] == p[1] || p[1] == p[2] || p[0] == p[2] : p[0] == p[2] || p[1] == p[3]) return;
  uint32_t normalWords[4] = {}, tangentWords[4] = {};
  if (!reader.normals.empty()) {
    // Given normals are turned to agree with the winding when they all disagree.
    const Vec3f geometric = normalize(count == 3 ? cross(p[1] - p[0], p[2] - p[0]) : cross(p[2] - p[0], p[3] - p[1]));
    const Vec3f* given[4] = {};
    bool allBehind = true;
    for (int i = 0; i < count; ++i) {
      given[i] = entry(reader.normals, corners[i].normal);
      if (!(given[i] && dot(*given[i], geometric) < 0)) allBehind = false;
    }
    for (int i = 0; i < count; ++i)
      if (given[i]) normalWords[i] = packUnitVector(allBehind ? -*given[i] : *given[i]);
  }
  // Tangents come from callers only, and share the index of the normal.
  if (!reader.tangents.empty())
    for (int i = 0; i < count; ++i)
      if (const Vec3f* tangent = entry(reader.tangents, corners[i].normal)) tangentWords[i] = packUnitVector(*tangent);
  uint32_t v[4];
  for (int i = 0; i < count; ++i) {
    const FloatPair* uv = entry(reader.coordinates, corners[i].coordinate);
    v[i] = weldVertex(*reader.mesh, p[i], uv ? *uv : FloatPair{}, normalWords[i], tangentWords[i]);
  }
  if (count == 3)
    reader.mesh->triangles.push_back({v[0], v[1], v[2], shader});
  else
    reader.mesh->tetragons.push_back({v[0], v[1], v[2], v[3], shader});
}

void addQuadrangle(ObjReader& reader, const Corner* c, uint32_t shader) {
  // With a corner repeated, the last equal pair of this table picks the triangle.
  static const struct {
    int a, b, kept[3];
  } degenerate[] = {{0, 1, {0, 2, 3}}, {0, 2, {0, 1, 3}}, {0, 3, {0, 1, 2}},
                    {1, 2, {0, 1, 3}}, {1, 3, {0, 1, 2}}, {2, 3, {0, 1, 2}}};
  const int* kept = nullptr;
  for (const auto& pair : degenerate)
    if (c[pair.a].position == c[pair.b].position) kept = pair.kept;
  if (kept) {
    if (!reader.warnedQuadrangle) {
      printWarning("object - there are degenerated quadrangles");
      printRule();
      reader.warnedQuadrangle = 1;
    }
    const Corner triangle[3] = {c[kept[0]], c[kept[1]], c[kept[2]]};
    addFace(reader, triangle, 3, shader);
    return;
  }
  Vec3f p[4];
  for (int i = 0; i < 4; ++i) {
    const Vec3f* position = entry(reader.positions, c[i].position);
    if (!position) return;
    p[i] = *position;
  }
  // Only true rectangles stay tetragons; the rest is cut from corner 2 to corner 0.
  if (isPlanar(p) && isRectangular(p)) {
    addFace(reader, c, 4, shader);
    return;
  }
  const Corner second[3] = {c[2], c[3], c[0]};
  addFace(reader, c, 3, shader);
  addFace(reader, second, 3, shader);
}

void readFace(ObjReader& reader, const char* s, const FileStart& start, uint32_t shader) {
  Corner c[8];
  s = skipBlanks(s);
  for (int k = 0; k < 8 && !endOfLine(*s); ++k) {
    c[k].position = readIndex(s);
    if (*s == '/') {
      ++s;
      // "a//n" has no coordinate: the second slash skips it.
      if (*s != '/') c[k].coordinate = readIndex(s);
      if (*s == '/') {
        ++s;
        c[k].normal = readIndex(s);
      }
    }
    s = skipBlanks(s);
  }
  if (c[4].position != 0) {
    if (!reader.warnedPolygon) {
      printWarning("object - please triangulate/quadrangulate the input model(s)");
      printRule();
      reader.warnedPolygon = 1;
    }
    return;
  }
  if (c[3].position == 0 && c[2].position == 0) return;
  const bool quadrangle = c[3].position != 0;
  for (Corner& corner : c) {
    corner.position = convertIndex(corner.position, start.positions, int64_t(reader.positions.size()));
    corner.coordinate = convertIndex(corner.coordinate, start.coordinates, int64_t(reader.coordinates.size()));
    corner.normal = convertIndex(corner.normal, start.normals, int64_t(reader.normals.size()));
  }
  if (!quadrangle)
    addFace(reader, c, 3, shader);
  else
    addQuadrangle(reader, c, shader);
}

uint32_t readMaterial(const char* line) {
  char first[4097] = "", second[4097] = "";
  std::sscanf(line, "%4096s %4096s", first, second);
  // Vertices are never shared across a material change.
  clearWeldTable();
  return uint32_t(findOrAddShader(second));
}

}  // namespace

FILE* openInSearchFolders(const std::string& name) {
  auto open = [](const std::string& path) { return isRegularFile(path) ? std::fopen(path.c_str(), "rb") : nullptr; };
  for (const std::string& folder : geometrySearchPaths)
    if (FILE* file = open(folder.empty() ? name : folder + "/" + name)) return file;
  return open(name);
}

ObjReader readerFor(Object& object) {
  ObjReader reader;
  reader.particles = &object.particles;
  reader.cylinders = &object.cylinders;
  reader.mesh = &object.mesh;
  return reader;
}

void clearReaderArrays(ObjReader& reader) {
  std::vector<Vec3f>().swap(reader.positions);
  std::vector<FloatPair>().swap(reader.coordinates);
  std::vector<Vec3f>().swap(reader.tangents);
  std::vector<Vec3f>().swap(reader.normals);
}

void clearWeldTable() {
  for (uint16_t b : weldBucketsInUse) std::vector<uint32_t>().swap(weldBuckets[b]);
  weldBucketsInUse.clear();
}

uint32_t weldVertex(Mesh& mesh, Vec3f position, FloatPair coordinates, uint32_t packedNormal,
                    uint32_t packedTangent) {
  std::vector<Vec3f>& positions = mesh.vectorChannels[0].values;
  std::vector<FloatPair>& uvs = mesh.pairChannels[0].values;
  const uint32_t hash = 19347u * floatBits(position.x) + 19353u * floatBits(position.y) + 19361u * floatBits(position.z);
  std::vector<uint32_t>& bucket = weldBuckets[hash & 0xffff];
  if (bucket.capacity() == 0) weldBucketsInUse.push_back(uint16_t(hash & 0xffff));
  // A crowded bucket forgets its vertices: duplicates are allowed, long searches are not.
  if (bucket.size() > weldBucketLimit) bucket.clear();
  for (uint32_t v : bucket) {
    // The table is global: an entry may come from another mesh and lie beyond this one.
    if (v >= positions.size() || v >= uvs.size() || v >= mesh.normals.size() || v >= mesh.tangents.size()) continue;
    if (positions[v] == position && uvs[v].u == coordinates.u && uvs[v].v == coordinates.v &&
        mesh.normals[v] == packedNormal && mesh.tangents[v] == packedTangent)
      return v;
  }
  const uint32_t v = uint32_t(positions.size());
  positions.push_back(position);
  uvs.push_back(coordinates);
  mesh.normals.push_back(packedNormal);
  mesh.tangents.push_back(packedTangent);
  bucket.push_back(v);
  return v;
}

bool isPlanar(const Vec3f corners[4]) {
  Vec3f e[4];
  for (int i = 0; i < 4; ++i) e[i] = normalize(corners[(i + 1) % 4] - corners[i]);
  return dot(normalize(cross(e[0], e[1])), normalize(cross(e[2], e[3]))) > 0.999999f;
}

bool isRectangular(const Vec3f corners[4]) {
  Vec3f e[4];
  for (int i = 0; i < 4; ++i) e[i] = normalize(corners[(i + 1) % 4] - corners[i]);
  for (int i = 0; i < 4; ++i)
    if (!(std::fabs(dot(e[i], e[(i + 1) % 4])) < 1e-6f)) return false;
  return true;
}

void readObjFile(ObjReader& reader, const std::string& path) {
  const FileStart start{int64_t(reader.positions.size()), int64_t(reader.coordinates.size()),
                        int64_t(reader.normals.size())};
  FILE* file = openInSearchFolders(path);
  if (!file) {
    printError("object - cannot open " + path);
    printRule();
    return;
  }
  uint32_t shader = 0;
  char line[4097];
  for (int64_t lines = 0; std::fgets(line, sizeof line, file); ++lines) {
    if (lines % 1048576 == 0) printRow("scene loading", float(lines / 1048576), "M lines", 3);
    if (std::strncmp(line, "usemtl", 6) == 0) {
      shader = readMaterial(line);
      continue;
    }
    const char* s = skipBlanks(line);
    if (isKeyword(s, "v")) {
      s += 1;
      Vec3f p;
      for (int i = 0; i < 3; ++i) p[i] = readFloat(s);
      reader.positions.push_back(p);
    } else if (isKeyword(s, "vn")) {
      s += 2;
      Vec3f n;
      for (int i = 0; i < 3; ++i) n[i] = readFloat(s);
      reader.normals.push_back(n);
    } else if (isKeyword(s, "vt")) {
      s += 2;
      FloatPair uv;
      uv.u = readFloat(s);
      uv.v = readFloat(s);  // a third number is not read
      reader.coordinates.push_back(uv);
    } else if (isKeyword(s, "f")) {
      readFace(reader, s + 1, start, shader);
    }
  }
  std::fclose(file);
  clearReaderArrays(reader);
}

void qzLoadObject(int object, const char* path) {
  if (object < 0 || size_t(object) >= objects.size() || !path) return;
  ObjReader reader = readerFor(objects[object]);
  readObjFile(reader, path);
}
