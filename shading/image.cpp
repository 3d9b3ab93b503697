#include "shading/image.h"

#include <FreeImage.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <new>

#include "frame/memory_budget.h"
#include "frame/report.h"
#include "frame/sequence.h"
#include "output/exr_file.h"
#include "qz.h"
#include "shading/exr_check.h"
#include "shading/image_decode.h"

std::vector<Image> images;
std::vector<std::string> imageSearchPaths;
std::set<std::string> unsavedImages;

namespace {
bool contains(const std::string& name, const char* a, const char* b) {
  return name.find(a) != std::string::npos || name.find(b) != std::string::npos;
}

bool validImage(int image) { return image >= 0 && size_t(image) < images.size(); }

int64_t pixelCount(const Image& image) { return int64_t(image.width) * image.height; }

// One channel as a float with the true scale of its depth, as files want it.
float channelValue(const Image& image, int64_t i) {
  switch (image.depth) {
    case 8: return image.bytes[i] * (1.0f / 255.0f);
    case 16: return image.words[i] * (1.0f / 65535.0f);
    case 32: return image.floats[i];
    case 64: return float(image.doubles[i]);
    default: return 0;
  }
}

uint8_t toByte(float v) {
  if (v > 1) return 255;
  return v > 0 ? uint8_t(v * 255) : 0;
}

void packShared(const float* rgb, uint8_t* out) {
  float m = std::max(rgb[0], std::max(rgb[1], rgb[2]));
  if (!(m >= 1e-32f)) {
    out[0] = out[1] = out[2] = out[3] = 0;
    return;
  }
  int e;
  float mantissa = std::frexp(m, &e);
  float scale = mantissa * 256.0f / m;
  for (int c = 0; c < 3; ++c) out[c] = uint8_t(std::clamp(rgb[c] * scale, 0.0f, 255.0f));
  out[3] = uint8_t(e + 128);
}

// Copies FreeImage scan lines into the record's layout, row y to row y.
bool convertBitmap(Image& image, FIBITMAP* bitmap) {
  const FREE_IMAGE_TYPE type = FreeImage_GetImageType(bitmap);
  const int width = int(FreeImage_GetWidth(bitmap)), height = int(FreeImage_GetHeight(bitmap));
  const unsigned bpp = FreeImage_GetBPP(bitmap);
  RGBQUAD* palette = FreeImage_GetPalette(bitmap);
  auto rows = [&](auto&& copyRow) {
    for (int y = 0; y < height; ++y) copyRow(FreeImage_GetScanLine(bitmap, y), int64_t(y) * width);
  };
  if (type == FIT_BITMAP && bpp == 8 && !palette) {
    allocateImage(image, width, height, 1, 8, 0);
    rows([&](const BYTE* line, int64_t row) { std::copy(line, line + width, &image.bytes[row]); });
  } else if (type == FIT_BITMAP && bpp == 8) {
    allocateImage(image, width, height, 3, 8, 0);
    rows([&](const BYTE* line, int64_t row) {
      for (int x = 0; x < width; ++x) {
        const RGBQUAD& q = palette[line[x]];
        uint8_t* out = &image.bytes[(row + x) * 3];
        out[0] = q.rgbRed, out[1] = q.rgbGreen, out[2] = q.rgbBlue;
      }
    });
  } else if (type == FIT_BITMAP && (bpp == 24 || bpp == 32)) {
    const int channels = bpp / 8;
    allocateImage(image, width, height, channels, 8, 0);
    rows([&](const BYTE* line, int64_t row) {
      for (int x = 0; x < width; ++x) {
        const BYTE* in = line + x * channels;
        uint8_t* out = &image.bytes[(row + x) * channels];
        out[0] = in[FI_RGBA_RED], out[1] = in[FI_RGBA_GREEN], out[2] = in[FI_RGBA_BLUE];
        if (channels == 4) out[3] = in[FI_RGBA_ALPHA];
      }
    });
  } else if (type == FIT_UINT16 || type == FIT_RGB16 || type == FIT_RGBA16) {
    const int channels = type == FIT_UINT16 ? 1 : type == FIT_RGB16 ? 3 : 4;
    allocateImage(image, width, height, channels, 16, 0);
    rows([&](const BYTE* line, int64_t row) {
      const WORD* in = reinterpret_cast<const WORD*>(line);
      std::copy(in, in + int64_t(width) * channels, &image.words[row * channels]);
    });
  } else if (type == FIT_UINT32) {
    allocateImage(image, width, height, 1, 32, 0);
    rows([&](const BYTE* line, int64_t row) {
      const DWORD* in = reinterpret_cast<const DWORD*>(line);
      for (int x = 0; x < width; ++x) image.floats[row + x] = float(in[x]);
    });
  } else if (type == FIT_FLOAT || type == FIT_RGBAF || (type == FIT_RGBF && !image.packFloats)) {
    const int channels = type == FIT_FLOAT ? 1 : type == FIT_RGBF ? 3 : 4;
    allocateImage(image, width, height, channels, 32, 0);
    rows([&](const BYTE* line, int64_t row) {
      const float* in = reinterpret_cast<const float*>(line);
      std::copy(in, in + int64_t(width) * channels, &image.floats[row * channels]);
    });
  } else if (type == FIT_RGBF) {
    allocateImage(image, width, height, 3, 32, 1);
    rows([&](const BYTE* line, int64_t row) {
      const float* in = reinterpret_cast<const float*>(line);
      for (int x = 0; x < width; ++x) packShared(in + x * 3, &image.shared[(row + x) * 4]);
    });
  } else {
    return false;
  }
  return height > 0;
}

}  // namespace

