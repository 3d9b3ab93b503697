// The structure of an OpenEXR file, checked in our own code before any decoder
// sees it. Decoders loop or allocate without bound on headers cut short, on
// attribute sizes and windows that lie about the file, and on chunk tables
// that point outside it; these are refused here at once, where a contained
// decoder would cost its whole time limit.
#pragma once

#include <string>

// True for a scan-line or tiled OpenEXR image, single- or multi-part, whose
// headers lie within the file and hold every attribute a reader needs with a
// value in range, whose data windows are sane and believable for the file's
// length, and whose chunk tables have an entry for every chunk the windows,
// compression and tiling imply, each pointing past the tables at a chunk of
// its own part that lies whole within the file.
bool soundOpenExrFile(const std::string& path);
