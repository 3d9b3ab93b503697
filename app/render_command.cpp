#include "app/render_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <string>
#include <vector>

#include "app/display_png.h"
#include "app/resume.h"
#include "qz.h"

namespace fs = std::filesystem;

namespace {
// The example ships beside the build folder, or beside an installed binary.
fs::path exampleScene() {
  std::error_code error;
  const fs::path binary = fs::read_symlink("/proc/self/exe", error).parent_path();
  for (const fs::path& candidate :
       {binary / ".." / "scenes" / "bunny", binary / "scenes" / "bunny", fs::current_path(error) / "scenes" / "bunny"})
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
  std::sort(names.begin(), names.end());
  return names;
}

int fail(const std::string& message) {
  std::cerr << "quazel: " << message << std::endl;
  return 2;
}

// Creates the folder and proves that a file can be written in it.
std::string prepareOutputFolder(const fs::path& folder) {
  std::error_code error;
  fs::create_directories(folder, error);
  if (error || !fs::is_directory(folder)) return "-o " + folder.string() + ": the folder cannot be made";
  const fs::path probe = folder / ".quazel-write-test";
  const bool writable = bool(std::ofstream(probe) << "");
  fs::remove(probe, error);
  return writable ? "" : "-o " + folder.string() + ": the folder cannot be written";
}

std::string text(const PixelRect& r) {
  return std::to_string(r.x0) + " " + std::to_string(r.y0) + " " + std::to_string(r.x1) + " " + std::to_string(r.y1);
}

// Sets the camera's region, sample and resolution from the options; fills the
// tile record for a tile. Returns what is wrong, or an empty string.
std::string applyOptions(const RenderOptions& options, TileRecord& tile) {
  const bool tiled = options.tile_count > 0;
  if (!options.sampler.empty()) qzSetRendererSampler(options.sampler == "sobol" ? 1 : 0);
  if (options.has_seed) qzSetRendererSeed(options.seed);
  if (options.noise_threshold >= 0) qzSetRendererNoiseThreshold(float(options.noise_threshold));
  if (options.time_limit > 0) qzSetRendererTimeLimit(options.time_limit);
  if (!options.has_region && !tiled && !options.samples && !options.width) return "";
  int width = 0, height = 0;
  PixelRect region;
  if (!qzGetCameraResolution(0, &width, &height) ||
      !qzGetCameraRegion(0, &region.x0, &region.y0, &region.x1, &region.y1))
    return "the scene has no camera for the options to apply to";
  if (options.width) {
    width = options.width, height = options.height;
    qzSetCameraResolution(0, width, height);
  }
  const std::string size = std::to_string(width) + "x" + std::to_string(height);
  if (options.has_region) {
    if (!inside(options.region, {0, 0, width, height}))
      return "--region " + text(options.region) + " lies outside the " + size + " image";
    region = options.region;
  } else {
    region = clampToImage(region, width, height);
  }
  if (tiled) {
    const int rows = region.y1 - region.y0;
    if (area(region) <= 0)
      return "--tile: the camera's region " + text(region) + " holds no pixel of the " + size + " image";
    if (rows < options.tile_count)
      return "--tile " + std::to_string(options.tile_index) + "/" + std::to_string(options.tile_count) +
             ": the region has only " + std::to_string(rows) + " rows, one tile needs at least one";
    const PixelRect band = tileBand(region, options.tile_index, options.tile_count);
    tile = {options.tile_index, options.tile_count, width, height, region, band};
    region = band;
  }
  if (options.has_region || tiled) qzSetCameraRegion(0, region.x0, region.y0, region.x1, region.y1);
  if (options.samples) qzSetCameraSample(0, options.samples);
  return "";
}

// The default beauty name carries the time of the render, which differs from
// tile to tile; a tile names it plainly so that the tiles' file sets agree.
void renameTimestampedBeauty(std::vector<std::string>& written) {
  const std::regex stamped(R"(beauty-\d{8}-\d{6}\.hdr)");
  for (std::string& name : written)
    if (std::regex_match(name, stamped)) {
      std::error_code error;
      fs::rename(name, "beauty.hdr", error);
      if (!error) name = "beauty.hdr";
    }
  std::sort(written.begin(), written.end());
  written.erase(std::unique(written.begin(), written.end()), written.end());
}

// Written last and whole, so that a folder with a record holds a finished tile.
bool writeTileRecord(const TileRecord& tile) {
  const std::string partial = std::string(tileRecordName) + ".partial";
  if (!(std::ofstream(partial) << formatTileRecord(tile))) return false;
  std::error_code error;
  fs::rename(partial, tileRecordName, error);
  return !error;
}

// A stop asked for by the user or the farm: the pass under way finishes, and the
// render ends with a checkpoint and its images. A second signal ends the process.
void stopOnSignal(int) { qzRequestStop(); }

void catchStopSignals() {
  struct sigaction action {};
  action.sa_handler = stopOnSignal;
  action.sa_flags = SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  for (int signal : {SIGTERM, SIGINT, SIGUSR1}) sigaction(signal, &action, nullptr);
}

// With a log, the report goes to the file and the terminal keeps one status
// line; farm managers reading standard error get a line a pass. False when
// the log cannot be opened.
bool routeReport(const std::string& log) {
  if (!log.empty()) {
    std::cout << std::flush;
    const int file = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (file < 0) return false;
    const int terminal = ::dup(STDOUT_FILENO);
    ::dup2(file, STDOUT_FILENO);
    ::close(file);
    if (::isatty(terminal)) qzSetProgressOutput(terminal, 1);
  }
  if (!::isatty(STDERR_FILENO)) qzSetProgressOutput(STDERR_FILENO, 2);
  return true;
}
}  // namespace