bool decodeImageFile(Image& image, const std::string& path) {
  const FREE_IMAGE_FORMAT format = FreeImage_GetFileType(path.c_str(), 0);
  if (format == FIF_UNKNOWN) return false;
  // The header alone first: a size the file cannot hold is refused before any
  // pixel is allocated.
  FIBITMAP* header = FreeImage_FIFSupportsNoPixels(format) ? FreeImage_Load(format, path.c_str(), FIF_LOAD_NOPIXELS)
                                                            : nullptr;
  if (header) {
    const double bytes =
        double(FreeImage_GetWidth(header)) * FreeImage_GetHeight(header) * FreeImage_GetBPP(header) / 8;
    FreeImage_Unload(header);
    std::error_code error;
    const auto length = std::filesystem::file_size(path, error);
    if (error || bytes > believableDecodedBytes(int64_t(length)) || !fitsInMemory(3 * bytes)) return false;
  }
  FIBITMAP* bitmap = FreeImage_Load(format, path.c_str(), 0);
  if (!bitmap) return false;
  if (contains(image.name, ".hdr", ".HDR")) FreeImage_FlipVertical(bitmap);
  bool readable = true;
  try {
    if (convertBitmap(image, bitmap)) image.loaded = 1;
  } catch (const std::bad_alloc&) {
    readable = false;
  }
  FreeImage_Unload(bitmap);
  return readable;
}

