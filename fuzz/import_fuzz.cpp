// Model files through the whole import: assimp's reading, tinygltf's extras,
// the checks on what they hand over, and the scene directory written. The
// first byte chooses the kind of file; the rest is its text or bytes.
#include <cstdint>
#include <filesystem>

#include "app/import/import_command.h"
#include "fuzz/fuzz_util.h"

// assimp 5.2 leaks on some error paths of its readers (PLY, for one): that is
// its own fault, out of reach here, and would stop every run.
extern "C" const char* __lsan_default_suppressions() { return "leak:libassimp.so\n"; }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  muteReport();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static const char* extensions[] = {".gltf", ".glb", ".obj", ".ply"};
  const std::string model = scratchFolder() + "/model" + extensions[data[0] % 4];
  const std::string scene = scratchFolder() + "/scene";
  writeFile(model, data + 1, size - 1);
  // An OBJ file's materials come from model.mtl beside it: the same bytes.
  writeFile(scratchFolder() + "/model.mtl", data + 1, size - 1);
  importModel(model, scene, {});
  std::error_code ignored;
  std::filesystem::remove_all(scene, ignored);
  std::filesystem::remove(model, ignored);
  return 0;
}
