// Vertex normals and tangents of a mesh: face frames, smoothing by angle with
// the splitting of vertices at hard edges, and the cheap refresh of moving meshes.
#pragma once

#include <cstdint>
#include <vector>

#include "geometry/object.h"

struct FaceFrame {
  Vec3f normal, tangent;
};

FaceFrame triangleFrame(const Mesh& mesh, const Triangle& triangle);
FaceFrame tetragonFrame(const Mesh& mesh, const Tetragon& tetragon);

// The smooth_angle of the shader, -1 (keep the given frames) for an index beyond the shaders.
float smoothAngle(uint32_t shader);

// Maps every vertex to a welded position, equal positions to one, numbered in
// order of first appearance; weldedCount is the number of distinct positions.
std::vector<uint32_t> weldPositions(const std::vector<Vec3f>& positions, uint32_t& weldedCount);

// Gives every corner its final normal and tangent from the smooth_angle of its
// face's shader; afterwards a vertex is unique by all its attributes.
void smoothMesh(Mesh& mesh);
// Recomputes the frames of a moving mesh, keeping the split that smoothing made.
void refreshFrames(Mesh& mesh);
