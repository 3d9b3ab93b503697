#include "app/import/import_command.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <thread>

#include "app/import/gltf_extras.h"
#include "app/import/read_model.h"
#include "app/render_command.h"

namespace fs = std::filesystem;

namespace {
int failWith(const std::string& message) {
  std::cout << "error :( " << message << std::endl;
  return 2;
}

SceneChoices choicesOf(const RenderOptions& options) {
  return {options.camera, options.sky, options.width, options.height, options.samples};
}
}  // namespace

int importModel(const std::string& model, const std::string& directory, const SceneChoices& choices) {
  std::error_code error;
  if (!choices.sky.empty() && !fs::is_regular_file(choices.sky, error))
    return failWith("import - the sky image " + choices.sky + " does not exist");
  ImportedScene scene;
  std::string problem;
  if (!readModel(model, scene, problem)) return failWith(problem);
  if (scene.gltf) readGltfExtras(model, scene);
  bool placed = false;
  for (const ImportedMesh& mesh : scene.meshes) placed = placed || !mesh.placements.empty();
  if (!placed) return failWith("import - " + model + " holds no surface to render");
  problem = writeSceneDirectory(scene, directory, choices);
  for (const std::string& warning : scene.warnings) std::cout << "warning :( " << warning << "\n";
  std::cout << std::flush;
  return problem.empty() ? 0 : failWith(problem);
}

int importContained(const std::string& model, const std::string& directory, const SceneChoices& choices,
                    int seconds) {
  std::cout << std::flush;
  const pid_t child = fork();
  if (child < 0) return importModel(model, directory, choices);  // no process to spare
  if (child == 0) {
    const int status = importModel(model, directory, choices);
    std::cout << std::flush;
    _exit(status);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  int status = 0;
  pid_t done = 0;
  while ((done = waitpid(child, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  if (done == 0) {
    kill(child, SIGKILL);
    waitpid(child, &status, 0);
    return failWith("import - reading " + model + " took longer than " + std::to_string(seconds) + " s; given up");
  }
  if (WIFSIGNALED(status))
    return failWith("import - reading " + model + " failed inside the reader (signal " +
                    std::to_string(WTERMSIG(status)) + ")");
  return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
}

int runImport(const RenderOptions& options) {
  const int status = importContained(options.scene, options.output, choicesOf(options));
  if (status == 0) std::cout << "quazel: the scene is in " << options.output << "/" << std::endl;
  return status;
}

int renderModel(RenderOptions options, const std::vector<std::string>& settings) {
  char pattern[] = "/tmp/quazel-import-XXXXXX";
  const std::string model = options.scene;
  if (!mkdtemp(pattern)) return failWith("import - cannot make a temporary folder");
  options.scene = pattern;
  int status = importContained(model, options.scene, choicesOf(options));
  // The camera written holds the resolution and the sample count already.
  options.width = options.height = options.samples = 0;
  if (status == 0) status = runRender(options, settings);
  std::error_code error;
  fs::remove_all(pattern, error);
  return status;
}
