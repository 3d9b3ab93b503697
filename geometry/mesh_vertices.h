// The per-vertex arrays of a mesh, as smoothing and displacement rebuild them.
// A channel holds either one value a vertex or no values at all; these
// helpers keep it so.
#pragma once

#include <cstdint>

#include "geometry/object.h"

// A mesh with the channel names of `mesh` and no vertices or faces.
Mesh vertexLayout(const Mesh& mesh);
// Appends the channel values of vertex v of `from` to the matching channels of `to`.
void appendChannelValues(Mesh& to, const Mesh& from, uint32_t v);
// Appends the blend b[0] v[0] + b[1] v[1] + b[2] v[2] of the channel values of `from`.
void appendBlendedValues(Mesh& to, const Mesh& from, const uint32_t v[3], const float b[3]);
// Exact comparison of every channel value of vertex a of `x` with vertex b of `y`.
bool equalChannelValues(const Mesh& x, uint32_t a, const Mesh& y, uint32_t b);
// Gives `to` the vertex arrays of `from`: positions, frames and channels.
void replaceVertices(Mesh& to, Mesh& from);
// Appends the vertices of `from` after those of `to`.
void appendVertices(Mesh& to, const Mesh& from);
