// Wavefront OBJ files into an object's mesh: the three index spaces of a face
// corner are welded into one mesh vertex through a global hash table.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "geometry/object.h"

// One for each geometry block or qzLoadObject call.
struct ObjReader {
  ParticleSet* particles = nullptr;
  CylinderSet* cylinders = nullptr;
  Mesh* mesh = nullptr;
  uint8_t warnedPolygon = 0, warnedQuadrangle = 0;  // each warning prints once a reader
  // File data, addressed by the indices of face lines.
  std::vector<Vec3f> positions;
  std::vector<FloatPair> coordinates;
  std::vector<Vec3f> tangents;  // no line fills it
  std::vector<Vec3f> normals;
  // Texture keys of old scene files: kept, used by nothing.
  std::string uvTexture, positionTexture, normalTexture, tangentTexture, triangleTexture, particleTexture;
};

ObjReader readerFor(Object& object);
// The first of the geometry search folders that holds the file, then the name
// as it stands; null when none does. Geometry files are opened in binary mode,
// and only regular files are opened.
FILE* openInSearchFolders(const std::string& name);
void clearReaderArrays(ObjReader& reader);
void readObjFile(ObjReader& reader, const std::string& path);

// Frees every bucket of the weld table: vertices read afterwards share nothing with earlier ones.
void clearWeldTable();
// The mesh vertex with exactly these attributes, appended when the table does not know it.
uint32_t weldVertex(Mesh& mesh, Vec3f position, FloatPair coordinates, uint32_t packedNormal, uint32_t packedTangent);

// Quadrangle tests on the four corners in order.
bool isPlanar(const Vec3f corners[4]);
bool isRectangular(const Vec3f corners[4]);
