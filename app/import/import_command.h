// quazel import FILE -o SCENE_DIR, and quazel FILE, which imports into a
// temporary folder and renders that, so that both give the same picture.
#pragma once

#include <string>
#include <vector>

#include "app/import/write_scene.h"
#include "app/options.h"

// Reads the model and writes the scene directory, printing a warning line for
// each thing that cannot be mapped. 0, or 2 with an error line when the file
// cannot be read or the directory cannot be written.
int importModel(const std::string& model, const std::string& directory, const SceneChoices& choices);

// A reader of forty formats can crash or loop on a malformed file where no
// check of ours reaches: the commands import in a child process, given up
// after this long.
constexpr int importSeconds = 300;

// importModel in a child process: a crash or a time-out costs an error line
// and status 2, not the command.
int importContained(const std::string& model, const std::string& directory, const SceneChoices& choices,
                    int seconds = importSeconds);

int runImport(const RenderOptions& options);
// Imports the model into a temporary scene and renders that; `settings` name
// the model itself, so that --resume imports it again.
int renderModel(RenderOptions options, const std::vector<std::string>& settings);
