// Reads a model file (glTF, OBJ with its MTL, PLY, FBX, Collada, STL, ...)
// through assimp into checked records.
#pragma once

#include <string>

#include "app/import/imported_scene.h"

// Photometric units of glTF lights over radiant ones: lumens per watt.
constexpr float lumensPerWatt = 683;

// False with `error` set when the file cannot be read at all; what cannot be
// mapped is left out with a line in scene.warnings.
bool readModel(const std::string& path, ImportedScene& scene, std::string& error);

// A name that the scene files take as one word: letters, digits, '_', '-' and
// '.', never empty.
std::string oneWord(const std::string& text, const char* fallback);
