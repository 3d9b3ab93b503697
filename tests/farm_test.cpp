// The farm side of the command: its options, the bands a frame is cut into,
// the record a tile leaves, and the merge of tile folders into whole frames.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>

#include "app/merge.h"
#include "app/options.h"
#include "app/tiling.h"
#include "tests/command_fixture.h"

namespace fs = std::filesystem;

namespace {
CommandLine parse(const std::vector<std::string>& arguments) { return parseCommandLine(arguments); }

// The first error of a command line, or "" when it is accepted.
std::string errorOf(const std::vector<std::string>& arguments) { return parse(arguments).error; }

// Runs the merge, returning its status; stderr lands in `err`.
int merge(const std::string& out, const std::vector<std::string>& tiles, std::string& err) {
  testing::internal::CaptureStderr();
  int status = 0;
  captureOutput([&] { status = runMerge({out, tiles}); });
  err = testing::internal::GetCapturedStderr();
  return status;
}

// The bytes of pixel p in whichever array the image was loaded into.
std::vector<uint8_t> pixelBytes(const Image& image, int64_t p) {
  const int64_t pixels = int64_t(image.width) * image.height;
  auto slice = [&](const auto& array) {
    const size_t size = sizeof(array[0]) * array.size() / size_t(pixels);
    const uint8_t* base = reinterpret_cast<const uint8_t*>(array.data()) + size_t(p) * size;
    return std::vector<uint8_t>(base, base + size);
  };
  return image.floats.empty() ? slice(image.bytes) : slice(image.floats);
}

const std::vector<std::string> outputs = {"beauty.hdr", "depth.pfm", "mask.png"};

// A tile folder as a render leaves it: full-frame images, black outside the
// tile's own pixels, where each pixel carries a value that tells it apart.
void writeTile(const std::string& folder, const TileRecord& record, const std::vector<std::string>& names = outputs) {
  fs::create_directories(folder);
  for (const std::string& name : names) {
    Image image;
    image.name = folder + "/" + name;
    allocateImage(image, record.width, record.height, 3, 32, 0);
    const PixelRect& p = record.pixels;
    for (int y = p.y0; y < p.y1; ++y)
      for (int x = p.x0; x < p.x1; ++x)
        writePixel(image, {0.1f * float(record.index), 0.01f * float(x + 1), 0.003f * float(y + 1)},
                   int64_t(y) * record.width + x);
    ASSERT_TRUE(saveImage(image));
  }
  std::ofstream(folder + "/" + tileRecordName) << formatTileRecord(record);
}

TileRecord band(int index, int count, int width, int height, const PixelRect& region) {
  return {index, count, width, height, region, tileBand(region, index, count)};
}
}  // namespace

TEST(FarmOptions, ReadsEveryOptionAndRefusesBadValues) {
  const CommandLine line =
      parse({"-o", "out", "--region", "1", "2", "30", "40", "--tile", "3/8", "--samples", "9", "--resolution", "64",
             "48", "--preview", "--exr", "all.exr", "--checkpoint", "2.5", "--threads", "3", "--log", "r.log",
             "--resume", "stopped", "scene"});
  ASSERT_EQ(line.error, "");
  EXPECT_EQ(line.kind, CommandLine::render);
  const RenderOptions& o = line.render_options;
  EXPECT_EQ(o.output, "out");
  EXPECT_TRUE(o.has_region);
  EXPECT_EQ(o.region, (PixelRect{1, 2, 30, 40}));
  EXPECT_EQ(o.tile_index, 3);
  EXPECT_EQ(o.tile_count, 8);
  EXPECT_EQ(o.samples, 9);
  EXPECT_EQ(o.width, 64);
  EXPECT_EQ(o.height, 48);
  EXPECT_TRUE(o.preview);
  EXPECT_EQ(o.exr, "all.exr");
  EXPECT_EQ(o.checkpoint_seconds, 2.5f);
  EXPECT_EQ(o.threads, 3);
  EXPECT_EQ(o.log, "r.log");
  EXPECT_EQ(o.resume, "stopped");
  EXPECT_EQ(o.scene, "scene");
  EXPECT_EQ(parse({"--tile", "1/1"}).render_options.tile_count, 1);
  EXPECT_EQ(parse({"scene", "--help"}).kind, CommandLine::help);

  const CommandLine m = parse({"merge", "-o", "frame", "t1", "t2"});
  ASSERT_EQ(m.error, "");
  EXPECT_EQ(m.kind, CommandLine::merge);
  EXPECT_EQ(m.merge_options.output, "frame");
  EXPECT_EQ(m.merge_options.tiles, (std::vector<std::string>{"t1", "t2"}));

  // Each bad line is named by what is wrong with it.
  const std::pair<std::vector<std::string>, std::string> bad[] = {
      {{"--tile", "0/4"}, "the tile index must be 1 to 4"},
      {{"--tile", "5/4"}, "the tile index must be 1 to 4"},
      {{"--tile", "1/0"}, "the number of tiles must be at least 1"},
      {{"--tile", "-1/-2"}, "the number of tiles must be at least 1"},
      {{"--tile", "2"}, "expected I/N"},
      {{"--tile", "a/4"}, "expected I/N"},
      {{"--tile", "1/4x"}, "expected I/N"},
      {{"--tile"}, "--tile needs 1 value"},
      {{"--region", "10", "10", "5", "20"}, "0 <= X0 < X1"},
      {{"--region", "-1", "0", "4", "4"}, "0 <= X0 < X1"},
      {{"--region", "0", "0", "4", "0"}, "0 <= Y0 < Y1"},
      {{"--region", "1", "2", "3"}, "--region needs 4 values"},
      {{"--region", "1", "2", "3", "4.5"}, "'4.5' is not a whole number"},
      {{"--samples", "0"}, "--samples must be at least 1"},
      {{"--samples", "many"}, "'many' is not a whole number"},
      {{"--resolution", "0", "10"}, "at least 1"},
      {{"-o"}, "-o needs 1 value"},
      {{"--exr"}, "--exr needs 1 value"},
      {{"--threads", "0"}, "--threads must be 1 to 256"},
      {{"--threads", "257"}, "--threads must be 1 to 256"},
      {{"--checkpoint", "0"}, "--checkpoint: '0' is not a number of seconds above 0"},
      {{"--checkpoint", "soon"}, "--checkpoint: 'soon' is not a number of seconds above 0"},
      {{"--fast"}, "unexpected argument '--fast'"},
      {{"a", "b"}, "unexpected argument 'b'"},
      {{"merge", "t1"}, "merge needs -o OUT_DIR"},
      {{"merge", "-o", "frame"}, "merge needs at least one tile folder"},
      {{"merge", "-o", "frame", "--tile", "1/2", "t1"}, "merge: unexpected argument '--tile'"},
  };
  for (const auto& [arguments, message] : bad) {
    const std::string error = errorOf(arguments);
    EXPECT_NE(error.find(message), std::string::npos) << arguments[0] << ": " << error;
  }
}