int runRender(RenderOptions options, const std::vector<std::string>& settings) {
  if (options.preview && !std::getenv("DISPLAY")) {
    std::cerr << "quazel: --preview needs a display, and DISPLAY is not set\n";
    return 1;
  }
  std::error_code error;
  if (!options.output.empty()) {
    const std::string problem = prepareOutputFolder(options.output);
    if (!problem.empty()) return fail(problem);
  }
  // A record left by an earlier run must not vouch for this one until it ends.
  if (options.tile_count > 0)
    fs::remove(fs::path(options.output.empty() ? "." : options.output) / tileRecordName, error);
  if (options.scene.empty()) {
    options.scene = exampleScene().string();
    if (options.scene.empty()) {
      std::cerr << "quazel: the example scene (scenes/bunny) was not found; give a scene directory\n";
      return 1;
    }
    std::cout << "quazel: rendering the example scene " << options.scene << std::endl;
  }
  if (!fs::is_directory(options.scene, error)) {
    std::cerr << "quazel: there is no scene directory '" << options.scene << "'\n";
    return 1;
  }
  // The library appends "image" and "geometry" to the path as it stands, and
  // the render may run in another folder.
  options.scene = fs::absolute(options.scene, error).string();
  std::string directory = options.scene;
  if (directory.back() != '/') directory += '/';

  if (!routeReport(options.log)) return fail("--log " + options.log + ": the file cannot be written");
  catchStopSignals();
  qzSetRendererThreads(options.threads);
  qzSetPreviewWindow(options.preview);
  qzStartup();
  qzLoadScene(directory.c_str());
  TileRecord tile;
  const std::string problem = applyOptions(options, tile);
  if (!problem.empty()) return fail(problem);
  if (!options.exr.empty()) qzSetCameraExr(0, options.exr.c_str());
  qzSetRenderTile(tile.index, tile.count);
  // The library writes images by bare name, into the working directory.
  if (!options.output.empty()) fs::current_path(options.output, error);
  qzSetCheckpoint(checkpointName, options.checkpoint_seconds);
  if (options.checkpoint_seconds > 0 && !writeResumeSettings(settings))
    return fail(std::string(resumeSettingsName) + " cannot be written in " + fs::current_path(error).string());
  if (!options.resume.empty()) qzResumeCheckpoint(checkpointName);
  const fs::file_time_type start = fs::file_time_type::clock::now() - std::chrono::milliseconds(100);
  qzInitialize();
  qzRender();
  const bool stopped = qzRenderStopped();
  if (options.preview)
    std::cout << "         click to close the preview window. happy rendering. thank you!         \n"
              << std::string(80, '_') << "\n\n"
              << std::flush;
  qzFinalize();
  qzShutdown();

  const int unsaved = qzCountUnsavedImages();
  if (stopped) {
    writeResumeSettings(settings);
  } else {
    removeResumeFiles();
  }
  std::vector<std::string> written = newFiles(start);
  std::erase_if(written, [](const std::string& name) {
    return name.starts_with(checkpointName) || name.starts_with(resumeSettingsName);
  });
  if (options.tile_count > 0) renameTimestampedBeauty(written);
  // Float images get a display copy a person can open anywhere.
  for (const std::string& name : std::vector<std::string>(written))
    if (isFloatImage(name)) {
      const std::string png = writeDisplayPng(name);
      if (!png.empty() && std::find(written.begin(), written.end(), png) == written.end()) written.push_back(png);
    }
  std::cout << "quazel: images are in " << fs::current_path(error).string() << "/" << std::endl;
  for (const std::string& name : written) std::cout << "  " << name << std::endl;
  if (stopped) {
    // Not a finished tile: no record, and the farm runs it again.
    std::cout << std::flush;
    std::cerr << "\nquazel: stopped; go on with: quazel --resume " << fs::current_path(error).string() << std::endl;
    return stoppedStatus;
  }
  if (unsaved > 0) {
    std::cerr << "quazel: " << unsaved << (unsaved == 1 ? " image was" : " images were") << " not written (see the error lines)"
              << std::endl;
    return unsavedStatus;
  }
  if (options.tile_count > 0 && !writeTileRecord(tile)) return fail("the tile record cannot be written");
  return 0;
}
