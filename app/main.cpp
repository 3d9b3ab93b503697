// quazel: renders a scene directory with the library's whole run, imports and
// renders a model file, or merges the tiles of a frame rendered on many machines.
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "app/import/import_command.h"
#include "app/merge.h"
#include "app/options.h"
#include "app/render_command.h"
#include "app/resume.h"

int main(int argc, char** argv) {
  const CommandLine line = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
  if (!line.error.empty()) {
    std::cerr << "quazel: " << line.error << " (quazel --help lists the options)" << std::endl;
    return 2;
  }
  switch (line.kind) {
    case CommandLine::help:
      std::cout << usageText;
      return 0;
    case CommandLine::merge:
      return runMerge(line.merge_options);
    case CommandLine::import:
      return runImport(line.render_options);
    case CommandLine::render:
      break;
  }
  RenderOptions options = line.render_options;
  if (!options.resume.empty()) {
    const std::string problem = readResumeSettings(options.resume, options);
    if (!problem.empty()) {
      std::cerr << "quazel: " << problem << std::endl;
      return 2;
    }
  }
  // Taken here, in the working folder the paths were given in; a model file is
  // rendered through a temporary scene, and a resumed render imports it again.
  const std::vector<std::string> settings = settingArguments(options);
  std::error_code error;
  if (std::filesystem::is_regular_file(options.scene, error)) return renderModel(options, settings);
  return runRender(options, settings);
}