TEST(FarmTiling, BandsCoverTheRegionOnceWithEvenHeights) {
  for (const PixelRect& region : {PixelRect{0, 0, 7, 1}, PixelRect{0, 0, 320, 180}, PixelRect{5, 3, 9, 40}}) {
    const int rows = region.y1 - region.y0;
    for (int count = 1; count <= rows; ++count) {
      std::vector<int> owner(size_t(rows), 0);
      int shortest = rows, tallest = 0;
      for (int i = 1; i <= count; ++i) {
        const PixelRect b = tileBand(region, i, count);
        ASSERT_EQ(b.x0, region.x0);
        ASSERT_EQ(b.x1, region.x1);
        shortest = std::min(shortest, b.y1 - b.y0);
        tallest = std::max(tallest, b.y1 - b.y0);
        for (int y = b.y0; y < b.y1; ++y) ++owner[size_t(y - region.y0)];
      }
      ASSERT_GE(shortest, 1) << count;
      ASSERT_LE(tallest - shortest, 1) << count;
      for (int y = 0; y < rows; ++y) ASSERT_EQ(owner[size_t(y)], 1) << "row " << y << " of " << count << " tiles";
    }
  }
  EXPECT_EQ(clampToImage({-5, -1, 1048576, 1048576}, 960, 540), (PixelRect{0, 0, 960, 540}));
  EXPECT_TRUE(overlap({0, 0, 4, 4}, {3, 3, 5, 5}));
  EXPECT_FALSE(overlap({0, 0, 4, 4}, {0, 4, 4, 8}));  // maxima are exclusive
}

TEST(FarmTiling, RecordsRoundTripAndDamagedOnesAreRefused) {
  const TileRecord record = band(2, 3, 64, 48, {4, 6, 60, 42});
  TileRecord back;
  ASSERT_TRUE(parseTileRecord(formatTileRecord(record), back));
  EXPECT_EQ(back.index, 2);
  EXPECT_EQ(back.count, 3);
  EXPECT_EQ(back.width, 64);
  EXPECT_EQ(back.height, 48);
  EXPECT_EQ(back.region, record.region);
  EXPECT_EQ(back.pixels, (PixelRect{4, 18, 60, 30}));

  const std::string good = formatTileRecord(record);
  for (const std::string& damaged :
       {good.substr(0, good.size() / 2), good + "extra\n",
        std::string("tile 4 of 3\nframe 64 48\nregion 0 0 64 48\npixels 0 0 64 1\n"),
        std::string("tile 1 of 3\nframe 64 48\nregion 0 0 64 48\npixels 0 40 64 50\n"),
        std::string("tile 1 of 3\nframe 64 48\nregion 0 0 80 48\npixels 0 0 64 10\n"),
        std::string("tile 1 of 3\nframe 64 48\nregion 0 0 64 48\npixels 0 5 64 5\n"), std::string()}) {
    TileRecord r;
    EXPECT_FALSE(parseTileRecord(damaged, r)) << damaged;
  }
}

