#include "app/merge.h"

#include <FreeImage.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "app/display_png.h"
#include "app/merge_exr.h"
#include "app/tiling.h"
#include "output/exr_file.h"

namespace fs = std::filesystem;

namespace {
struct Tile {
  std::string folder;
  TileRecord record;
  std::set<std::string> images;
};

std::string name(const Tile& tile) {
  return "tile " + std::to_string(tile.record.index) + " of " + std::to_string(tile.record.count) + " (" + tile.folder +
         ")";
}

// Image files by extension, less the display copies of float images, which the
// merge makes afresh from the merged floats.
std::set<std::string> imageFiles(const fs::path& folder) {
  std::set<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(folder, error)) {
    const std::string file = entry.path().filename().string();
    if (entry.is_regular_file(error) && FreeImage_GetFIFFromFilename(file.c_str()) != FIF_UNKNOWN) names.insert(file);
  }
  for (auto it = names.begin(); it != names.end();) {
    const std::string stem = it->substr(0, it->rfind('.'));
    const bool copy = it->ends_with(".png") && std::any_of(names.begin(), names.end(), [&](const std::string& other) {
                        return isFloatImage(other) && other.substr(0, other.rfind('.')) == stem;
                      });
    it = copy ? names.erase(it) : std::next(it);
  }
  return names;
}

bool readTile(const std::string& folder, Tile& tile, std::vector<std::string>& problems) {
  tile.folder = folder;
  std::error_code error;
  if (!fs::is_directory(folder, error)) {
    problems.push_back(folder + ": no such tile folder");
    return false;
  }
  std::ifstream file(fs::path(folder) / tileRecordName);
  std::stringstream text;
  text << file.rdbuf();
  if (!file) {
    problems.push_back(folder + " holds no finished tile: " + tileRecordName + " is missing");
    return false;
  }
  if (!parseTileRecord(text.str(), tile.record)) {
    problems.push_back(folder + ": " + tileRecordName + " cannot be read");
    return false;
  }
  tile.images = imageFiles(folder);
  return true;
}

std::string size(int width, int height) { return std::to_string(width) + "x" + std::to_string(height); }

// Whether the tiles are the parts of one frame, each pixel in exactly one.
void checkFit(const std::vector<Tile>& tiles, std::vector<std::string>& problems) {
  const Tile& first = tiles[0];
  const TileRecord& a = first.record;
  // By index; a map, since a damaged record may claim any number of tiles.
  std::map<int64_t, const Tile*> byIndex;
  int64_t covered = 0;
  for (const Tile& tile : tiles) {
    const TileRecord& b = tile.record;
    if (b.count != a.count) {
      problems.push_back(name(tile) + " and " + name(first) + " come from different numbers of tiles");
      continue;
    }
    if (b.width != a.width || b.height != a.height || !(b.region == a.region)) {
      problems.push_back(name(tile) + " is a " + size(b.width, b.height) + " frame and " + name(first) + " a " +
                         size(a.width, a.height) + " one, or their regions differ");
      continue;
    }
    if (byIndex.count(b.index)) {
      problems.push_back(byIndex[b.index]->folder + " and " + tile.folder + " both hold tile " +
                         std::to_string(b.index) + " of " + std::to_string(b.count));
      continue;
    }
    for (const auto& [index, other] : byIndex)
      if (overlap(other->record.pixels, b.pixels))
        problems.push_back(name(*other) + " and " + name(tile) + " rendered the same pixels");
    byIndex[b.index] = &tile;
    covered += area(b.pixels);
  }
  // The gaps between the tiles present, as runs of missing ones.
  int64_t next = 1;
  byIndex[int64_t(a.count) + 1] = nullptr;
  for (const auto& [index, tile] : byIndex) {
    const std::string of = " of " + std::to_string(a.count);
    if (index == next + 1) problems.push_back("tile " + std::to_string(next) + of + " is missing");
    if (index > next + 1)
      problems.push_back("tiles " + std::to_string(next) + " to " + std::to_string(index - 1) + of + " are missing");
    next = index + 1;
  }
  if (problems.empty() && covered != area(a.region)) problems.push_back("the tiles do not cover their region exactly");

  std::set<std::string> all;
  for (const Tile& tile : tiles) all.insert(tile.images.begin(), tile.images.end());
  for (const Tile& tile : tiles)
    for (const std::string& image : all)
      if (!tile.images.count(image)) problems.push_back(name(tile) + " has no " + image);
}

// Whether a decode of a tile succeeds, asked of a child process with a time
// limit: a malformed tile crashes or hangs the child, not the merge.
bool decodesInChild(const std::function<bool()>& decode) {
  const pid_t child = fork();
  if (child == 0) {
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) dup2(null, STDOUT_FILENO), dup2(null, STDERR_FILENO);
    _exit(decode() ? 0 : 1);
  }
  // No process to spare: the file is loaded unguarded, as it always was.
  if (child < 0) return true;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(child, &status, WNOHANG);
    if (done == child) return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (done < 0 && errno != EINTR) return false;
    if (std::chrono::steady_clock::now() > deadline) {
      kill(child, SIGKILL);
      while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
      }
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

FIBITMAP* loadTileImage(const Tile& tile, const std::string& image, int flags) {
  const std::string path = (fs::path(tile.folder) / image).string();
  const FREE_IMAGE_FORMAT format = FreeImage_GetFileType(path.c_str(), 0);
  if (format == FIF_UNKNOWN || !decodesInChild([&] { return FreeImage_Load(format, path.c_str(), 0) != nullptr; }))
    return nullptr;
  return FreeImage_Load(format, path.c_str(), flags);
}

