#include "app/import/gltf_extras.h"

#include <algorithm>
#include <cmath>
#include <set>

#define TINYGLTF_IMPLEMENTATION
#define TINYGLTF_NO_STB_IMAGE
#define TINYGLTF_NO_STB_IMAGE_WRITE
#define TINYGLTF_NO_EXTERNAL_IMAGE
#include <tiny_gltf.h>

namespace {
// The extensions that the import maps, or whose absence changes nothing.
const std::set<std::string> mappedExtensions{
    "KHR_lights_punctual",     "KHR_materials_emissive_strength", "KHR_materials_transmission",
    "KHR_materials_ior",       "KHR_texture_transform",           "KHR_materials_clearcoat",
    "KHR_mesh_quantization",   "KHR_materials_sheen",  // sheen is warned of by material
};

// Images are copied as files, never decoded here.
bool skipImage(tinygltf::Image*, const int, std::string*, std::string*, int, int, const unsigned char*, int, void*) {
  return true;
}

// A number under `key` of an object value, or `fallback`; malformed values
// of any kind give the fallback.
double number(const tinygltf::Value& object, const char* key, double fallback) {
  if (!object.IsObject() || !object.Has(key)) return fallback;
  const tinygltf::Value& v = object.Get(key);
  return v.IsNumber() && std::isfinite(v.GetNumberAsDouble()) ? v.GetNumberAsDouble() : fallback;
}

double element(const tinygltf::Value& object, const char* key, int index, double fallback) {
  if (!object.IsObject() || !object.Has(key)) return fallback;
  const tinygltf::Value& array = object.Get(key);
  if (!array.IsArray() || array.ArrayLen() <= size_t(index)) return fallback;
  const tinygltf::Value& v = array.Get(index);
  return v.IsNumber() && std::isfinite(v.GetNumberAsDouble()) ? v.GetNumberAsDouble() : fallback;
}

// glTF's transform maps coordinates with v down; the records hold them with v
// up, as assimp turned them. So the matrix is F M F, F being v -> 1 - v.
void applyTextureTransform(const tinygltf::ExtensionMap& extensions, TextureSlot& slot) {
  const auto found = extensions.find("KHR_texture_transform");
  if (slot.image < 0 || found == extensions.end()) return;
  const tinygltf::Value& t = found->second;
  const double ox = element(t, "offset", 0, 0), oy = element(t, "offset", 1, 0);
  const double sx = element(t, "scale", 0, 1), sy = element(t, "scale", 1, 1);
  const double r = number(t, "rotation", 0), c = std::cos(r), s = std::sin(r);
  // M = T R S; glTF writes R column by column as (c, s), (-s, c).
  const double m[2][3] = {{c * sx, -s * sy, ox}, {s * sx, c * sy, oy}};
  // F M F: row 1 is negated and gains 1 in the translation; column 1 is negated
  // and its value moves into the translation.
  const double a = m[0][0], b = -m[0][1], e = m[0][2] + m[0][1];
  const double d = -m[1][0], f = m[1][1], g = 1 - (m[1][2] + m[1][1]);
  slot.uv_matrix = {float(a), float(b), float(e), float(d), float(f), float(g), 0, 0, 1};
  slot.transformed = std::all_of(slot.uv_matrix.begin(), slot.uv_matrix.end(), [](float x) { return std::isfinite(x); });
  if (!slot.transformed) slot.uv_matrix = {1, 0, 0, 0, 1, 0, 0, 0, 1};
}

void readMaterial(const tinygltf::Material& source, ImportedMaterial& target) {
  const auto strength = source.extensions.find("KHR_materials_emissive_strength");
  if (strength != source.extensions.end())
    target.emission_strength = float(std::clamp(number(strength->second, "emissiveStrength", 1), 0.0, 1e6));
  applyTextureTransform(source.pbrMetallicRoughness.baseColorTexture.extensions, target.base_texture);
  applyTextureTransform(source.pbrMetallicRoughness.metallicRoughnessTexture.extensions,
                        target.metallic_roughness_texture);
  applyTextureTransform(source.normalTexture.extensions, target.normal_texture);
  applyTextureTransform(source.emissiveTexture.extensions, target.emission_texture);
}

// assimp 5.2 takes the product of the vertical angle and the aspect ratio for
// the horizontal angle; the true one goes through the tangents.
void readCamera(const tinygltf::Camera& source, ImportedCamera& target, ImportedScene& scene) {
  if (source.type != "perspective") {
    scene.warnings.push_back("import - camera " + target.name + " is orthographic and is rendered in perspective");
    return;
  }
  const double yfov = source.perspective.yfov, aspect = source.perspective.aspectRatio;
  const double shape = aspect > 0 ? aspect : 16.0 / 9.0;  // the default resolution's
  const double h = 2 * std::atan(std::tan(0.5 * yfov) * shape) * 180 / M_PI;
  if (!std::isfinite(h) || yfov <= 0) return;
  target.horizontal_degrees = float(std::clamp(h, 1.0, 179.0));
  target.aspect = std::isfinite(aspect) && aspect > 0 ? float(std::min(aspect, 100.0)) : 0;
}
}  // namespace

void readGltfExtras(const std::string& path, ImportedScene& scene) {
  tinygltf::TinyGLTF loader;
  loader.SetImageLoader(skipImage, nullptr);
  tinygltf::Model model;
  std::string error, warning;
  const bool binary = path.size() >= 4 && (path.substr(path.size() - 4) == ".glb" || path.substr(path.size() - 4) == ".GLB");
  const bool read = binary ? loader.LoadBinaryFromFile(&model, &error, &warning, path)
                           : loader.LoadASCIIFromFile(&model, &error, &warning, path);
  if (!read) {
    scene.warnings.push_back(
        "import - the glTF extensions of the file cannot be read; emission strength, texture transforms and "
        "exact camera angles are left out");
    return;
  }
  for (const std::string& name : model.extensionsUsed)
    if (!mappedExtensions.count(name))
      scene.warnings.push_back("import - the glTF extension " + name + " is not supported; what it adds is left out" +
                               (name == "KHR_draco_mesh_compression" ? " (compressed meshes cannot be decoded)" : ""));
  // assimp keeps the file's order of materials and cameras.
  for (size_t i = 0; i < std::min(model.materials.size(), scene.materials.size()); ++i)
    readMaterial(model.materials[i], scene.materials[i]);
  for (ImportedCamera& camera : scene.cameras)
    if (camera.source >= 0 && size_t(camera.source) < model.cameras.size())
      readCamera(model.cameras[size_t(camera.source)], camera, scene);
}