TEST(FarmMerge, JoinsTilesBitForBitWithAPngBesideFloatImages) {
  quietStartup();
  const std::string work = scratchFolder("farm-merge");
  const PixelRect region{2, 1, 13, 10};
  std::vector<std::string> folders;
  for (int i : {3, 1, 2}) {  // given out of order
    folders.push_back(work + "/tile-" + std::to_string(i));
    writeTile(folders.back(), band(i, 3, 16, 12, region));
  }
  std::string err;
  ASSERT_EQ(merge(work + "/frame", folders, err), 0) << err;

  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(work + "/frame")) names.insert(entry.path().filename().string());
  // The tiles' display copies are made afresh; an 8-bit output gets none.
  EXPECT_EQ(names, (std::set<std::string>{"beauty.hdr", "beauty.png", "depth.pfm", "depth.png", "mask.png"}));
  for (const std::string& name : outputs) {
    const Image merged = loadStoredImage(work + "/frame/" + name);
    ASSERT_EQ(merged.width, 16) << name;
    ASSERT_EQ(merged.height, 12) << name;
    Image tiles[3];
    for (int i = 0; i < 3; ++i) tiles[i] = loadStoredImage(work + "/tile-" + std::to_string(i + 1) + "/" + name);
    const std::vector<uint8_t> zero = pixelBytes(tiles[0], 0);
    for (int y = 0; y < 12; ++y)
      for (int x = 0; x < 16; ++x) {
        const int64_t p = int64_t(y) * 16 + x;
        // Reading gives 8-bit images the other way up from writing, as textures want them.
        const int row = name.ends_with(".png") ? 11 - y : y;
        int owner = -1;
        for (int i = 0; i < 3; ++i)
          if (inside({x, row, x + 1, row + 1}, tileBand(region, i + 1, 3))) owner = i;
        const std::vector<uint8_t> got = pixelBytes(merged, p);
        if (owner < 0) {
          EXPECT_EQ(got, zero) << name << " " << x << "," << y;
        } else {
          EXPECT_NE(got, zero) << name << " " << x << "," << y;
          EXPECT_EQ(got, pixelBytes(tiles[owner], p)) << name << " " << x << "," << y;
        }
      }
  }
}

TEST(FarmMerge, RefusesTilesThatDoNotFitAndWritesNothing) {
  quietStartup();
  const std::string work = scratchFolder("farm-refuse");
  const PixelRect whole{0, 0, 8, 6};
  auto folder = [&](const std::string& name) { return work + "/" + name; };
  writeTile(folder("a1"), band(1, 3, 8, 6, whole));
  writeTile(folder("a2"), band(2, 3, 8, 6, whole));
  writeTile(folder("a3"), band(3, 3, 8, 6, whole));
  writeTile(folder("b2"), band(2, 3, 8, 6, whole));
  writeTile(folder("wide"), band(3, 3, 9, 6, {0, 0, 9, 6}));
  writeTile(folder("few"), band(3, 3, 8, 6, whole), {"beauty.hdr", "depth.pfm"});
  writeTile(folder("of4"), band(3, 4, 8, 6, whole));
  // A record that claims more rows than its band: it overlaps tile 2.
  writeTile(folder("greedy"), {3, 3, 8, 6, whole, {0, 3, 8, 6}});
  // A tile that never finished: images, but no record.
  writeTile(folder("unfinished"), band(3, 3, 8, 6, whole));
  fs::remove(folder("unfinished") + "/" + tileRecordName);
  // Images of another size than the record says.
  writeTile(folder("small"), band(3, 3, 8, 5, {0, 0, 8, 5}));
  std::ofstream(folder("small") + "/" + tileRecordName) << formatTileRecord(band(3, 3, 8, 6, whole));

  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"a1", "a2"}, "tile 3 of 3 is missing"},
      {{"a3"}, "tiles 1 to 2 of 3 are missing"},
      {{"a1", "a2", "unfinished"}, "unfinished holds no finished tile: quazel-tile.txt is missing"},
      {{"a1", "a2", "gone"}, "gone: no such tile folder"},
      {{"a1", "a2", "b2", "a3"}, "both hold tile 2 of 3"},
      {{"a1", "a2", "greedy"}, "rendered the same pixels"},
      {{"a1", "a2", "wide"}, "frame"},
      {{"a1", "a2", "few"}, "has no mask.png"},
      {{"a1", "a2", "of4"}, "come from different numbers of tiles"},
      {{"a1", "a2", "small"}, "is 8x5, but the frame is 8x6"},
  };
  for (const auto& [names, message] : cases) {
    std::vector<std::string> folders;
    for (const std::string& name : names) folders.push_back(folder(name));
    std::string err;
    EXPECT_EQ(merge(folder("frame"), folders, err), 2) << message;
    EXPECT_NE(err.find(message), std::string::npos) << err;
    EXPECT_TRUE(err.starts_with("quazel: merge: ")) << err;
    EXPECT_FALSE(fs::exists(folder("frame/beauty.hdr"))) << message;
  }
  std::string err;
  EXPECT_EQ(merge(folder("frame"), {folder("a3"), folder("a1"), folder("a2")}, err), 0) << err;
}
