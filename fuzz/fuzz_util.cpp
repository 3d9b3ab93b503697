#include "fuzz/fuzz_util.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace {
std::string makeScratchFolder() {
  // tmpfs keeps millions of small writes off the disk.
  const std::filesystem::path base =
      std::filesystem::exists("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path();
  const std::filesystem::path folder = base / ("quazel-fuzz-" + std::to_string(getpid()));
  std::filesystem::create_directories(folder);
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(scratchFolder(), ignored);
  });
  return folder.string();
}
}  // namespace

const std::string& scratchFolder() {
  // Never destroyed: the exit handler that removes the folder still needs its
  // name.
  static const std::string* folder = new std::string(makeScratchFolder());
  return *folder;
}

void writeFile(const std::string& path, const uint8_t* data, size_t size) {
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) std::abort();  // the harness itself is broken: say so loudly
  if (size) std::fwrite(data, 1, size, file);
  std::fclose(file);
}

void muteReport() {
  if (!std::freopen("/dev/null", "w", stdout)) std::abort();
}
