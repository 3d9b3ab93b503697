// What the guarded load costs a texture: the same files decoded here and in
// the child process that contains a decoder's crash or hang, interleaved,
// with the difference per load and the ratio per round.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "frame/report.h"
#include "qz.h"
#include "shading/image.h"

namespace {

double milliseconds(int64_t start) { return double(clockNanoseconds() - start) * 1e-6; }

std::string makeFile(const std::string& folder, const std::string& name, int side) {
  const int image = qzAddImage();
  const std::string path = folder + "/" + name;
  qzSetImageName(image, path.c_str());
  qzCreateImage(image, side, side);
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x) qzSetImageColor(image, x, y, float(x % 7) / 7, float(y % 5) / 5, 0.5f);
  qzSaveImage(image);
  freeImage(images[size_t(image)]);
  return path;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main() {
  // The report of every load would bury the figures, which go to standard error.
  if (!std::freopen("/dev/null", "w", stdout)) return 1;
  qzStartup();
  const std::string folder = (std::filesystem::temp_directory_path() / "quazel-image-load-bench").string();
  std::filesystem::create_directories(folder);
  const std::pair<const char*, int> files[] = {{"small.png", 64}, {"medium.png", 1024}, {"large.exr", 2048}};
  for (const auto& [name, side] : files) {
    const std::string path = makeFile(folder, name, side);
    std::vector<double> direct, guarded, ratio;
    for (int round = 0; round < 9; ++round) {
      Image here;
      here.name = path;
      int64_t start = clockNanoseconds();
      decodeImageFile(here, path);
      direct.push_back(milliseconds(start));
      Image contained;
      contained.name = path;
      start = clockNanoseconds();
      loadImage(contained);
      guarded.push_back(milliseconds(start));
      ratio.push_back(guarded.back() / direct.back());
    }
    std::fprintf(stderr, "%-11s %5d x %-5d  in process %8.3f ms   guarded %8.3f ms   extra %7.3f ms   ratio %.2f\n", name,
                 side, side, median(direct), median(guarded), median(guarded) - median(direct), median(ratio));
  }
  std::filesystem::remove_all(folder);
  qzShutdown();
}
