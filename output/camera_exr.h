// The multi-layer EXR of a camera: every AOV as one layer, the region as the
// data window, and what the render was in the header.
#pragma once

#include "output/camera.h"

// Writes the camera's file if it names one; an error line and an unsaved image when it cannot.
void writeCameraExr(const Camera& camera, float renderSeconds);
