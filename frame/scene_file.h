// The line grammar shared by every block of a .qz scene file.
//
// A block reader loops `while (nextKey(file, line))` and compares line.key with
// its keys; values follow on the same line and are read from line.words.
// nextKey returns false at the block's `end` or at the end of the file.
#pragma once

#include <cstdint>
#include <istream>
#include <limits>
#include <sstream>
#include <string>

struct SceneLine {
  std::string text;
  std::istringstream words;  // positioned just after the key
  std::string key;
};

// The next line of the file, at most 4095 characters; false at the end of the file.
bool readLine(std::istream& file, std::string& text);
// Files are read only when they are regular: a pipe would block for ever and
// a device could be endless. Symbolic links are followed.
bool isRegularFile(const std::string& path);
bool nextKey(std::istream& file, SceneLine& line);
// The text between the next two double quotes after the current position.
std::string readQuotedString(SceneLine& line);

// Reads a whole count as the stream does. A value past what the type holds,
// or past `holds`, is refused with "<block> - <key> is out of range" and the
// count keeps its value; one above `finishes` is kept, with a warning that the
// work asked for will not finish.
void refuseOutOfRange(SceneLine& line, const char* block);
void warnUnfinished(SceneLine& line, const char* block);
template <typename T>
void readCount(SceneLine& line, T& count, const char* block, T finishes, T holds = std::numeric_limits<T>::max()) {
  const T before = count;
  line.words >> count;
  // The stream fails at the type's limit on overflow, at 0 on text that is no number.
  const bool overflow =
      line.words.fail() && (count == std::numeric_limits<T>::max() || count == std::numeric_limits<T>::min());
  if (overflow || count > holds) {
    count = before;
    refuseOutOfRange(line, block);
  } else if (count > finishes) {
    warnUnfinished(line, block);
  }
}

// What a render finishes within about a day: photons a light casts and samples
// at one shading point. Paths count their bounces in eight bits and the render
// its passes in sixteen, so depths hold at most 255 and the camera 65535 passes.
constexpr int64_t photonsFinished = 1000000000;
constexpr int samplesFinished = 10000, depthHeld = 255, passesHeld = 65535;

// Reads up to `count` values with the stream's own rules: a value that does not
// parse becomes 0 and leaves the rest of the line unread.
void readFloats(SceneLine& line, float* values, int count);

// Reads one file, dispatching each top-level block keyword to its reader.
void readSceneFile(const std::string& path);
// Reads every .qz file directly inside the folder; a missing folder reads nothing.
void readSceneFolder(const std::string& path);
