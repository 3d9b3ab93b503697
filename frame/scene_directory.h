// The scene directory: where scene files, images and geometry files are found.
#pragma once

#include <istream>
#include <string>
#include <vector>

extern std::string sceneDirectory;
extern std::vector<std::string> geometrySearchPaths;

// Hands a top-level block keyword to its reader; false for an unknown word.
bool dispatchBlock(const std::string& keyword, std::istream& file);
