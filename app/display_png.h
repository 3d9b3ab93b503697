#pragma once

#include <string>
#include <vector>

// Images of float pixels, which get a display copy: .hdr, .pfm and .exr.
bool isFloatImage(const std::string& name);

// The sRGB transfer curve of a linear value, as the byte a PNG stores.
unsigned char srgbByte(float linear);

// Writes an sRGB 8-bit PNG beside a float image so a person can look at it; of
// a multi-layer EXR, its beauty layer (or else its first). Returns the PNG's
// path, or an empty string when the image cannot be read.
std::string writeDisplayPng(const std::string& path);
