// Turning a hit into its six scattering lobes: the shader's nodes evaluated
// on the near and far sides, the clear coat's share, and the lobe widths.
#pragma once

#include "shading/shader.h"
#include "shading/surface.h"

// Placements can nest this deep; each holds one normal matrix per level.
constexpr int maxInstanceDepth = 16;

// Brings the frame of a hit inside `depth` placements to world space: the
// normal matrices (row-major 3 by 3, outermost first) are multiplied in order.
void transformFrameToWorld(Surface& surface, const float (*normalMatrices)[9], int depth);
// Fills the colours, widths, eta and `_on` bytes of a surface whose frame,
// position and view are set; facing above 0 means the front was hit.
void setupScattering(const Shader& shader, float facing, Surface& surface);
