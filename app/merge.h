#pragma once

#include "app/options.h"

// Joins the images of finished tile folders into whole frames in the output
// folder, each pixel copied from the one tile that rendered it. Tiles that do
// not fit together are refused with every reason on stderr and status 2.
int runMerge(const MergeOptions& options);
