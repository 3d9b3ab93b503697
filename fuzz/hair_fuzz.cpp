// Hair files: the first byte picks the binary reader or the `fur` text, the
// rest is the file; the strands read are then prepared as an object would be.
#include <cstdint>

#include "fuzz/fuzz_util.h"
#include "geometry/hair_reader.h"
#include "geometry/object.h"
#include "qz.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  muteReport();
  qzStartup();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const bool binary = data[0] & 1;
  const std::string path = scratchFolder() + (binary ? "/strands.hair" : "/strands.fur");
  writeFile(path, data + 1, size - 1);
  CylinderSet set;
  if (binary)
    readHairFile(set, path);
  else
    readFurFile(set, path);
  prepareCylinders(set, Matrix4f());
  return 0;
}
