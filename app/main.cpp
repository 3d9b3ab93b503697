// quazel: renders a scene directory with the library's whole run.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "app/display_png.h"
#include "qz.h"

namespace fs = std::filesystem;

namespace {
const char* usage =
    "usage: quazel [--preview] [SCENE_DIR]\n"
    "  Renders the scene directory SCENE_DIR (folders shader/, render/, light/, camera/,\n"
    "  geometry/ of .qz files) and writes the camera's images into the working directory.\n"
    "  Without SCENE_DIR it renders the bundled example scene.\n"
    "  --preview  shows the image in a window as it grows; closing the window saves the\n"
    "             beauty image and ends the program\n"
    "  --help     shows this text\n";

// The example ships beside the build folder, or beside an installed binary.
fs::path exampleScene() {
  std::error_code error;
  const fs::path binary = fs::read_symlink("/proc/self/exe", error).parent_path();
  for (const fs::path& candidate : {binary / ".." / "scenes" / "bunny", binary / "scenes" / "bunny",
                                    fs::current_path(error) / "scenes" / "bunny"})
    if (fs::is_directory(candidate, error)) return fs::weakly_canonical(candidate, error);
  return {};
}

// Files of the working directory written since the render began.
std::vector<std::string> newFiles(fs::file_time_type since) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(fs::current_path(error), error))
    if (entry.is_regular_file(error) && entry.last_write_time(error) >= since)
      names.push_back(entry.path().filename().string());
  return names;
}
}  // namespace

int main(int argc, char** argv) {
  bool preview = false;
  std::string directory;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::cout << usage;
      return 0;
    } else if (arg == "--preview") {
      preview = true;
    } else if (arg.starts_with("-") || !directory.empty()) {
      std::cerr << "quazel: unexpected argument '" << arg << "'\n" << usage;
      return 2;
    } else {
      directory = arg;
    }
  }
  if (preview && !std::getenv("DISPLAY")) {
    std::cerr << "quazel: --preview needs a display, and DISPLAY is not set\n";
    return 1;
  }
  if (directory.empty()) {
    directory = exampleScene().string();
    if (directory.empty()) {
      std::cerr << "quazel: the example scene (scenes/bunny) was not found; give a scene directory\n";
      return 1;
    }
    std::cout << "quazel: rendering the example scene " << directory << std::endl;
  }
  std::error_code error;
  if (!fs::is_directory(directory, error)) {
    std::cerr << "quazel: there is no scene directory '" << directory << "'\n";
    return 1;
  }
  // The library appends "image" and "geometry" to the path as it stands.
  if (directory.back() != '/') directory += '/';

  const fs::file_time_type start = fs::file_time_type::clock::now() - std::chrono::milliseconds(100);
  qzSetPreviewWindow(preview);
  qzGo(directory.c_str());

  std::vector<std::string> written = newFiles(start);
  // Float images get a display copy a person can open anywhere.
  for (const std::string& name : std::vector<std::string>(written))
    if (name.ends_with(".hdr") || name.ends_with(".pfm") || name.ends_with(".exr")) {
      const std::string png = writeDisplayPng(name, 2.2f);
      if (!png.empty() && std::find(written.begin(), written.end(), png) == written.end()) written.push_back(png);
    }
  std::cout << "quazel: images are in " << fs::current_path(error).string() << "/" << std::endl;
  for (const std::string& name : written) std::cout << "  " << name << std::endl;
  return 0;
}
