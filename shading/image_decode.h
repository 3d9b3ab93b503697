// Image files that may be broken. Cheap checks run before any decoder sees a
// file; the decoder itself runs in a child process with a time limit that
// hands the pixels back, so that its crash or hang costs one texture and not
// the render.
#pragma once

#include <cstdint>
#include <string>

#include "shading/image.h"

// Seconds a decoder may take before its file is given up.
extern double imageDecodeSeconds;

// The largest decoded size in bytes that a file of this length can honestly
// hold: well above what any compression of real images reaches. Deflate tops
// out near 1:1032 and run-length codes far below; small images always pass.
inline double believableDecodedBytes(int64_t fileBytes) { return 2048.0 * double(fileBytes) + 64.0 * 1024 * 1024; }

// A Radiance header the decoder can take: "#?" lines up to an empty line, then
// exactly "-Y height +X width" with positive sizes the file can hold.
bool soundRadianceHeader(const std::string& path);

// The pixel array in use, as bytes; null and 0 when the image has none.
uint8_t* pixelBytes(Image& image, size_t& size);

// Runs `decode` on a copy of the record in a child process and takes over
// what it made. `decode` returns whether the file could be read and sets
// `loaded` when it made pixels. False when the file could not be read, or the
// child crashed, overran imageDecodeSeconds or sent a malformed answer; the
// record then stays as it was.
bool decodeContained(Image& image, const std::string& path, bool (*decode)(Image&, const std::string&));
