#include "frame/scene_directory.h"

#include <fstream>
#include <sstream>

#include "frame/report.h"
#include "frame/scene_file.h"
#include "geometry/object_block.h"
#include "lights/gaffer.h"
#include "lights/geometry_light.h"
#include "lights/sky.h"
#include "output/camera.h"
#include "output/render_loop.h"
#include "qz.h"
#include "shading/image.h"
#include "shading/shader.h"

std::string sceneDirectory;
std::vector<std::string> geometrySearchPaths;

bool dispatchBlock(const std::string& keyword, std::istream& file) {
  if (keyword == "render") {
    readRenderBlock(file);
  } else if (keyword == "camera") {
    Camera camera;
    readCameraBlock(file, camera);
    cameras.push_back(std::move(camera));
  } else if (keyword == "shader") {
    defineShaderFromBlock(file);
  } else if (keyword == "object") {
    readObjectBlock(objects[size_t(qzAddObject())], file);
  } else if (keyword == "geometry_light") {
    readGeometryLightBlock(file);
  } else if (keyword == "sky_light") {
    readSkyLightBlock(file);
  } else if (keyword == "point_light") {
    readPointLightBlock(file, pointLights[size_t(qzAddPointLight())]);
  } else if (keyword == "parallel_light") {
    readParallelLightBlock(file, parallelLights[size_t(qzAddParallelLight())]);
  } else {
    return false;
  }
  return true;
}

void readSceneFile(const std::string& path) {
  if (!isRegularFile(path)) return;
  std::ifstream file(path);
  if (!file) return;
  std::string text;
  while (readLine(file, text)) {
    if (text.empty() || text[0] == '#') continue;
    std::istringstream words(text);
    std::string keyword;
    words >> keyword;
    // The rest of a keyword's line is ignored: the block's keys start on the next line.
    dispatchBlock(keyword, file);
  }
}

void qzLoadScene(const char* directory) {
  const std::string d = directory ? directory : "";
  imageSearchPaths.clear();
  for (const std::string& path : {d + "image", d, std::string()}) addImageSearchPath(path);
  geometrySearchPaths = {d + "geometry", d, std::string()};
  sceneDirectory = d;
  int64_t start = processorMilliseconds();
  guardAllocation("qzLoadScene()", [&] {
    for (const char* folder : {"/shader", "/render", "/light", "/camera", "/geometry"}) readSceneFolder(d + folder);
  });
  printRow("scene loading", float(processorMilliseconds() - start) * 0.001f, "seconds", 3);
  printRule();
}
