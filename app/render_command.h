#pragma once

#include "app/options.h"

// Renders a scene directory with the options applied through the exports once
// the scene is loaded; returns the exit status.
int runRender(RenderOptions options);
