// What a stopped render leaves beside its images so that `quazel --resume DIR`
// can go on: the library's checkpoint and the options the render was given.
#pragma once

#include <string>
#include <vector>

#include "app/options.h"

extern const char* const checkpointName;
extern const char* const resumeSettingsName;

// The options that decide what a render makes, as arguments, with the scene and sky as absolute paths.
std::vector<std::string> settingArguments(const RenderOptions& options);
// The settings written whole into the working directory, then renamed.
bool writeResumeSettings(const std::vector<std::string>& settings);
// The options of the render stopped in `folder`, or an error message.
std::string readResumeSettings(std::string folder, RenderOptions& options);
// Removes what a finished render no longer needs.
void removeResumeFiles();
