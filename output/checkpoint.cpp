#include "output/checkpoint.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

#include "frame/renderer.h"
#include "frame/report.h"
#include "lights/geometry_light.h"
#include "lights/sky.h"
#include "output/adaptive_sampling.h"
#include "output/camera.h"
#include "qz.h"

namespace {
const char magic[] = "quazel checkpoint 1\n";

std::string checkpointPath, resumePath;
int64_t intervalNanoseconds = 0, lastWrite = 0;
std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the stop flag is set from a signal handler");
bool stopped = false;

// A stretch of memory the checkpoint holds as it stands.
struct Buffer {
  char* data;
  uint64_t bytes;
};

template <typename T>
Buffer bufferOf(std::vector<T>& values) {
  return {reinterpret_cast<char*>(values.data()), values.size() * sizeof(T)};
}

// What grows over the passes, in a fixed order: the camera's framebuffers, the
// sky's and the geometry light's, then each pixel's noise, pass count and
// whether it converged and stopped.
std::vector<Buffer> runningSums() {
  std::vector<Buffer> list;
  for (auto* aovs : {&cameras[size_t(renderer.camera)].aovs, &sky.aovs, &geometryLight.aovs})
    for (CameraAOV& aov : *aovs) list.push_back(bufferOf(aov.image.floats));
  list.push_back(bufferOf(pixelNoise.second_moment));
  list.push_back(bufferOf(pixelNoise.passes));
  list.push_back(bufferOf(pixelNoise.converged));
  list.push_back(bufferOf(pixelNoise.stopped));
  list.push_back({reinterpret_cast<char*>(&pixelNoise.active), sizeof pixelNoise.active});
  return list;
}

// What a checkpoint must agree with: the pass count, the frame, the region and the sampler.
std::vector<int32_t> shape(int pass) {
  const Camera& camera = cameras[size_t(renderer.camera)];
  const Region& r = camera.region;
  return {pass, camera.sample, camera.width, camera.height, r.min_x, r.min_y, r.max_x, r.max_y, renderer.sampler,
          int32_t(renderer.seed),
          int32_t(runningSums().size())};
}

template <typename T>
bool readValues(std::istream& in, T* values, size_t count) {
  return bool(in.read(reinterpret_cast<char*>(values), std::streamsize(count * sizeof(T))));
}
}  // namespace

std::string writeCheckpoint(const std::string& path) {
  const std::string partial = path + ".partial";
  {
    std::ofstream out(partial, std::ios::binary | std::ios::trunc);
    out.write(magic, sizeof magic - 1);
    const std::vector<int32_t> header = shape(renderer.pass);
    out.write(reinterpret_cast<const char*>(header.data()), std::streamsize(header.size() * sizeof(int32_t)));
    // The default beauty name holds the time of the run; the resumed run keeps the first one.
    const std::string& beauty = cameras[size_t(renderer.camera)].aovs[0].image.name;
    const uint64_t length = beauty.size();
    out.write(reinterpret_cast<const char*>(&length), sizeof length);
    out.write(beauty.data(), std::streamsize(length));
    for (const Buffer& buffer : runningSums()) {
      out.write(reinterpret_cast<const char*>(&buffer.bytes), sizeof buffer.bytes);
      out.write(buffer.data, std::streamsize(buffer.bytes));
    }
    out.write(magic, sizeof magic - 1);
    out.close();
    if (!out) return "it cannot be written";
  }
  std::error_code error;
  std::filesystem::rename(partial, path, error);
  return error ? "it cannot be renamed from " + partial : "";
}

std::string readCheckpoint(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  char head[sizeof magic - 1];
  if (!readValues(in, head, sizeof head) || std::string(head, sizeof head) != magic)
    return "it is not a checkpoint";
  std::vector<int32_t> header(shape(0).size());
  if (!readValues(in, header.data(), header.size())) return "it is cut short";
  std::vector<int32_t> expected = shape(header[0]);
  if (header != expected || header[0] < 0 || header[0] >= expected[1])
    return "it belongs to a render of another size, region, sample or set of outputs";
  uint64_t length = 0;
  if (!readValues(in, &length, 1) || length > 4096) return "it is cut short";
  std::string beauty(length, ' ');
  if (!readValues(in, beauty.data(), length)) return "it is cut short";
  // All or nothing: the sums are read aside and put in place once all are whole.
  const std::vector<Buffer> buffers = runningSums();
  std::vector<std::vector<char>> sums;
  for (const Buffer& buffer : buffers) {
    uint64_t bytes = 0;
    if (!readValues(in, &bytes, 1) || bytes != buffer.bytes) return "its framebuffers do not fit";
    std::vector<char>& values = sums.emplace_back(bytes);
    if (!readValues(in, values.data(), bytes)) return "it is cut short";
  }
  if (!readValues(in, head, sizeof head) || std::string(head, sizeof head) != magic) return "it is cut short";
  for (size_t i = 0; i < buffers.size(); ++i) std::copy(sums[i].begin(), sums[i].end(), buffers[i].data);
  std::string& name = cameras[size_t(renderer.camera)].aovs[0].image.name;
  if (isDefaultBeautyName(name) && isDefaultBeautyName(beauty)) name = beauty;
  renderer.pass = uint16_t(header[0]);
  return "";
}

void resumeFromCheckpoint() {
  stopped = false;
  lastWrite = clockNanoseconds();
  if (resumePath.empty()) return;
  const std::string problem = readCheckpoint(resumePath);
  if (!problem.empty()) {
    printError("checkpoint - " + resumePath + "\tcannot be resumed: " + problem + "; the render starts afresh");
    renderer.pass = 0;
  }
  resumePath.clear();
}

bool checkpointBetweenPasses() {
  const bool stop = stopRequested.exchange(false);
  const int64_t now = clockNanoseconds();
  const bool due = intervalNanoseconds > 0 && now - lastWrite >= intervalNanoseconds;
  if ((stop || due) && !checkpointPath.empty()) {
    const std::string problem = writeCheckpoint(checkpointPath);
    if (!problem.empty()) printError("checkpoint - " + checkpointPath + "\t" + problem);
    lastWrite = clockNanoseconds();
  }
  stopped = stop;
  return stop;
}

void qzSetCheckpoint(const char* path, float seconds) {
  checkpointPath = path ? path : "";
  intervalNanoseconds = seconds > 0 ? int64_t(double(seconds) * 1e9) : 0;
}

void qzResumeCheckpoint(const char* path) { resumePath = path ? path : ""; }

void qzRequestStop() { stopRequested.store(true); }

bool qzRenderStopped() { return stopped; }
