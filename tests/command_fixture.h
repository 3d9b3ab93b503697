// Helpers for the suites that run the quazel command and read what it leaves.
#pragma once

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <sys/wait.h>

#include "shading/image.h"
#include "tests/test_util.h"

// The quazel command, built beside the test folder.
inline std::string quazelBinary() {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "quazel").string();
}

// The whole of a file, empty when it cannot be read.
inline std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

struct ShellOutcome {
  int status;
  std::string out;
};

// Runs a shell command, returning its exit status (-1 when it did not exit) and standard output.
inline ShellOutcome shell(const std::string& command) {
  ShellOutcome result{-1, ""};
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return result;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) result.out.append(buffer, n);
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

// An image file read as stored: floats stay floats, not repacked.
inline Image loadStoredImage(const std::string& path) {
  Image image;
  image.name = path;
  image.packFloats = 0;
  imageSearchPaths = {""};
  captureOutput([&] { loadImage(image); });
  return image;
}
