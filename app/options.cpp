#include "app/options.h"

#include <charconv>

const char* const usageText =
    "usage: quazel [OPTIONS] [SCENE_DIR]\n"
    "       quazel merge -o OUT_DIR TILE_DIR...\n"
    "  Renders the scene directory SCENE_DIR (folders shader/, render/, light/, camera/,\n"
    "  geometry/ of .qz files) and writes the camera's images into the working directory.\n"
    "  Without SCENE_DIR it renders the bundled example scene.\n"
    "  -o DIR                 writes the images into DIR, created if missing\n"
    "  --region X0 Y0 X1 Y1   renders only the pixels from (X0, Y0) up to (X1, Y1), maxima\n"
    "                         exclusive; the images keep the full size, other pixels black\n"
    "  --tile I/N             renders band I (1 to N) of N bands of whole rows that cover\n"
    "                         the camera's region (or --region) once; the folder records\n"
    "                         which tile it holds, for quazel merge\n"
    "  --samples N            passes over the image, in place of the camera's sample\n"
    "  --resolution W H       image size in pixels, in place of the camera's resolution\n"
    "  --sampler NAME         random (hardware numbers, the default) or sobol (a seeded\n"
    "                         low-discrepancy sequence per pixel: less noise per pass,\n"
    "                         and the same image for the same seed)\n"
    "  --seed N               the sobol sampler's seed, 0 to 4294967295\n"
    "  --noise-threshold E    a pixel stops once the relative standard error of its mean\n"
    "                         is below E; the camera's sample is then the most passes\n"
    "  --time-limit SECONDS   ends the render after the last whole pass that fits\n"
    "  --preview              shows the image in a window as it grows; closing the window\n"
    "                         saves the beauty image and ends the program\n"
    "  --help                 shows this text\n"
    "  merge: joins the tile folders' images into whole frames in OUT_DIR, each pixel\n"
    "  taken from the tile that rendered it, with a PNG beside each float image.\n";

namespace {
// A whole decimal integer and nothing else.
bool toInt(const std::string& text, int& value) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && stop == end && !text.empty();
}

// Walks the arguments, taking an option's values or naming what is wrong.
struct Arguments {
  const std::vector<std::string>& list;
  size_t next = 0;
  std::string error;

  bool more() const { return next < list.size() && error.empty(); }
  const std::string& take() { return list[next++]; }
  // The values of `option`, or false with the error set.
  bool values(const std::string& option, int count, std::vector<std::string>& out) {
    if (next + size_t(count) > list.size()) {
      error = option + " needs " + std::to_string(count) + (count == 1 ? " value" : " values");
      return false;
    }
    out.assign(list.begin() + long(next), list.begin() + long(next + size_t(count)));
    next += size_t(count);
    return true;
  }
  // One value that `parse` reads whole, or false with the error set to `expected`.
  template <class T>
  bool number(const std::string& option, T& out, const char* expected) {
    std::vector<std::string> word;
    if (!values(option, 1, word)) return false;
    const char* end = word[0].data() + word[0].size();
    const auto [stop, failure] = std::from_chars(word[0].data(), end, out);
    if (failure != std::errc() || stop != end || word[0].empty()) {
      error = option + ": '" + word[0] + "' is not " + expected;
      return false;
    }
    return true;
  }
  bool integers(const std::string& option, int count, int* out) {
    std::vector<std::string> words;
    if (!values(option, count, words)) return false;
    for (int i = 0; i < count; ++i)
      if (!toInt(words[size_t(i)], out[i])) {
        error = option + ": '" + words[size_t(i)] + "' is not a whole number";
        return false;
      }
    return true;
  }
};

