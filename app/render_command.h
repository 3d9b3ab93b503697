#pragma once

#include <string>
#include <vector>

#include "app/options.h"

// Exit statuses besides 0, 1 (no scene) and 2 (unusable arguments or processor).
constexpr int stoppedStatus = 3;  // stopped by a signal; the checkpoint is written, --resume goes on
constexpr int unsavedStatus = 4;  // an image could not be written

// Renders a scene directory with the options applied through the exports once
// the scene is loaded; returns the exit status. A stopped render leaves
// `settings` (settingArguments) for --resume.
int runRender(RenderOptions options, const std::vector<std::string>& settings);
