// Writes an imported model as an editable scene directory: shader/, light/,
// camera/ and geometry/ folders of .qz files, one OBJ file per mesh (stored
// once, however many nodes show it), and the images copied into image/.
#pragma once

#include <string>

#include "app/import/imported_scene.h"

struct SceneChoices {
  std::string camera;  // the camera of this name; empty: the first
  std::string sky;     // an environment image to light the scene with
  int width = 0, height = 0, samples = 0;  // 0: from the file's camera, 16 passes
};

// Writes into `directory`, which exists. Returns what went wrong, or an empty
// string; what could not be mapped goes to scene.warnings.
std::string writeSceneDirectory(ImportedScene& scene, const std::string& directory, const SceneChoices& choices);