void parseTile(Arguments& args, RenderOptions& options) {
  std::vector<std::string> word;
  if (!args.values("--tile", 1, word)) return;
  const size_t slash = word[0].find('/');
  if (slash == std::string::npos || !toInt(word[0].substr(0, slash), options.tile_index) ||
      !toInt(word[0].substr(slash + 1), options.tile_count)) {
    args.error = "--tile " + word[0] + ": expected I/N, such as 2/8";
  } else if (options.tile_count < 1) {
    args.error = "--tile " + word[0] + ": the number of tiles must be at least 1";
  } else if (options.tile_index < 1 || options.tile_index > options.tile_count) {
    args.error = "--tile " + word[0] + ": the tile index must be 1 to " + std::to_string(options.tile_count);
  }
}

void parseRenderOption(Arguments& args, const std::string& arg, CommandLine& line) {
  RenderOptions& options = line.render_options;
  std::vector<std::string> word;
  if (arg == "--help" || arg == "-h") {
    line.kind = CommandLine::help;
  } else if (arg == "--preview") {
    options.preview = true;
  } else if (arg == "-o") {
    if (args.values(arg, 1, word)) options.output = word[0];
  } else if (arg == "--region") {
    int v[4];
    if (!args.integers(arg, 4, v)) return;
    options.region = {v[0], v[1], v[2], v[3]};
    options.has_region = true;
    if (v[0] < 0 || v[1] < 0 || v[2] <= v[0] || v[3] <= v[1])
      args.error = "--region: X0 Y0 X1 Y1 must satisfy 0 <= X0 < X1 and 0 <= Y0 < Y1";
  } else if (arg == "--tile") {
    parseTile(args, options);
  } else if (arg == "--samples") {
    if (args.integers(arg, 1, &options.samples) && options.samples < 1) args.error = "--samples must be at least 1";
  } else if (arg == "--resolution") {
    int v[2];
    if (!args.integers(arg, 2, v)) return;
    options.width = v[0], options.height = v[1];
    if (v[0] < 1 || v[1] < 1) args.error = "--resolution: the width and height must be at least 1";
  } else if (arg == "--sampler") {
    if (args.values(arg, 1, word)) options.sampler = word[0];
    if (args.error.empty() && options.sampler != "random" && options.sampler != "sobol")
      args.error = "--sampler " + options.sampler + ": expected random or sobol";
  } else if (arg == "--seed") {
    options.has_seed = args.number(arg, options.seed, "a whole number from 0 to 4294967295");
  } else if (arg == "--noise-threshold") {
    if (args.number(arg, options.noise_threshold, "a number") && !(options.noise_threshold >= 0))
      args.error = "--noise-threshold must be 0 or more";
  } else if (arg == "--time-limit") {
    if (args.number(arg, options.time_limit, "a number of seconds") && !(options.time_limit > 0))
      args.error = "--time-limit must be above 0 seconds";
  } else if (arg.starts_with("-") || !options.scene.empty()) {
    args.error = "unexpected argument '" + arg + "'";
  } else {
    options.scene = arg;
  }
}

void parseMerge(Arguments& args, CommandLine& line) {
  MergeOptions& options = line.merge_options;
  std::vector<std::string> word;
  while (args.more()) {
    const std::string& arg = args.take();
    if (arg == "-o") {
      if (args.values(arg, 1, word)) options.output = word[0];
    } else if (arg == "--help" || arg == "-h") {
      line.kind = CommandLine::help;
    } else if (arg.starts_with("-")) {
      args.error = "merge: unexpected argument '" + arg + "'";
    } else {
      options.tiles.push_back(arg);
    }
  }
  if (!args.error.empty() || line.kind == CommandLine::help) return;
  if (options.output.empty())
    args.error = "merge needs -o OUT_DIR";
  else if (options.tiles.empty())
    args.error = "merge needs at least one tile folder";
}
}  // namespace

CommandLine parseCommandLine(const std::vector<std::string>& list) {
  CommandLine line;
  Arguments args{list, 0, ""};
  if (!list.empty() && list[0] == "merge") {
    line.kind = CommandLine::merge;
    args.next = 1;
    parseMerge(args, line);
  } else {
    while (args.more() && line.kind != CommandLine::help) parseRenderOption(args, args.take(), line);
  }
  line.error = args.error;
  return line;
}
