#include "app/import/write_scene.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>

#include "app/import/read_model.h"
#include "app/import/shader_text.h"

namespace fs = std::filesystem;

namespace {
std::string vec(const aiVector3D& v) { return exact(v.x) + " " + exact(v.y) + " " + exact(v.z); }

bool writeText(const fs::path& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  return bool(file << text) && bool(file.flush());
}

// The mesh as OBJ, in its own coordinates: faces name the shader with usemtl.
bool writeObj(const fs::path& path, const ImportedMesh& mesh, const std::string& shader) {
  std::ofstream file(path, std::ios::binary);
  file << "# imported mesh " << mesh.name << "\nusemtl " << shader << "\n";
  for (const aiVector3D& p : mesh.positions) file << "v " << vec(p) << "\n";
  for (const aiVector3D& t : mesh.uvs) file << "vt " << exact(t.x) << " " << exact(t.y) << "\n";
  for (const aiVector3D& n : mesh.normals) file << "vn " << vec(n) << "\n";
  const bool uvs = !mesh.uvs.empty(), normals = !mesh.normals.empty();
  for (const auto& t : mesh.triangles) {
    file << "f";
    for (const uint32_t i : t) {
      file << " " << i + 1;
      if (uvs || normals) file << "/";
      if (uvs) file << i + 1;
      if (normals) file << "/" << i + 1;
    }
    file << "\n";
  }
  return bool(file.flush());
}

struct Bounds {
  aiVector3D low{3.4e38f, 3.4e38f, 3.4e38f}, high{-3.4e38f, -3.4e38f, -3.4e38f};
  void grow(const aiVector3D& p) {
    low = {std::min(low.x, p.x), std::min(low.y, p.y), std::min(low.z, p.z)};
    high = {std::max(high.x, p.x), std::max(high.y, p.y), std::max(high.z, p.z)};
  }
  bool empty() const { return low.x > high.x; }
};

// The placed meshes' bounds, from the corners of each mesh's own box.
Bounds sceneBounds(const ImportedScene& scene) {
  Bounds all;
  for (const ImportedMesh& mesh : scene.meshes) {
    Bounds own;
    for (const auto& t : mesh.triangles)
      for (const uint32_t i : t) own.grow(mesh.positions[i]);
    for (const aiMatrix4x4& m : mesh.placements)
      for (int c = 0; c < 8; ++c)
        all.grow(m * aiVector3D(c & 1 ? own.high.x : own.low.x, c & 2 ? own.high.y : own.low.y,
                                c & 4 ? own.high.z : own.low.z));
  }
  return all;
}

// A camera that frames the bounds from the front right, a little above.
ImportedCamera framingCamera(const ImportedScene& scene) {
  ImportedCamera camera;
  camera.name = "framing";
  camera.horizontal_degrees = 40;
  camera.aspect = 16.0f / 9.0f;
  const Bounds b = sceneBounds(scene);
  const aiVector3D center = b.empty() ? aiVector3D() : (b.low + b.high) * 0.5f;
  float radius = b.empty() ? 1 : (b.high - b.low).Length() * 0.5f;
  if (!(radius > 1e-6f && std::isfinite(radius))) radius = 1;
  const float half = std::atan(std::tan(camera.horizontal_degrees * float(M_PI) / 360) / camera.aspect);
  const float yaw = 35 * float(M_PI) / 180, pitch = 25 * float(M_PI) / 180;
  const aiVector3D toward(std::sin(yaw) * std::cos(pitch), std::sin(pitch), std::cos(yaw) * std::cos(pitch));
  camera.position = center + toward * (1.05f * radius / std::sin(half));
  camera.target = center;
  return camera;
}

const ImportedCamera* chooseCamera(ImportedScene& scene, const std::string& name) {
  if (!name.empty()) {
    for (const ImportedCamera& c : scene.cameras)
      if (c.name == name) return &c;
    scene.warnings.push_back("import - there is no camera " + name + " in the file; " +
                             (scene.cameras.empty() ? "one that frames the scene" : "the first") + " is used");
  }
  return scene.cameras.empty() ? nullptr : &scene.cameras.front();
}

std::string cameraText(const ImportedCamera& c, const SceneChoices& choices) {
  int width = 960, height = c.aspect > 0 ? int(std::lround(960 / c.aspect)) : 540;
  height = std::clamp(height, 1, 16384);
  if (choices.width > 0) width = choices.width, height = choices.height;
  std::string pose = "pose\nposition " + vec(c.position) + "\ntarget " + vec(c.target) + "\nup_vector " + vec(c.up) +
                     "\nfield_of_view " + exact(c.horizontal_degrees) + "\nend\n";
  return "# camera " + c.name + ", still: both ends of the exposure share one pose\ncamera\nresolution " +
         std::to_string(width) + " " + std::to_string(height) + "\nsample " +
         std::to_string(choices.samples > 0 ? choices.samples : 16) + "\n" + pose + pose + "end\n";
}

std::string lightText(const ImportedScene& scene, const std::string& sky_image) {
  std::string text;
  for (const ImportedLight& l : scene.lights) {
    if (l.kind == ImportedLight::directional) {
      text += "parallel_light\ndirection " + vec(l.direction) + "\ncolor " + exact(l.color.r) + " " +
              exact(l.color.g) + " " + exact(l.color.b) + "\nend\n\n";
      continue;
    }
    // A point light shines alike in all directions: full strength out to
    // 180 degrees, its ramp beyond every angle there is.
    const bool spot = l.kind == ImportedLight::spot;
    text += "point_light\nposition " + vec(l.position) + "\ndirection " + vec(l.direction) + "\ncolor " +
            exact(l.color.r) + " " + exact(l.color.g) + " " + exact(l.color.b) + "\ninner_angle " +
            exact(spot ? l.inner_degrees : 180) + "\nouter_angle " + exact(spot ? l.outer_degrees : 360) + "\nend\n\n";
  }
  const bool emissive = std::any_of(scene.materials.begin(), scene.materials.end(), isEmissive);
  if (emissive) text += "geometry_light\nsample 16\nend\n\n";
  // The sky: the image given, else radiance 1 for a file without lights, else
  // dark. Glowing surfaces do not count: files tend to have small ones (labels,
  // lamps) and leave the rest to the viewer's environment light.
  const bool lit = !scene.lights.empty();
  text += "sky_light\nzenith 0 1 0\nnorth 0 0 -1\n";
  if (!sky_image.empty())
    text += "color 1 1 1\nimage \"image/" + sky_image + "\"\n";
  else
    text += std::string(lit ? "color 0 0 0" : "color 1 1 1") + "\nimage \"\"\n";
  return text + "end\n";
}

// Three bounces, so that metals and glass show the lit surfaces around them
// rather than only the lights and the sky.
const char* const renderText = "render\nfinal_gather\nbounce 3\nray_depth 8\nend\nend\n";

std::string geometryText(const ImportedScene& scene) {
  std::string root = "root", text;
  while (std::any_of(scene.meshes.begin(), scene.meshes.end(), [&](const ImportedMesh& m) { return m.name == root; }))
    root += "_";
  std::string instances;
  for (const ImportedMesh& mesh : scene.meshes) {
    if (mesh.placements.empty()) continue;
    const std::string& shader = scene.materials[size_t(mesh.material)].name;
    text += "object\nname " + mesh.name + "\nshader \"" + shader + "\"\nobj \"geometry/" + mesh.name + ".obj\"\nend\n\n";
    for (const aiMatrix4x4& m : mesh.placements) {
      instances += "instance\nobject " + mesh.name + "\nmatrix";
      for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) instances += " " + exact(m[i][j]);
      instances += "\nend\n";
    }
  }
  return text + "# Every mesh is placed by the instances of the root, once for each node that shows it.\nobject\nname " +
         root + "\n" + instances + "end\n";
}

