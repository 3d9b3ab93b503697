// The gaffer module: the keys both light kinds share, preparation and teardown.
#include "lights/gaffer.h"

#include "frame/report.h"
#include "qz.h"

bool readLightKey(SceneLine& line, std::istream& file, Light& light) {
  if (line.key == "color") {
    readFloats(line, &light.color.r, 3);
  } else if (line.key == "blur") {
    line.words >> light.blur;
  } else if (line.key == "sample") {
    readCount(line, light.sample, "light", samplesFinished);
  } else if (line.key == "photon") {
    readCount(line, light.photon, "light", photonsFinished);
  } else if (line.key == "offset") {
    line.words >> light.offset;
  } else if (line.key == "ior") {
    line.words >> light.ior;
  } else {
    return readAOVOrLinkKey(line, file, light.aovs, light.link);
  }
  return true;
}

void prepareGaffer() {
  if (pointLights.empty() && parallelLights.empty()) return;
  for (ParallelLight& light : parallelLights) prepareParallelLight(light);
  for (PointLight& light : pointLights) preparePointLight(light);
  printArrayRow("parallel lights", sizeof(ParallelLight), int64_t(parallelLights.size()), "M bytes");
  printArrayRow("point    lights", sizeof(PointLight), int64_t(pointLights.size()), "M bytes");
}

void freePointLights() { pointLights = {}; }
void freeParallelLights() { parallelLights = {}; }

void qzInitializeGaffer() { prepareGaffer(); }

void qzFinalizeGaffer() {
  freeParallelLights();
  freePointLights();
}
