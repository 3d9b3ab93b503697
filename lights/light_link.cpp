// Light links, which shaders a light reaches, and the sub-blocks of light blocks.
#include <algorithm>

#include "lights/light.h"
#include "shading/shader.h"

namespace {
// The first shader of that name; the fallback shader 0 when there is none.
int shaderByName(const std::string& name) {
  for (size_t i = 0; i < shaders.size(); ++i)
    if (shaders[i].name == name) return int(i);
  return 0;
}

void readLinkBlock(std::istream& file, LightLink& link) {
  SceneLine line;
  while (nextKey(file, line))
    if (line.key == "shader") link.names.push_back(readQuotedString(line));
}
}  // namespace

void resolveLink(LightLink& link) {
  for (const std::string& name : link.names) link.shaders.push_back(shaderByName(name));
}

bool linkAllows(const LightLink& link, uint32_t shader) {
  return link.shaders.empty() || std::find(link.shaders.begin(), link.shaders.end(), int(shader)) != link.shaders.end();
}

bool readAOVOrLinkKey(SceneLine& line, std::istream& file, std::vector<CameraAOV>& aovs, LightLink& link) {
  if (line.key == "aov") {
    readAOVBlock(file, aovs[addLightAOV(aovs)]);
  } else if (line.key == "link") {
    readLinkBlock(file, link);
  } else {
    return false;
  }
  return true;
}
