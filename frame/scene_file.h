// The line grammar shared by every block of a .qz scene file.
//
// A block reader loops `while (nextKey(file, line))` and compares line.key with
// its keys; values follow on the same line and are read from line.words.
// nextKey returns false at the block's `end` or at the end of the file.
#pragma once

#include <istream>
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

// Reads up to `count` values with the stream's own rules: a value that does not
// parse becomes 0 and leaves the rest of the line unread.
void readFloats(SceneLine& line, float* values, int count);

// Reads one file, dispatching each top-level block keyword to its reader.
void readSceneFile(const std::string& path);
// Reads every .qz file directly inside the folder; a missing folder reads nothing.
void readSceneFolder(const std::string& path);