namespace {

void loadFile(Image& image, const std::string& path) {
  const FREE_IMAGE_FORMAT format = FreeImage_GetFileType(path.c_str(), 0);
  const bool readable = format != FIF_UNKNOWN && (format != FIF_HDR || soundRadianceHeader(path)) &&
                        (format != FIF_EXR || soundOpenExrFile(path)) && decodeContained(image, path, decodeImageFile);
  if (!readable) {
    // Found but unreadable: say so, so a missing texture has a reason in the report.
    printError("image - " + image.name + "\tcannot be read");
  }
}

struct SaveFormat {
  const char* extensions[6];
  FREE_IMAGE_FORMAT format;
};

const SaveFormat saveFormats[] = {
    {{".bmp", ".BMP"}, FIF_BMP},
    {{".cut", ".CUT"}, FIF_CUT},
    {{".dds", ".DDS"}, FIF_DDS},
    {{".exr", ".EXR"}, FIF_EXR},
    {{".g3", ".G3"}, FIF_FAXG3},
    {{".gif", ".GIF"}, FIF_GIF},
    {{".hdr", ".HDR"}, FIF_HDR},
    {{".ico", ".ICO"}, FIF_ICO},
    {{".iff", ".IFF"}, FIF_LBM},
    {{".j2k", ".J2K"}, FIF_J2K},
    {{".jng", ".JNG"}, FIF_JNG},
    {{".jp2", ".JP2"}, FIF_JP2},
    {{".jpg", ".JPG", ".jpeg", ".JPEG"}, FIF_JPEG},
    {{".koa", ".KOA"}, FIF_KOALA},
    {{".mng", ".MNG"}, FIF_MNG},
    {{".pbm", ".PBM"}, FIF_PBM},
    {{".pcd", ".PCD"}, FIF_PCD},
    {{".pfm", ".PFM"}, FIF_PFM},
    {{".pgm", ".PGM"}, FIF_PGM},
    {{".pic", ".PIC", ".pct", ".PCT", ".pict", ".PICT"}, FIF_PICT},
    {{".png", ".PNG"}, FIF_PNG},
    {{".ppm", ".PPM"}, FIF_PPM},
    {{".psd", ".PSD"}, FIF_PSD},
    {{".ras", ".RAS"}, FIF_RAS},
    {{".raw", ".RAW"}, FIF_RAW},
    {{".sgi", ".SGI"}, FIF_SGI},
    {{".tga", ".TGA", ".targa", ".TARGA"}, FIF_TARGA},
    {{".tif", ".TIF", ".tiff", ".TIFF"}, FIF_TIFF},
    {{".wap", ".WAP", ".wabmp", ".WBMP", ".wbm", ".WBM"}, FIF_WBMP},
    {{".xbm", ".XBM"}, FIF_XBM},
    {{".xpm", ".XPM"}, FIF_XPM},
};

// One pixel's floats as files want them: one channel goes to all three, a
// fourth is copied only from a four-channel image.
void floatPixel(const Image& image, int64_t p, int count, float* pixel) {
  if (image.sharedExponent) {
    const Color3f c = readPixel(image, p);
    pixel[0] = c.r, pixel[1] = c.g, pixel[2] = c.b;
    return;
  }
  for (int c = 0; c < count; ++c) pixel[c] = channelValue(image, p * image.channels + (image.channels == 1 ? 0 : c));
}

FIBITMAP* floatBitmap(const Image& image) {
  const int out = image.channels == 4 ? 4 : 3;
  FIBITMAP* bitmap = FreeImage_AllocateT(out == 4 ? FIT_RGBAF : FIT_RGBF, image.width, image.height);
  if (!bitmap) return nullptr;
  for (int y = 0; y < image.height; ++y) {
    float* line = reinterpret_cast<float*>(FreeImage_GetScanLine(bitmap, y));
    for (int x = 0; x < image.width; ++x) floatPixel(image, int64_t(y) * image.width + x, out, line + x * out);
  }
  return bitmap;
}

// EXR goes out as 32-bit floats, top row first; a sum over many passes keeps its low bits.
bool saveExr(const Image& image) {
  ExrImage file;
  file.width = file.x1 = image.width, file.height = file.y1 = image.height;
  std::vector<float>& rgb = file.layers.emplace_back().rgb;
  rgb.resize(size_t(pixelCount(image)) * 3);
  for (int64_t p = 0; p < pixelCount(image); ++p) floatPixel(image, p, 3, &rgb[size_t(p) * 3]);
  const std::string problem = writeExr(image.name, file);
  if (!problem.empty()) printError("image - " + image.name + "\tcannot be written: " + problem);
  return problem.empty();
}

uint8_t byteValue(const Image& image, int64_t i) {
  switch (image.depth) {
    case 8: return image.bytes[i];
    case 16: return uint8_t(image.words[i] >> 8);
    case 32: return toByte(image.floats[i]);
    case 64: return toByte(float(image.doubles[i]));
    default: return 0;
  }
}

FIBITMAP* byteBitmap(const Image& image) {
  const int channels = std::clamp(image.sharedExponent ? 3 : image.channels, 1, 4);
  FIBITMAP* bitmap = FreeImage_Allocate(image.width, image.height, channels * 8);
  if (!bitmap) return nullptr;
  if (channels == 1) {
    // Eight-bit bitmaps are palettised: give them a grey ramp and write indices.
    RGBQUAD* palette = FreeImage_GetPalette(bitmap);
    for (int i = 0; i < 256; ++i) palette[i].rgbRed = palette[i].rgbGreen = palette[i].rgbBlue = BYTE(i);
  }
  for (int y = 0; y < image.height; ++y)
    for (int x = 0; x < image.width; ++x) {
      const int64_t p = int64_t(y) * image.width + x;
      BYTE v[4] = {0, 0, 0, 255};
      if (image.sharedExponent) {
        Color3f c = readPixel(image, p);
        v[0] = toByte(c.r), v[1] = toByte(c.g), v[2] = toByte(c.b);
      } else {
        for (int c = 0; c < channels; ++c) v[c] = byteValue(image, p * image.channels + c);
      }
      if (channels == 1) {
        FreeImage_SetPixelIndex(bitmap, x, y, &v[0]);
      } else {
        RGBQUAD q{v[2], v[1], v[0], v[3]};
        FreeImage_SetPixelColor(bitmap, x, y, &q);
      }
    }
  return bitmap;
}

bool readableFile(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_regular_file(path, error) && std::ifstream(path).good();
}
}  // namespace

