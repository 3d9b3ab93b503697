#pragma once

#include <string>

// Writes a gamma-mapped 8-bit PNG beside a float image so a person can look at it;
// returns the PNG's path, or an empty string when the image cannot be read.
std::string writeDisplayPng(const std::string& path, float gamma);
