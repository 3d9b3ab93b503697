#include "app/import/read_model.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <map>
#include <set>
#include <utility>

#include <assimp/GltfMaterial.h>
#include <assimp/Importer.hpp>
#include <assimp/postprocess.h>
#include <assimp/scene.h>

namespace fs = std::filesystem;

std::string oneWord(const std::string& text, const char* fallback) {
  std::string word;
  for (const char c : text) word += std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' ? c : '_';
  return word.empty() ? fallback : word;
}

namespace {
// Makes names unique by a numbered suffix, as they are handed out.
struct NameBook {
  std::set<std::string> taken;
  std::string claim(const std::string& wanted) {
    std::string name = wanted;
    for (int n = 2; !taken.insert(name).second; ++n) name = wanted + "-" + std::to_string(n);
    return name;
  }
};

float clampFinite(float value, float fallback, float low, float high) {
  return std::isfinite(value) ? std::clamp(value, low, high) : fallback;
}

aiColor3D finiteColor(aiColor3D c, aiColor3D fallback, float high) {
  for (int i = 0; i < 3; ++i)
    if (!std::isfinite(c[i])) return fallback;
  return {std::clamp(c.r, 0.0f, high), std::clamp(c.g, 0.0f, high), std::clamp(c.b, 0.0f, high)};
}

bool finiteMatrix(const aiMatrix4x4& m) {
  for (int i = 0; i < 4; ++i)
    for (int j = 0; j < 4; ++j)
      if (!std::isfinite(m[i][j])) return false;
  return true;
}

bool finiteVector(const aiVector3D& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

// File names in URIs may be escaped: "%20" is a blank.
std::string unescape(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
        std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
      out += char(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

class ModelReader {
 public:
  ModelReader(const aiScene& ai, const fs::path& folder, ImportedScene& scene) : ai(ai), folder(folder), scene(scene) {}

  void read() {
    for (unsigned i = 0; i < ai.mNumMaterials; ++i) readMaterial(*ai.mMaterials[i]);
    if (scene.materials.empty()) {
      scene.materials.emplace_back();
      scene.materials.back().name = "default";
    }
    for (unsigned i = 0; i < ai.mNumMeshes; ++i) readMesh(*ai.mMeshes[i]);
    placeNodes();
    for (unsigned i = 0; i < ai.mNumLights; ++i) readLight(*ai.mLights[i]);
    for (unsigned i = 0; i < ai.mNumCameras; ++i) readCamera(*ai.mCameras[i], int(i));
    if (ai.mNumAnimations > 0)
      warn(std::to_string(ai.mNumAnimations) + " animation(s) are not played: the scene stands at rest");
    if (skinned) warn(std::to_string(skinned) + " skinned mesh(es) are imported in their bind pose");
    if (morphed) warn(std::to_string(morphed) + " mesh(es) with morph targets are imported without them");
    if (dropped_faces) warn(std::to_string(dropped_faces) + " face(s) with wild indices or positions are left out");
  }

 private:
  const aiScene& ai;
  fs::path folder;
  ImportedScene& scene;
  NameBook material_names, mesh_names, image_names;
  std::map<std::string, int> images_by_path;
  std::map<std::string, aiMatrix4x4> node_matrices;  // the first node of each name
  std::vector<int> mesh_of;                          // assimp mesh to our mesh, -1 when left out
  int skinned = 0, morphed = 0;
  size_t dropped_faces = 0;

  void warn(const std::string& message) { scene.warnings.push_back("import - " + message); }

  int image(const std::string& reference) {
    const auto known = images_by_path.find(reference);
    if (known != images_by_path.end()) return known->second;
    ImportedImage entry;
    std::string stem = "image", extension = ".png";
    if (const aiTexture* embedded = ai.GetEmbeddedTexture(reference.c_str())) {
      // Raw texels (a height above 0) are rare; glTF and FBX embed encoded files.
      if (embedded->mHeight != 0 || !embedded->pcData) {
        warn("the embedded image " + reference + " is not an encoded file; it is left out");
        return images_by_path[reference] = -1;
      }
      const auto* data = reinterpret_cast<const unsigned char*>(embedded->pcData);
      entry.bytes.assign(data, data + embedded->mWidth);
      const std::string hint = oneWord(embedded->achFormatHint, "png");
      extension = "." + (hint == "jpeg" ? std::string("jpg") : hint);
      if (embedded->mFilename.length > 0) stem = fs::path(embedded->mFilename.C_Str()).stem().string();
    } else {
      const fs::path path = folder / unescape(reference);
      std::error_code error;
      if (!fs::is_regular_file(path, error)) {
        warn("the image " + reference + " cannot be found; its slot is left empty");
        return images_by_path[reference] = -1;
      }
      entry.source = path.string();
      stem = path.stem().string();
      extension = path.extension().string();
    }
    entry.file_name = image_names.claim(oneWord(stem, "image") + oneWord(extension, ".png"));
    scene.images.push_back(std::move(entry));
    return images_by_path[reference] = int(scene.images.size()) - 1;
  }

  TextureSlot texture(const aiMaterial& m, aiTextureType type) {
    TextureSlot slot;
    aiString path;
    if (m.GetTextureCount(type) > 0 && m.GetTexture(type, 0, &path) == AI_SUCCESS && path.length > 0)
      slot.image = image(path.C_Str());
    return slot;
  }

  void readMaterial(const aiMaterial& m) {
    ImportedMaterial out;
    out.name = material_names.claim(oneWord(m.GetName().C_Str(), "material"));
    float value = 0;
    aiColor4D color4;
    aiColor3D color;
    out.metallic_roughness =
        m.Get(AI_MATKEY_ROUGHNESS_FACTOR, value) == AI_SUCCESS || m.Get(AI_MATKEY_METALLIC_FACTOR, value) == AI_SUCCESS;
    if (m.Get(AI_MATKEY_BASE_COLOR, color4) == AI_SUCCESS || m.Get(AI_MATKEY_COLOR_DIFFUSE, color4) == AI_SUCCESS)
      out.base = finiteColor({color4.r, color4.g, color4.b}, out.base, 1);
    out.base_texture = texture(m, aiTextureType_BASE_COLOR);
    if (out.base_texture.image < 0) out.base_texture = texture(m, aiTextureType_DIFFUSE);
    if (m.Get(AI_MATKEY_METALLIC_FACTOR, value) == AI_SUCCESS) out.metallic = clampFinite(value, 0, 0, 1);
    if (m.Get(AI_MATKEY_ROUGHNESS_FACTOR, value) == AI_SUCCESS) out.roughness = clampFinite(value, 1, 0, 1);
    if (scene.gltf) out.metallic_roughness_texture = texture(m, aiTextureType_UNKNOWN);
    if (m.Get(AI_MATKEY_COLOR_SPECULAR, color) == AI_SUCCESS) out.specular = finiteColor(color, {}, 1);
    out.specular_texture = texture(m, aiTextureType_SPECULAR);
    if (m.Get(AI_MATKEY_SHININESS, value) == AI_SUCCESS) out.shininess = clampFinite(value, 0, 0, 1e6f);
    out.normal_texture = texture(m, aiTextureType_NORMALS);
    if (m.Get(AI_MATKEY_GLTF_TEXTURE_SCALE(aiTextureType_NORMALS, 0), value) == AI_SUCCESS ||
        m.Get(AI_MATKEY_BUMPSCALING, value) == AI_SUCCESS)
      out.normal_scale = clampFinite(value, 1, -100, 100);
    if (m.GetTextureCount(aiTextureType_HEIGHT) > 0)
      warn("material " + out.name + ": a bump (height) map cannot be mapped, only a normal map; it is left out");
    if (m.Get(AI_MATKEY_COLOR_EMISSIVE, color) == AI_SUCCESS) out.emission = finiteColor(color, {}, 1e6f);
    out.emission_texture = texture(m, aiTextureType_EMISSIVE);
    if (m.Get(AI_MATKEY_TRANSMISSION_FACTOR, value) == AI_SUCCESS) out.transmission = clampFinite(value, 0, 0, 1);
    if (!scene.gltf && m.Get(AI_MATKEY_OPACITY, value) == AI_SUCCESS) out.opacity = clampFinite(value, 1, 0, 1);
    // glTF gives an index only with KHR_materials_ior, and 1 then means no
    // reflection; MTL without Ni gives 1 too, which means Ni was left out.
    if (m.Get(AI_MATKEY_REFRACTI, value) == AI_SUCCESS && (scene.gltf || value > 1.0001f))
      out.ior = clampFinite(value, 1.5f, 1, 100);
    if (m.Get(AI_MATKEY_CLEARCOAT_FACTOR, value) == AI_SUCCESS) out.clear_coat = clampFinite(value, 0, 0, 1);
    if (out.clear_coat > 0 && m.Get(AI_MATKEY_CLEARCOAT_ROUGHNESS_FACTOR, value) == AI_SUCCESS && value > 0)
      warn("material " + out.name + ": a rough clear coat is imported smooth");
    if (m.Get(AI_MATKEY_SHEEN_COLOR_FACTOR, color4) == AI_SUCCESS && (color4.r > 0 || color4.g > 0 || color4.b > 0))
      warn("material " + out.name + ": sheen cannot be mapped and is left out");
    aiString mode;
    if (m.Get(AI_MATKEY_GLTF_ALPHAMODE, mode) == AI_SUCCESS && std::string(mode.C_Str()) != "OPAQUE")
      warn("material " + out.name + ": alpha " + oneWord(mode.C_Str(), "mode") +
           " cannot be mapped; the surface is opaque");
    scene.materials.push_back(std::move(out));
  }

  void readMesh(const aiMesh& m) {
    mesh_of.push_back(-1);
    if (m.mNumBones > 0) ++skinned;
    if (m.mNumAnimMeshes > 0) ++morphed;
    if (!m.mVertices || !(m.mPrimitiveTypes & aiPrimitiveType_TRIANGLE)) return;
    ImportedMesh out;
    out.material = m.mMaterialIndex < scene.materials.size() ? int(m.mMaterialIndex) : 0;
    out.positions.assign(m.mVertices, m.mVertices + m.mNumVertices);
    bool normals = m.mNormals != nullptr, uvs = m.mTextureCoords[0] != nullptr;
    for (unsigned i = 0; i < m.mNumVertices && (normals || uvs); ++i) {
      normals = normals && finiteVector(m.mNormals[i]);
      uvs = uvs && finiteVector(m.mTextureCoords[0][i]);
    }
    if (normals) out.normals.assign(m.mNormals, m.mNormals + m.mNumVertices);
    if (uvs) out.uvs.assign(m.mTextureCoords[0], m.mTextureCoords[0] + m.mNumVertices);
    for (unsigned f = 0; f < m.mNumFaces; ++f) {
      const aiFace& face = m.mFaces[f];
      if (face.mNumIndices != 3 || !face.mIndices) continue;  // points and lines
      const std::array<uint32_t, 3> t{face.mIndices[0], face.mIndices[1], face.mIndices[2]};
      const bool valid = std::all_of(t.begin(), t.end(), [&](uint32_t i) {
        return i < m.mNumVertices && finiteVector(out.positions[i]);
      });
      if (valid)
        out.triangles.push_back(t);
      else
        ++dropped_faces;
    }
    if (out.triangles.empty()) return;
    out.name = mesh_names.claim(oneWord(m.mName.C_Str(), "mesh"));
    scene.meshes.push_back(std::move(out));
    mesh_of.back() = int(scene.meshes.size()) - 1;
  }

  // Walks the node tree without recursion: a file may nest nodes deeply.
  void placeNodes() {
    std::vector<std::pair<const aiNode*, aiMatrix4x4>> stack{{ai.mRootNode, aiMatrix4x4()}};
    bool warned = false;
    while (!stack.empty()) {
      const auto [node, parent] = stack.back();
      stack.pop_back();
      const aiMatrix4x4 world = parent * node->mTransformation;
      if (!finiteMatrix(world)) {
        if (!warned) warn("a node whose transform is not finite is left out, with what hangs below it");
        warned = true;
        continue;
      }
      node_matrices.emplace(node->mName.C_Str(), world);
      for (unsigned i = 0; i < node->mNumMeshes; ++i)
        if (node->mMeshes && node->mMeshes[i] < mesh_of.size() && mesh_of[node->mMeshes[i]] >= 0)
          scene.meshes[size_t(mesh_of[node->mMeshes[i]])].placements.push_back(world);
      for (unsigned i = 0; i < node->mNumChildren; ++i)
        if (node->mChildren && node->mChildren[i]) stack.emplace_back(node->mChildren[i], world);
    }
  }

  aiMatrix4x4 nodeMatrix(const aiString& name) const {
    const auto found = node_matrices.find(name.C_Str());
    return found == node_matrices.end() ? aiMatrix4x4() : found->second;
  }

  void readLight(const aiLight& l) {
    const aiMatrix4x4 world = nodeMatrix(l.mName);
    const aiMatrix3x3 turn(world);
    ImportedLight out;
    out.position = world * l.mPosition;
    out.direction = (turn * l.mDirection).NormalizeSafe();
    // glTF gives candela and lux; other formats give their colours as they are.
    const float scale = scene.gltf ? 1 / lumensPerWatt : 1;
    out.color = finiteColor(l.mColorDiffuse * scale, {}, 1e9f);
    switch (l.mType) {
      case aiLightSource_POINT:
        out.kind = ImportedLight::point;
        out.direction = {0, -1, 0};  // read by nothing: it shines all round
        break;
      case aiLightSource_SPOT:
        out.kind = ImportedLight::spot;
        out.inner_degrees = clampFinite(l.mAngleInnerCone * 180 / float(M_PI), 0, 0, 180);
        out.outer_degrees = clampFinite(l.mAngleOuterCone * 180 / float(M_PI), 45, 0, 180);
        break;
      case aiLightSource_DIRECTIONAL:
        out.kind = ImportedLight::directional;
        break;
      default:
        warn("light " + oneWord(l.mName.C_Str(), "light") + " is of a kind that cannot be mapped; it is left out");
        return;
    }
    if (!finiteVector(out.position) || !finiteVector(out.direction) || out.direction.SquareLength() == 0) {
      warn("light " + oneWord(l.mName.C_Str(), "light") + " has no finite place or direction; it is left out");
      return;
    }
    scene.lights.push_back(out);
  }

  void readCamera(const aiCamera& c, int source) {
    const aiMatrix4x4 world = nodeMatrix(c.mName);
    const aiMatrix3x3 turn(world);
    ImportedCamera out;
    out.name = oneWord(c.mName.C_Str(), "camera");
    out.source = source;
    // assimp 5.2 copies a glTF camera node's translation into the camera as
    // well: the node alone places it.
    out.position = world * (scene.gltf ? aiVector3D() : c.mPosition);
    out.target = out.position + (turn * c.mLookAt).NormalizeSafe();
    out.up = (turn * c.mUp).NormalizeSafe();
    // assimp keeps half the horizontal angle, but for glTF the whole angle
    // (approximated: tinygltf then gives the exact one).
    const float angle = scene.gltf ? c.mHorizontalFOV : 2 * c.mHorizontalFOV;
    out.horizontal_degrees = clampFinite(angle * 180 / float(M_PI), 40, 1, 179);
    out.aspect = clampFinite(c.mAspect, 0, 0, 100);
    if (!finiteVector(out.position) || !finiteVector(out.target) || !finiteVector(out.up)) {
      warn("camera " + out.name + " has no finite place; it is left out");
      return;
    }
    scene.cameras.push_back(out);
  }
};
}  // namespace

bool readModel(const std::string& path, ImportedScene& scene, std::string& error) {
  const fs::path file(path);
  std::string extension = file.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(), [](unsigned char c) { return std::tolower(c); });
  scene.gltf = extension == ".gltf" || extension == ".glb";
  Assimp::Importer importer;
  // Points and lines have no surface to render.
  importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE, aiPrimitiveType_POINT | aiPrimitiveType_LINE);
  importer.SetPropertyFloat(AI_CONFIG_PP_GSN_MAX_SMOOTHING_ANGLE, 60);
  // Reading and the steps after it apart: a file of points and lines is read
  // well, and only then found to hold nothing to render.
  const aiScene* ai = importer.ReadFile(path, 0);
  if (!ai || !ai->mRootNode) {
    error = "import - cannot read " + path + ": " + importer.GetErrorString();
    return false;
  }
  ai = importer.ApplyPostProcessing(aiProcess_Triangulate | aiProcess_SortByPType | aiProcess_GenSmoothNormals |
                                    aiProcess_ValidateDataStructure);
  if (!ai || !ai->mRootNode) {
    error = "import - " + path + " holds no surface to render (" + importer.GetErrorString() + ")";
    return false;
  }
  ModelReader(*ai, file.parent_path(), scene).read();
  return true;
}