void startImages() {
  FreeImage_Initialise(FALSE);
  imageSearchPaths.assign(1, std::string());
}

void stopImages() { FreeImage_DeInitialise(); }

void addImageSearchPath(const std::string& path) {
  if (std::find(imageSearchPaths.begin(), imageSearchPaths.end(), path) == imageSearchPaths.end())
    imageSearchPaths.push_back(path);
}

int findOrAddImage(const std::string& name) {
  if (name.empty()) return -1;
  for (size_t i = 0; i < images.size(); ++i)
    if (images[i].name == name) return int(i);
  images.emplace_back().name = name;
  return int(images.size() - 1);
}

void allocateImage(Image& image, int width, int height, int channels, int depth, uint8_t sharedExponent) {
  if (height <= 0 || channels <= 0 || depth <= 0) return;
  const double bytes = double(std::max(width, 0)) * height * (sharedExponent ? 4.0 : channels * depth / 8.0);
  // A size no machine here can hold fails as its allocation would, but before
  // the allocation has taken the machine's memory.
  if (!fitsInMemory(bytes)) throw std::bad_alloc();
  image.width = width, image.height = height, image.channels = channels, image.depth = depth;
  image.sharedExponent = sharedExponent;
  const int64_t pixels = std::max<int64_t>(int64_t(width) * height, 0);
  const int64_t count = pixels * channels;
  if (sharedExponent) {
    image.shared.assign(pixels * 4, 0);
    return;
  }
  switch (depth) {
    case 1: image.bits.assign((count + 7) / 8, 0); break;
    case 8: image.bytes.assign(count, 0); break;
    case 16: image.words.assign(count, 0); break;
    case 32: image.floats.assign(count, 0); break;
    case 64: image.doubles.assign(count, 0); break;
  }
}

Color3f readPixel(const Image& image, int64_t p) {
  if (image.sharedExponent) {
    if (p < 0 || uint64_t(p) * 4 >= image.shared.size()) return black;
    const uint8_t* s = &image.shared[p * 4];
    if (s[3] == 0) return black;
    const float scale = ExponentTable[s[3]];
    return {s[0] * scale, s[1] * scale, s[2] * scale};
  }
  if (p < 0 || p >= pixelCount(image) || (image.channels != 1 && image.channels < 3)) return black;
  const int64_t i = p * image.channels;
  const int64_t g = image.channels == 1 ? i : i + 1, b = image.channels == 1 ? i : i + 2;
  switch (image.depth) {
    case 8:
    case 16: {
      // Both depths scale by 1/255, so sixteen-bit white reads as 257.
      const float k = 0.0039215684f;
      if (image.depth == 8) return Color3f(image.bytes[i], image.bytes[g], image.bytes[b]) * k;
      return Color3f(image.words[i], image.words[g], image.words[b]) * k;
    }
    case 32: return {image.floats[i], image.floats[g], image.floats[b]};
    case 64: return {float(image.doubles[i]), float(image.doubles[g]), float(image.doubles[b])};
    default: return black;
  }
}

