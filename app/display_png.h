#pragma once

#include <string>

// Images of float pixels, which get a display copy: .hdr, .pfm and .exr.
bool isFloatImage(const std::string& name);

// Writes a gamma-mapped 8-bit PNG beside a float image so a person can look at it;
// returns the PNG's path, or an empty string when the image cannot be read.
std::string writeDisplayPng(const std::string& path, float gamma);
