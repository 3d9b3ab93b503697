#include "frame/scene_file.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>
#include <vector>

#include "frame/report.h"

bool readLine(std::istream& file, std::string& text) {
  // Lines keep to the 4095 characters of the reader's buffer, cut while they
  // are read: a file of one endless line holds no more than that.
  char buffer[4096];
  file.getline(buffer, sizeof buffer);
  const std::streamsize stored = file.gcount() - (file.good() ? 1 : 0);
  if (file.fail()) {
    if (stored == 0) return false;
    file.clear();
    file.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
  }
  text.assign(buffer, size_t(stored));
  // CRLF files read as LF files.
  if (!text.empty() && text.back() == '\r') text.pop_back();
  return true;
}

bool isRegularFile(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_regular_file(path, error);
}

bool nextKey(std::istream& file, SceneLine& line) {
  while (readLine(file, line.text)) {
    if (!line.text.empty() && line.text[0] == '#') continue;
    line.words.clear();
    line.words.str(line.text);
    line.key.clear();
    line.words >> line.key;
    return line.key != "end";
  }
  return false;
}

std::string readQuotedString(SceneLine& line) {
  std::string rest;
  std::getline(line.words, rest);
  size_t open = rest.find('"');
  if (open == std::string::npos) return {};
  size_t close = rest.find('"', open + 1);
  std::string value = rest.substr(open + 1, close == std::string::npos ? std::string::npos : close - open - 1);
  // Whatever follows the closing quote stays readable for further values.
  line.words.clear();
  line.words.str(close == std::string::npos ? std::string() : rest.substr(close + 1));
  return value;
}

void refuseOutOfRange(SceneLine& line, const char* block) {
  printWarning(std::string(block) + " - " + line.key + " is out of range");
}

void warnUnfinished(SceneLine& line, const char* block) {
  printWarning(std::string(block) + " - " + line.key + " asks for more work than a render can finish");
}

void readFloats(SceneLine& line, float* values, int count) {
  for (int i = 0; i < count; ++i) line.words >> values[i];
}

void readSceneFolder(const std::string& path) {
  std::vector<std::string> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
    const std::string name = entry.path().filename().string();
    if (name.size() > 3 && name.ends_with(".qz")) files.push_back(path + "/" + name);
  }
  // Order within a folder must not matter to a scene; sorting makes runs repeatable.
  std::sort(files.begin(), files.end());
  for (const std::string& file : files) readSceneFile(file);
}
