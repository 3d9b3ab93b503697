#include "app/resume.h"

#include <charconv>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

const char* const checkpointName = "quazel.checkpoint";
const char* const resumeSettingsName = "quazel-resume.txt";

namespace {
// The shortest text that reads back as the same number.
template <typename T>
std::string exactText(T value) {
  char text[32];
  return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
}
}  // namespace

std::vector<std::string> settingArguments(const RenderOptions& o) {
  std::vector<std::string> args;
  auto add = [&](std::initializer_list<std::string> words) { args.insert(args.end(), words); };
  if (o.has_region)
    add({"--region", std::to_string(o.region.x0), std::to_string(o.region.y0), std::to_string(o.region.x1),
         std::to_string(o.region.y1)});
  if (o.tile_count) add({"--tile", std::to_string(o.tile_index) + "/" + std::to_string(o.tile_count)});
  if (o.samples) add({"--samples", std::to_string(o.samples)});
  if (o.width) add({"--resolution", std::to_string(o.width), std::to_string(o.height)});
  if (!o.exr.empty()) add({"--exr", o.exr});
  if (o.checkpoint_seconds > 0) add({"--checkpoint", exactText(o.checkpoint_seconds)});
  if (!o.camera.empty()) add({"--camera", o.camera});
  std::error_code error;
  if (!o.sky.empty()) add({"--sky", fs::absolute(o.sky, error).string()});
  if (!o.sampler.empty()) add({"--sampler", o.sampler});
  if (o.has_seed) add({"--seed", std::to_string(o.seed)});
  if (o.noise_threshold >= 0) add({"--noise-threshold", exactText(o.noise_threshold)});
  if (o.time_limit > 0) add({"--time-limit", exactText(o.time_limit)});
  args.push_back(fs::absolute(o.scene, error).string());
  return args;
}

bool writeResumeSettings(const std::vector<std::string>& settings) {
  const std::string partial = std::string(resumeSettingsName) + ".partial";
  {
    std::ofstream out(partial);
    for (const std::string& arg : settings) out << arg << "\n";
    if (!out) return false;
  }
  std::error_code error;
  fs::rename(partial, resumeSettingsName, error);
  return !error;
}

std::string readResumeSettings(std::string folder, RenderOptions& options) {
  std::ifstream in(fs::path(folder) / resumeSettingsName);
  if (!in) return "--resume " + folder + ": there is no stopped render in that folder";
  std::vector<std::string> args;
  for (std::string line; std::getline(in, line);) args.push_back(line);
  const CommandLine line = parseCommandLine(args);
  if (!line.error.empty() || line.kind != CommandLine::render)
    return "--resume " + folder + ": " + resumeSettingsName + " cannot be read (" + line.error + ")";
  const RenderOptions given = options;
  options = line.render_options;
  options.output = folder;
  options.resume = folder;
  options.log = given.log, options.threads = given.threads;
  return "";
}

void removeResumeFiles() {
  std::error_code error;
  fs::remove(checkpointName, error);
  fs::remove(resumeSettingsName, error);
}