bool copyImage(const ImportedImage& image, const fs::path& folder) {
  const fs::path target = folder / image.file_name;
  if (image.source.empty())
    return writeText(target, std::string(image.bytes.begin(), image.bytes.end()));
  std::error_code error;
  fs::copy_file(image.source, target, fs::copy_options::overwrite_existing, error);
  return !error;
}
}  // namespace

std::string writeSceneDirectory(ImportedScene& scene, const std::string& directory, const SceneChoices& choices) {
  const fs::path root(directory);
  std::error_code error;
  for (const char* folder : {"shader", "render", "light", "camera", "geometry", "image"})
    fs::create_directories(root / folder, error);
  if (error) return "import - cannot make the folders of " + directory;
  for (const ImportedImage& image : scene.images)
    if (!copyImage(image, root / "image")) return "import - cannot write the image " + image.file_name;
  std::string sky_name;
  if (!choices.sky.empty()) {
    sky_name = "sky-" + oneWord(fs::path(choices.sky).filename().string(), "sky.hdr");
    fs::copy_file(choices.sky, root / "image" / sky_name, fs::copy_options::overwrite_existing, error);
    if (error) return "import - cannot copy the sky image " + choices.sky;
  }

  std::string shaders;
  for (const ImportedMaterial& m : scene.materials) shaders += shaderText(m, scene);
  for (const ImportedMesh& mesh : scene.meshes)
    if (!mesh.placements.empty() &&
        !writeObj(root / "geometry" / (mesh.name + ".obj"), mesh, scene.materials[size_t(mesh.material)].name))
      return "import - cannot write the mesh " + mesh.name;
  const ImportedCamera* chosen = chooseCamera(scene, choices.camera);
  const ImportedCamera camera = chosen ? *chosen : framingCamera(scene);
  if (!writeText(root / "shader" / "materials.qz", shaders) ||
      !writeText(root / "render" / "render.qz", renderText) ||
      !writeText(root / "light" / "lights.qz", lightText(scene, sky_name)) ||
      !writeText(root / "camera" / "camera.qz", cameraText(camera, choices)) ||
      !writeText(root / "geometry" / "scene.qz", geometryText(scene)))
    return "import - cannot write the scene files into " + directory;
  return "";
}
