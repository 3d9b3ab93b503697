// AOVs: the aov block, preparation of the framebuffers, first-hit writes and the closing rows.
#include "output/aov.h"

#include <cctype>
#include <cstdio>
#include <ctime>
#include <exception>
#include <string_view>

#include "frame/renderer.h"
#include "frame/report.h"
#include "frame/scene_file.h"
#include "geometry/object.h"
#include "output/camera.h"
#include "shading/shader.h"

namespace {
struct TypeWord {
  const char* word;
  uint32_t bits;
};

// A lobe word sets both its radiance bits, reflection and transmission.
const TypeWord typeWords[] = {
    {"light_path", 0x2},     {"lambertian", 0x28},  {"diffuse", 0x28},     {"glossy", 0x280},
    {"specular", 0x2800},    {"emission", 0x8000},  {"normal", 0x10000},   {"tangent", 0x20000},
    {"position", 0x40000},   {"depth", 0x80000},
};

// The order in which set bits add their terms to a pixel.
const uint32_t termOrder[] = {0x10000, 0x20000, 0x40000, 0x80000, 0x10, 0x40, 0x100, 0x400, 0x1000,
                              0x4000,  0x8,     0x20,    0x80,    0x200, 0x800, 0x2000, 0x8000};

Color3f asColor(Vec3f v) { return {v.x, v.y, v.z}; }

Color3f halfUnit(Vec3f v) { return {(1 + v.x) / 2, (1 + v.y) / 2, (1 + v.z) / 2}; }

Color3f term(uint32_t bit, const Ray& ray, const HitTerms& t) {
  switch (bit) {
    case 0x10000: return halfUnit(t.normal);
    case 0x20000: return halfUnit(t.tangent);
    case 0x40000: return asColor(t.position);
    case 0x80000: {
      const float d = length(t.position - ray.origin);
      return {d, d, d};
    }
    case 0x10: return t.colors[0];
    case 0x40: return t.colors[1];
    case 0x100: return t.colors[2];
    case 0x400: return t.colors[3];
    case 0x1000: return t.colors[4];
    case 0x4000: return t.colors[5];
    case 0x8: return t.radiance[0];
    case 0x20: return t.radiance[1];
    case 0x80: return t.radiance[2];
    case 0x200: return t.radiance[3];
    case 0x800: return t.radiance[4];
    case 0x2000: return t.radiance[5];
    case 0x8000: return t.radiance[6];
  }
  return black;
}

// The named vertex data at one vertex: scalars, then pairs, then triples, a
// later match overwriting an earlier one; black with no match.
template <typename Set>
Color3f vertexData(const Set& set, uint32_t vertex, const std::string& name) {
  Color3f value = black;
  for (const auto& channel : set.scalarChannels)
    if (channel.name == name && vertex < channel.values.size()) {
      const float s = channel.values[vertex];
      value = {s, s, s};
    }
  for (const auto& channel : set.pairChannels)
    if (channel.name == name && vertex < channel.values.size())
      value = {channel.values[vertex].u, channel.values[vertex].v, 0};
  for (const auto& channel : set.vectorChannels)
    if (channel.name == name && vertex < channel.values.size()) value = asColor(channel.values[vertex]);
  return value;
}

// The vertex data of the hit primitive, weighted by where the hit lies on it.
Color3f userDataTerm(const Ray& ray, const std::string& name) {
  const Object* object = ray.hit.object;
  if (!object) return black;
  const uint32_t p = ray.hit.primitive;
  const float* c = ray.coords;
  switch (ray.hit.kind) {
    case 1:
      if (p < object->particles.indices.size()) return vertexData(object->particles, object->particles.indices[p], name);
      break;
    case 2:
      if (p < object->cylinders.indices.size()) {
        const uint32_t v = object->cylinders.indices[p].first;
        const CylinderSet& set = object->cylinders;
        return (1 - c[2]) * vertexData(set, v, name) + c[2] * vertexData(set, v + 1, name);
      }
      break;
    case 3:
      if (p < object->mesh.triangles.size()) {
        const Triangle& t = object->mesh.triangles[p];
        const Mesh& m = object->mesh;
        return c[0] * vertexData(m, t.i0, name) + c[1] * vertexData(m, t.i1, name) + c[2] * vertexData(m, t.i2, name);
      }
      break;
    case 4:
      if (p < object->mesh.tetragons.size()) {
        const Tetragon& t = object->mesh.tetragons[p];
        const Mesh& m = object->mesh;
        const float u = c[0], v = c[1];
        return (1 - u) * (1 - v) * vertexData(m, t.i0, name) + (1 - u) * v * vertexData(m, t.i1, name) +
               u * v * vertexData(m, t.i2, name) + u * (1 - v) * vertexData(m, t.i3, name);
      }
      break;
  }
  return black;
}

void addToPixel(Image& image, int64_t i, Color3f c) {
  // A pixel outside the framebuffer (a region set after preparation) is dropped.
  if (i < 0 || uint64_t(i) + 2 >= image.floats.size()) return;
  image.floats[i] += c.r;
  image.floats[i + 1] += c.g;
  image.floats[i + 2] += c.b;
}
}  // namespace

