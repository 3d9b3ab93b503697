#include "geometry/object_block.h"

#include "frame/scene_file.h"
#include "geometry/hair_reader.h"
#include "geometry/obj_reader.h"
#include "shading/shader.h"

void readInstanceBlock(Instance& instance, std::istream& file) {
  // `override` names the shader that the next `by` replaces.
  std::string overridden;
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "matrix") {
      readFloats(line, instance.matrix.m, 16);
    } else if (line.key == "object") {
      line.words >> instance.objectName;
    } else if (line.key == "override") {
      overridden = readQuotedString(line);
    } else if (line.key == "by") {
      const int from = findOrAddShader(overridden);
      instance.overrides[from] = findOrAddShader(readQuotedString(line));
    }
  }
}

void readObjectBlock(Object& object, std::istream& file) {
  ObjReader reader = readerFor(object);
  // Applies to the set of the next file key; faces of an OBJ file take theirs from `usemtl`.
  int32_t currentShader = 0;
  SceneLine line;
  while (nextKey(file, line)) {
    if (line.key == "name") {
      line.words >> object.name;
    } else if (line.key == "shader") {
      currentShader = findOrAddShader(readQuotedString(line));
    } else if (line.key == "instance") {
      readInstanceBlock(object.instances.emplace_back(), file);
    } else if (line.key == "uv_texture") {
      reader.uvTexture = readQuotedString(line);
    } else if (line.key == "position_texture") {
      reader.positionTexture = readQuotedString(line);
    } else if (line.key == "normal_texture") {
      reader.normalTexture = readQuotedString(line);
    } else if (line.key == "tangent_texture") {
      reader.tangentTexture = readQuotedString(line);
    } else if (line.key == "triangle_texture") {
      reader.triangleTexture = readQuotedString(line);
      clearReaderArrays(reader);
    } else if (line.key == "particle_texture") {
      readQuotedString(line);
      clearReaderArrays(reader);
      object.particles.shader = currentShader;
    } else if (line.key == "hair") {
      readHairFile(object.cylinders, readQuotedString(line));
      clearReaderArrays(reader);
      object.cylinders.shader = currentShader;
    } else if (line.key == "fur") {
      readFurFile(object.cylinders, readQuotedString(line));
      clearReaderArrays(reader);
      object.cylinders.shader = currentShader;
    } else if (line.key == "obj") {
      readObjFile(reader, readQuotedString(line));
      clearReaderArrays(reader);
      object.mesh.shader = currentShader;
    }
  }
}
