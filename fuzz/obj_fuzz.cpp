// OBJ files: the reader, then the preparation of the mesh it filled (weld,
// displacement, smoothing), as a scene's geometry block would run them.
#include <cstdint>

#include "fuzz/fuzz_util.h"
#include "geometry/obj_reader.h"
#include "geometry/object.h"
#include "qz.h"
#include "shading/shader.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  muteReport();
  qzStartup();
  // Smoothing runs only where a face's shader asks for it.
  qzSetShaderSmoothAngle(0, 60);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = scratchFolder() + "/mesh.obj";
  writeFile(path, data, size);
  Object object;
  ObjReader reader = readerFor(object);
  readObjFile(reader, path);
  prepareMesh(object.mesh, Matrix4f());
  // usemtl names add shaders; the next input starts from the fallback alone.
  shaders.resize(1);
  return 0;
}
