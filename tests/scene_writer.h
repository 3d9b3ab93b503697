// Writes small scene directories for the tests.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

// Writes `text` to folder/name, creating the folder.
inline std::string writeSceneFile(const std::string& folder, const std::string& name, const std::string& text) {
  std::filesystem::create_directories(folder);
  const std::string path = folder + "/" + name;
  std::ofstream(path, std::ios::binary) << text;
  return path;
}

// A camera block looking from `position` at the origin, as two equal poses.
inline std::string stillCamera(const std::string& keys, const std::string& position = "0 0 5") {
  const std::string pose = "  pose\n    position " + position + "\n    target 0 0 0\n  end\n";
  return "camera\n" + keys + pose + pose + "end\n";
}
