// quazel import FILE -o SCENE_DIR, and quazel FILE, which imports into a
// temporary folder and renders that, so that both give the same picture.
#pragma once

#include <string>

#include "app/import/write_scene.h"
#include "app/options.h"

// Reads the model and writes the scene directory, printing a warning line for
// each thing that cannot be mapped. 0, or 2 with an error line when the file
// cannot be read or the directory cannot be written.
int importModel(const std::string& model, const std::string& directory, const SceneChoices& choices);

int runImport(const RenderOptions& options);
int renderModel(RenderOptions options);
