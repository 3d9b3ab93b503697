// What assimp 5.2 drops or approximates in a glTF file, read with tinygltf:
// KHR_materials_emissive_strength, KHR_texture_transform in glTF's own terms,
// the exact field of view of perspective cameras, and the list of extensions
// the file uses, for a warning on each that is not mapped.
#pragma once

#include <string>

#include "app/import/imported_scene.h"

// Fills in the records that readModel made from the same file.
void readGltfExtras(const std::string& path, ImportedScene& scene);
