// The rules that turn an imported material into a `shader` block.
#pragma once

#include <string>

#include "app/import/imported_scene.h"

bool isEmissive(const ImportedMaterial& material);

// The whole block, with image paths under image/.
std::string shaderText(const ImportedMaterial& material, const ImportedScene& scene);

// A float that reads back to the same bits.
std::string exact(float value);