CameraAOV makeBeautyAOV() {
  CameraAOV aov;
  aov.channel = beautyChannel;
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char name[32];
  std::strftime(name, sizeof name, "beauty-%Y%m%d-%H%M%S.hdr", &local);
  aov.image.name = name;
  return aov;
}

bool isDefaultBeautyName(const std::string& name) {
  const std::string form = "beauty-########-######.hdr";
  if (name.size() != form.size()) return false;
  for (size_t i = 0; i < form.size(); ++i)
    if (form[i] == '#' ? !std::isdigit(static_cast<unsigned char>(name[i])) : name[i] != form[i]) return false;
  return true;
}

uint32_t aovTypeBits(const std::string& word) {
  for (const TypeWord& entry : typeWords)
    if (word == entry.word) return entry.bits;
  return 0;
}

void readAOVBlock(std::istream& file, CameraAOV& aov) {
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "image") {
      aov.image.name = readQuotedString(line);
    } else if (line.key == "shader") {
      aov.shader_name = readQuotedString(line);
    } else if (line.key == "type") {
      const std::string word = readQuotedString(line);
      if (const uint32_t bits = aovTypeBits(word)) {
        aov.channel |= bits;
      } else {
        aov.channel = userDataChannel;
        aov.user_data_name = word;
      }
    }
  }
}

void prepareAOV(CameraAOV& aov, int width, int height) {
  aov.width = width, aov.height = height;
  Image& image = aov.image;
  image.floats = {}, image.bytes = {}, image.words = {}, image.doubles = {}, image.bits = {}, image.shared = {};
  image.width = image.height = 0;
  if (width > 0) {
    try {
      allocateImage(image, width, height, 3, 32, 0);
    } catch (const std::exception&) {
      // A resolution beyond memory leaves the framebuffer empty rather than ending the run.
      image.floats = {};
      image.width = image.height = 0;
      printError("camera - no memory for a framebuffer of " + std::to_string(width) + " x " +
                 std::to_string(height));
    }
  }
  // The last shader of that name wins.
  aov.shader = -1;
  for (size_t i = 0; i < shaders.size(); ++i)
    if (shaders[i].name == aov.shader_name) aov.shader = int(i);
}

int64_t aovBytes(const CameraAOV& aov) { return int64_t(aov.image.floats.size() * sizeof(float)); }

void writeCameraAOVs(const Ray& ray, const HitTerms& terms) {
  if (size_t(renderer.camera) >= cameras.size()) return;
  const float f = 1.0f / float(ray.sample_count);
  for (CameraAOV& aov : cameras[renderer.camera].aovs) {
    const int64_t i = int64_t(ray.pixel) * aov.image.channels;
    if (aov.channel == userDataChannel) {
      addToPixel(aov.image, i, userDataTerm(ray, aov.user_data_name) * f);
      continue;
    }
    for (uint32_t bit : termOrder)
      if (aov.channel & bit) addToPixel(aov.image, i, term(bit, ray, terms) * f);
  }
}

void saveAOV(const CameraAOV& aov) {
  if (!aov.image.name.empty() && aov.width > 0 && aov.image.floats.empty()) {
    printError("image - " + aov.image.name + "\tcannot be written: its framebuffer could not be allocated");
    unsavedImages.insert(aov.image.name);
    return;
  }
  saveImage(aov.image);
}

std::string aovLayerName(const CameraAOV& aov) {
  if (aov.channel == beautyChannel) return "beauty";
  if (aov.channel == userDataChannel) return aov.user_data_name;
  std::string name;
  uint32_t left = aov.channel;
  for (const TypeWord& entry : typeWords)
    // "diffuse" says what "lambertian" says, in the word compositors know.
    if ((left & entry.bits) == entry.bits && std::string_view(entry.word) != "lambertian") {
      name += (name.empty() ? "" : "+") + std::string(entry.word);
      left &= ~entry.bits;
    }
  // Bits with no word (the surface colours, set through the exports) by number.
  if (left) {
    char bits[16];
    std::snprintf(bits, sizeof bits, "0x%x", left);
    name += (name.empty() ? "" : "+") + std::string(bits);
  }
  return name;
}

void reportAOV(const CameraAOV& aov) {
  Color3f mean, variance;
  imageStatistics(aov.image, mean, variance);
  printTripleRow("avgerage", mean.r, mean.g, mean.b, aov.image.name);
  printTripleRow("variance", variance.r, variance.g, variance.b, aov.image.name);
}