void writePixel(Image& image, Color3f color, int64_t p) {
  if (image.sharedExponent || p < 0) return;
  const int64_t first = p * image.channels;
  for (int c = 0; c < 3; ++c) {
    const int64_t i = first + c;
    // A one-channel image takes three writes from its pixel on; the last ones stop at the end.
    const float v = color[c];
    if (image.depth == 32 && uint64_t(i) < image.floats.size()) {
      image.floats[i] = v;
    } else if (image.depth == 64 && uint64_t(i) < image.doubles.size()) {
      image.doubles[i] = v;
    } else if (image.depth == 8 && uint64_t(i) < image.bytes.size()) {
      image.bytes[i] = v >= 1 ? 255 : v < 0 ? 0 : uint8_t(v * 255);
    } else if (image.depth == 16 && uint64_t(i) < image.words.size()) {
      image.words[i] = v >= 1 ? 65535 : v < 0 ? 0 : uint16_t(v * 65535);
    }
  }
}

bool loadImage(Image& image) {
  if (image.loaded) return true;
  if (image.name.empty()) return false;
  for (const std::string& path : imageSearchPaths) {
    const std::string candidate = path.empty() ? image.name : path + "/" + image.name;
    if (readableFile(candidate)) {
      loadFile(image, candidate);
      return true;
    }
  }
  printError("image - " + image.name + "\tcannot be found");
  printRule();
  return false;
}

bool saveImage(const Image& image) {
  const std::string& name = image.name;
  if (name.empty()) return false;
  const bool floatOutput = contains(name, ".exr", ".EXR") || contains(name, ".hdr", ".HDR") || contains(name, ".pfm", ".PFM");
  FIBITMAP* bitmap = nullptr;
  if (image.width > 0 && image.height > 0) bitmap = floatOutput ? floatBitmap(image) : byteBitmap(image);
  if (!bitmap) return true;
  if (!contains(name, ".pfm", ".PFM")) FreeImage_FlipVertical(bitmap);
  bool saved = true;
  for (const SaveFormat& entry : saveFormats)
    for (const char* extension : entry.extensions) {
      if (!extension || name.find(extension) == std::string::npos) continue;
      if (entry.format == FIF_EXR) {
        saved = saveExr(image) && saved;
      } else if (!FreeImage_Save(entry.format, bitmap, name.c_str(), 0)) {
        printError("image - " + name + "\tcannot be written");
        saved = false;
      }
    }
  FreeImage_Unload(bitmap);
  if (!saved) unsavedImages.insert(name);
  return saved;
}

void freeImage(Image& image) {
  image.bits = {}, image.bytes = {}, image.words = {}, image.floats = {}, image.doubles = {}, image.shared = {};
  image.name.clear();
  image.loaded = 0;
}

void loadImages() {
  for (Image& image : images) loadImage(image);
}

void freeImages() {
  for (Image& image : images) freeImage(image);
  images.clear();
}

int64_t addressPixel(const Image& image, int x, int y, uint8_t wrapU, uint8_t wrapV) {
  auto wrap = [](int v, int n, uint8_t mode) {
    if (mode == 0) return v >= 0 ? v % n : n - ((-v - 1) % n) - 1;
    if (mode == 1) return std::clamp(v, 0, n - 1);
    return v;
  };
  if (image.width <= 0 || image.height <= 0) return -1;
  return int64_t(wrap(y, image.height, wrapV)) * image.width + wrap(x, image.width, wrapU);
}

namespace {
// Coordinates far outside any image (and NaN) are pinned to a far texel, so the integer never overflows.
int texelCoordinate(float f) { return int(std::fmin(std::fmax(std::floor(f), -1073741824.0f), 1073741824.0f)); }

Color3f applyGamma(Color3f c, float gamma) {
  return {std::pow(c.r, gamma), std::pow(c.g, gamma), std::pow(c.b, gamma)};
}
}  // namespace

