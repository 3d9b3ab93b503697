#include "output/exr_file.h"

#include <ImfChannelList.h>
#include <ImfFloatAttribute.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfIntAttribute.h>
#include <ImfOutputFile.h>
#include <ImfStringAttribute.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>

#include "shading/exr_check.h"

namespace {
const char* const channelNames[3] = {"R", "G", "B"};

std::string channelName(const std::string& layer, int c) {
  return layer.empty() ? channelNames[c] : layer + "." + channelNames[c];
}

void putInfo(Imf::Header& header, const ExrInfo& info) {
  if (info.passes >= 0) header.insert("quazel/passes", Imf::IntAttribute(info.passes));
  if (!info.sampler.empty()) header.insert("quazel/sampler", Imf::StringAttribute(info.sampler));
  if (info.seed >= 0) header.insert("quazel/seed", Imf::StringAttribute(std::to_string(info.seed)));
  if (info.render_seconds >= 0) header.insert("quazel/renderTime", Imf::FloatAttribute(info.render_seconds));
  if (info.tile_count > 0)
    header.insert("quazel/tile", Imf::StringAttribute(std::to_string(info.tile_index) + " of " +
                                                      std::to_string(info.tile_count)));
}

void getInfo(const Imf::Header& header, ExrInfo& info) {
  if (auto* a = header.findTypedAttribute<Imf::IntAttribute>("quazel/passes")) info.passes = a->value();
  if (auto* a = header.findTypedAttribute<Imf::StringAttribute>("quazel/sampler")) info.sampler = a->value();
  if (auto* a = header.findTypedAttribute<Imf::StringAttribute>("quazel/seed")) info.seed = std::atoll(a->value().c_str());
  if (auto* a = header.findTypedAttribute<Imf::FloatAttribute>("quazel/renderTime")) info.render_seconds = a->value();
  if (auto* a = header.findTypedAttribute<Imf::StringAttribute>("quazel/tile"))
    std::sscanf(a->value().c_str(), "%d of %d", &info.tile_index, &info.tile_count);
}

// Where a channel goes: its layer and its component, or false for a channel
// that is not R, G or B of some layer.
bool splitChannel(const std::string& name, std::string& layer, int& component) {
  const size_t dot = name.rfind('.');
  const std::string last = dot == std::string::npos ? name : name.substr(dot + 1);
  for (int c = 0; c < 3; ++c)
    if (last == channelNames[c]) {
      layer = dot == std::string::npos ? "" : name.substr(0, dot);
      component = c;
      return true;
    }
  return false;
}
}  // namespace

std::string writeExr(const std::string& path, const ExrImage& image) {
  const size_t frame = size_t(std::max(image.width, 0)) * size_t(std::max(image.height, 0)) * 3;
  if (image.width <= 0 || image.height <= 0 || image.x1 <= image.x0 || image.y1 <= image.y0 || image.x0 < 0 ||
      image.y0 < 0 || image.x1 > image.width || image.y1 > image.height)
    return "the image holds no pixels to write";
  try {
    Imf::Header header(Imath::Box2i({0, 0}, {image.width - 1, image.height - 1}),
                       Imath::Box2i({image.x0, image.y0}, {image.x1 - 1, image.y1 - 1}));
    header.compression() = Imf::ZIP_COMPRESSION;
    putInfo(header, image.info);
    Imf::FrameBuffer buffer;
    for (const ExrLayer& layer : image.layers) {
      if (layer.rgb.size() != frame) return "layer '" + layer.name + "' does not cover the frame";
      for (int c = 0; c < 3; ++c) {
        header.channels().insert(channelName(layer.name, c), Imf::Channel(Imf::FLOAT));
        char* base = const_cast<char*>(reinterpret_cast<const char*>(layer.rgb.data() + c));
        buffer.insert(channelName(layer.name, c),
                      Imf::Slice(Imf::FLOAT, base, 3 * sizeof(float), size_t(image.width) * 3 * sizeof(float)));
      }
    }
    Imf::OutputFile file(path.c_str(), header);
    file.setFrameBuffer(buffer);
    file.writePixels(image.y1 - image.y0);
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

std::string readExr(const std::string& path, ExrImage& image, bool pixels) {
  image = ExrImage{};
  // The library loops or allocates without bound on some damaged files.
  if (!soundOpenExrFile(path)) return "its headers or chunk table are damaged";
  try {
    Imf::InputFile file(path.c_str());
    const Imf::Header& header = file.header();
    const Imath::Box2i display = header.displayWindow(), data = header.dataWindow();
    if (display.min.x != 0 || display.min.y != 0 || display.max.x < 0 || display.max.y < 0)
      return "its display window does not start at 0, 0";
    if (data.max.x < data.min.x || data.max.y < data.min.y) return "its data window is empty";
    if (data.min.x < 0 || data.min.y < 0 || data.max.x > display.max.x || data.max.y > display.max.y)
      return "its data window lies outside its display window";
    // A damaged header may claim any size; a frame is held whole, so keep it sane.
    if (int64_t(display.max.x) * display.max.y > (int64_t(1) << 30)) return "its display window is too large";
    image.width = display.max.x + 1, image.height = display.max.y + 1;
    image.x0 = data.min.x, image.y0 = data.min.y, image.x1 = data.max.x + 1, image.y1 = data.max.y + 1;
    getInfo(header, image.info);
    const size_t frame = pixels ? size_t(image.width) * size_t(image.height) * 3 : 0;
    std::map<std::string, size_t> byName;
    Imf::FrameBuffer buffer;
    for (auto it = header.channels().begin(); it != header.channels().end(); ++it) {
      std::string layer;
      int c = 0;
      if (!splitChannel(it.name(), layer, c)) continue;
      if (!byName.count(layer)) {
        byName[layer] = image.layers.size();
        image.layers.push_back({layer, std::vector<float>(frame, 0.0f)});
      }
      if (!pixels) continue;
      std::vector<float>& rgb = image.layers[byName[layer]].rgb;
      buffer.insert(it.name(), Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(rgb.data() + c), 3 * sizeof(float),
                                          size_t(image.width) * 3 * sizeof(float)));
    }
    if (!pixels) return "";
    file.setFrameBuffer(buffer);
    file.readPixels(data.min.y, data.max.y);
  } catch (const std::exception& e) {
    image = ExrImage{};
    return e.what();
  }
  return "";
}