// Every tile's copy of every image must be the whole frame, stored alike; the
// headers tell, so nothing is written before all of them are known to fit.
void checkImages(const std::vector<Tile>& tiles, std::vector<std::string>& problems) {
  for (const std::string& image : tiles[0].images) {
    FREE_IMAGE_TYPE type = FIT_UNKNOWN;
    unsigned bits = 0;
    for (const Tile& tile : tiles) {
      const std::string path = (fs::path(tile.folder) / image).string();
      if (image.ends_with(".exr")) {
        const std::string first = (fs::path(tiles[0].folder) / image).string();
        std::string problem = checkExrTile(path, first, tile.record.width, tile.record.height);
        ExrImage whole;
        if (problem.empty() && !decodesInChild([&] { return readExr(path, whole).empty(); }))
          problem = path + " cannot be read";
        if (!problem.empty()) problems.push_back(problem);
        continue;
      }
      FIBITMAP* header = loadTileImage(tile, image, FIF_LOAD_NOPIXELS);
      if (!header) {
        problems.push_back(path + " cannot be read");
        continue;
      }
      const int width = int(FreeImage_GetWidth(header)), height = int(FreeImage_GetHeight(header));
      if (type == FIT_UNKNOWN) type = FreeImage_GetImageType(header), bits = FreeImage_GetBPP(header);
      if (width != tile.record.width || height != tile.record.height)
        problems.push_back(path + " is " + size(width, height) + ", but the frame is " +
                           size(tile.record.width, tile.record.height));
      else if (FreeImage_GetImageType(header) != type || FreeImage_GetBPP(header) != bits || bits % 8)
        problems.push_back(path + " stores its pixels unlike the other tiles' " + image);
      FreeImage_Unload(header);
    }
  }
}

// Row y of the render, counted from the top, as a scan line of the loaded file.
// The renderer writes PFM images without the vertical flip it gives the other
// formats, so their rows come back in the opposite order.
int scanLine(const std::string& file, int y, int height) { return file.ends_with(".pfm") ? y : height - 1 - y; }

// One image of the frame: tile 1's file with the other tiles' pixels laid in.
// Two images are held at a time, however many tiles there are.
bool mergeImage(const std::vector<Tile>& tiles, const std::string& image, const fs::path& out) {
  // EXR keeps its 32-bit floats and its layers only through its own reader.
  if (image.ends_with(".exr")) {
    std::vector<ExrTile> parts;
    for (const Tile& tile : tiles) parts.push_back({(fs::path(tile.folder) / image).string(), tile.record.pixels});
    const std::string problem = mergeExrTiles(parts, (out / image).string());
    if (!problem.empty()) std::cerr << "quazel: merge: " << problem << "\n";
    return problem.empty();
  }
  FIBITMAP* frame = loadTileImage(tiles[0], image, 0);
  bool whole = frame;
  const size_t bytes = frame ? FreeImage_GetBPP(frame) / 8 : 0;
  for (size_t t = 1; t < tiles.size() && whole; ++t) {
    FIBITMAP* part = loadTileImage(tiles[t], image, 0);
    whole = part;
    const PixelRect& p = tiles[t].record.pixels;
    for (int y = p.y0; y < p.y1 && part; ++y) {
      const int line = scanLine(image, y, tiles[t].record.height);
      std::memcpy(FreeImage_GetScanLine(frame, line) + size_t(p.x0) * bytes,
                  FreeImage_GetScanLine(part, line) + size_t(p.x0) * bytes, size_t(p.x1 - p.x0) * bytes);
    }
    if (part) FreeImage_Unload(part);
  }
  const std::string target = (out / image).string();
  const FREE_IMAGE_FORMAT format = FreeImage_GetFileType((fs::path(tiles[0].folder) / image).c_str(), 0);
  whole = whole && FreeImage_Save(format, frame, target.c_str(), 0);
  if (frame) FreeImage_Unload(frame);
  return whole;
}

int refuse(const std::vector<std::string>& problems) {
  for (const std::string& problem : problems) std::cerr << "quazel: merge: " << problem << "\n";
  std::cerr << std::flush;
  return 2;
}

int mergeTiles(const MergeOptions& options) {
  std::vector<std::string> problems;
  std::vector<Tile> tiles;
  for (const std::string& folder : options.tiles) {
    Tile tile;
    if (readTile(folder, tile, problems)) tiles.push_back(std::move(tile));
  }
  if (!tiles.empty())
    checkFit(tiles, problems);
  else if (problems.empty())
    problems.push_back("no tile folder was given");
  if (problems.empty()) checkImages(tiles, problems);
  if (!problems.empty()) return refuse(problems);

  std::error_code error;
  const fs::path out = options.output;
  fs::create_directories(out, error);
  if (!fs::is_directory(out, error)) return refuse({"-o " + options.output + ": the folder cannot be made"});
  // Tiles are merged in the order of their index, which leaves the pixels outside
  // the region (black in every tile) to tile 1.
  std::sort(tiles.begin(), tiles.end(), [](const Tile& a, const Tile& b) { return a.record.index < b.record.index; });
  std::vector<std::string> written;
  for (const std::string& image : tiles[0].images) {
    if (!mergeImage(tiles, image, out)) return refuse({(out / image).string() + " cannot be written"});
    written.push_back(image);
    if (isFloatImage(image)) {
      const std::string png = writeDisplayPng((out / image).string());
      if (!png.empty()) written.push_back(fs::path(png).filename().string());
    }
  }
  std::cout << "quazel: merged " << tiles.size() << " tiles into " << fs::absolute(out).string() << "/" << std::endl;
  for (const std::string& name : written) std::cout << "  " << name << std::endl;
  return 0;
}
}  // namespace

int runMerge(const MergeOptions& options) {
  FreeImage_Initialise(FALSE);
  const int status = mergeTiles(options);
  FreeImage_DeInitialise();
  return status;
}
