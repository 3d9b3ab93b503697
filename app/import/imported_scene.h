// A model file as the importer understands it, between the reader that fills
// it (assimp, with glTF's extras from tinygltf) and the writer that turns it
// into a scene directory. Everything here has been checked: indices are in
// range and numbers are finite.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <assimp/matrix4x4.h>
#include <assimp/types.h>

// An image that a material names: a file beside the model, or bytes the model
// carries inside it.
struct ImportedImage {
  std::string source;                // a path to copy, empty for embedded bytes
  std::vector<unsigned char> bytes;  // embedded, encoded as PNG, JPEG and so on
  std::string file_name;             // its name in the scene's image folder
};

// A texture slot: which image, and the transform of its coordinates.
struct TextureSlot {
  int image = -1;  // index into ImportedScene::images, -1 for none
  bool transformed = false;
  std::array<float, 9> uv_matrix{1, 0, 0, 0, 1, 0, 0, 0, 1};  // row by row, on (u, v, 1)
};

// The values of one material, metallic-roughness or the older specular kind.
struct ImportedMaterial {
  std::string name;  // one word, unique in the scene
  bool metallic_roughness = false;
  aiColor3D base{0.8f, 0.8f, 0.8f};
  TextureSlot base_texture;
  float metallic = 0, roughness = 1;
  TextureSlot metallic_roughness_texture;  // green roughness, blue metallic
  aiColor3D specular{0, 0, 0};             // Ks
  TextureSlot specular_texture;
  float shininess = 0;  // Ns
  TextureSlot normal_texture;
  float normal_scale = 1;
  aiColor3D emission{0, 0, 0};
  TextureSlot emission_texture;
  float emission_strength = 1;
  float transmission = 0;
  float opacity = 1;  // MTL d
  float ior = 1.5f;
  float clear_coat = 0;
};

struct ImportedMesh {
  std::string name;  // one word, unique in the scene
  int material = 0;
  std::vector<aiVector3D> positions;
  std::vector<aiVector3D> normals;  // empty, or one a position
  std::vector<aiVector3D> uvs;      // empty, or one a position; z unused
  std::vector<std::array<uint32_t, 3>> triangles;
  std::vector<aiMatrix4x4> placements;  // world matrices of the nodes that show it
};

struct ImportedLight {
  enum Kind { point, spot, directional } kind = point;
  aiVector3D position, direction{0, 0, -1};
  aiColor3D color{1, 1, 1};  // radiant units, already converted
  float inner_degrees = 0, outer_degrees = 0;
};

struct ImportedCamera {
  std::string name;
  int source = 0;  // the camera's index in the file
  aiVector3D position, target{0, 0, -1}, up{0, 1, 0};
  float horizontal_degrees = 40;
  float aspect = 0;  // width over height; 0 when the file does not say
};

struct ImportedScene {
  bool gltf = false;
  std::vector<ImportedImage> images;
  std::vector<ImportedMaterial> materials;
  std::vector<ImportedMesh> meshes;
  std::vector<ImportedLight> lights;
  std::vector<ImportedCamera> cameras;
  std::vector<std::string> warnings;  // printed once each, in order
};