Color3f sampleImage(const Image& image, float u, float v, const TextureNode& node) {
  if (!node.uvIdentity) {
    const float* m = node.uv_matrix;
    const float w = m[6] * u + m[7] * v + m[8];
    const float tu = (m[0] * u + m[1] * v + m[2]) / w;
    v = (m[3] * u + m[4] * v + m[5]) / w;
    u = tu;
  }
  const float fx = image.width * u, fy = image.height * v;
  int x = texelCoordinate(fx), y = texelCoordinate(fy);
  auto texel = [&](int tx, int ty) {
    return readPixel(image, addressPixel(image, tx, ty, node.wrapU, node.wrapV));
  };
  Color3f c;
  if (node.pixel_sampler == PixelSampler::bilinear) {
    const float ax = fx - x, ay = fy - y;
    const Color3f c00 = applyGamma(texel(x, y), node.gamma), c10 = applyGamma(texel(x + 1, y), node.gamma);
    const Color3f c01 = applyGamma(texel(x, y + 1), node.gamma);
    const Color3f c11 = applyGamma(texel(x + 1, y + 1), node.gamma);
    c = (c00 * (1 - ax) + c10 * ax) * (1 - ay) + (c01 * (1 - ax) + c11 * ax) * ay;
  } else {
    if (node.pixel_sampler == PixelSampler::stochastic) {
      if (drawLoose() < fy - y) ++y;
      if (drawLoose() < fx - x) ++x;
    }
    c = applyGamma(texel(x, y), node.gamma);
  }
  if (!node.colorIdentity) {
    const Matrix4f& m = node.color_matrix;
    // The divisor takes green twice; scenes are made for this exact form.
    const float w = c.g * m(3, 1) + c.r * m(3, 0) + c.g * m(3, 2) + m(3, 3);
    c = Color3f{m(0, 0) * c.r + m(0, 1) * c.g + m(0, 2) * c.b + m(0, 3),
                m(1, 0) * c.r + m(1, 1) * c.g + m(1, 2) * c.b + m(1, 3),
                m(2, 0) * c.r + m(2, 1) * c.g + m(2, 2) * c.b + m(2, 3)} /
        w;
  }
  return c;
}

int64_t imageMemory(const Image& image) {
  return int64_t(image.bits.size() + image.bytes.size() + image.shared.size() + image.words.size() * sizeof(uint16_t) +
                 image.floats.size() * sizeof(float) + image.doubles.size() * sizeof(double));
}

void imageStatistics(const Image& image, Color3f& mean, Color3f& variance) {
  mean = variance = black;
  const int64_t n = pixelCount(image);
  if (n <= 0) return;
  double sum[3] = {0, 0, 0}, squares = 0;
  for (int64_t p = 0; p < n; ++p) {
    const Color3f c = readPixel(image, p);
    for (int k = 0; k < 3; ++k) sum[k] += c[k];
    const float largest = maxComponent(c);
    squares += double(largest) * largest;
  }
  for (int k = 0; k < 3; ++k) {
    mean[k] = float(sum[k] / n);
    variance[k] = float(squares / n) - mean[k] * mean[k];
  }
}

int qzAddImage() {
  images.emplace_back();
  return int(images.size() - 1);
}

void qzSetImageName(int image, const char* name) {
  if (validImage(image)) images[image].name = name ? name : "";
}

void qzCreateImage(int image, int width, int height) {
  if (!validImage(image)) return;
  images[image].loaded = 0;
  try {
    if (width > 0) allocateImage(images[image], width, height, 3, 32, 0);
  } catch (const std::bad_alloc&) {
    // The record stays as an invalid size leaves it.
    printError("image - " + images[image].name + "\tcannot be allocated");
    printRule();
  }
  images[image].loaded = 1;
}

bool qzLoadImage(int image) { return validImage(image) && loadImage(images[image]); }

bool qzSaveImage(int image) { return validImage(image) && saveImage(images[image]); }

int qzCountUnsavedImages() { return int(unsavedImages.size()); }

void qzSetImageColor(int image, int x, int y, float r, float g, float b) {
  if (!validImage(image) || x < 0 || x >= images[image].width) return;
  writePixel(images[image], {r, g, b}, int64_t(y) * images[image].width + x);
}

void qzGetImageColor(int image, int x, int y, float& r, float& g, float& b) {
  Color3f c;
  if (validImage(image) && x >= 0 && x < images[image].width)
    c = readPixel(images[image], int64_t(y) * images[image].width + x);
  r = c.r, g = c.g, b = c.b;
}
