#include "shading/image_decode.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "frame/memory_budget.h"

// Long enough for the largest honest texture with its copy through the pipe.
double imageDecodeSeconds = 30;

namespace {

using Clock = std::chrono::steady_clock;

// What the child says before the pixels, if it made any.
struct DecodeAnswer {
  int32_t width, height, channels, depth;
  uint8_t sharedExponent, readable, loaded, unused;
  uint64_t bytes;
};

bool readAll(int fd, void* data, size_t size, Clock::time_point deadline) {
  char* at = static_cast<char*>(data);
  while (size > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd ready{fd, POLLIN, 0};
    const int polled = poll(&ready, 1, int(std::min<int64_t>(left, 1 << 30)));
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) return false;
    const ssize_t n = read(fd, at, std::min<size_t>(size, 1 << 20));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    at += n;
    size -= size_t(n);
  }
  return true;
}

bool writeAll(int fd, const void* data, size_t size) {
  const char* at = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t n = write(fd, at, std::min<size_t>(size, 1 << 20));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    at += n;
    size -= size_t(n);
  }
  return true;
}

[[noreturn]] void decodeInChild(int fd, Image& image, const std::string& path,
                                bool (*decode)(Image&, const std::string&)) {
  // A crash must end this process quietly, not run the parent's handlers
  // (a fuzzer's or a sanitizer's) on a copy of its state.
  for (int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) std::signal(signal, SIG_DFL);
  // The report is the parent's: nothing the decoder or this copy prints belongs in it.
  const int null = open("/dev/null", O_WRONLY);
  if (null >= 0) dup2(null, STDOUT_FILENO), dup2(null, STDERR_FILENO);
  image.loaded = 0;
  DecodeAnswer answer{};
  answer.readable = decode(image, path);
  size_t size = 0;
  const uint8_t* pixels = image.loaded ? pixelBytes(image, size) : nullptr;
  if (pixels) {
    answer = {image.width, image.height, image.channels, image.depth, image.sharedExponent, 1, 1, 0, size};
  }
  const bool sent = writeAll(fd, &answer, sizeof answer) && (!pixels || writeAll(fd, pixels, size));
  // No exit handlers and no flushing of buffers the parent owns.
  _exit(sent ? 0 : 1);
}

// Takes over the child's pixels when its answer describes an image this module
// makes.
bool receivePixels(Image& image, const DecodeAnswer& answer, int fd, Clock::time_point deadline) {
  const bool depthKnown = answer.depth == 8 || answer.depth == 16 || answer.depth == 32 || answer.depth == 64;
  if (answer.width <= 0 || answer.height <= 0 || answer.channels < 1 || answer.channels > 4 || !depthKnown ||
      answer.sharedExponent > 1)
    return false;
  const double expected =
      double(answer.width) * answer.height * (answer.sharedExponent ? 4.0 : answer.channels * (answer.depth / 8.0));
  if (double(answer.bytes) != expected || !fitsInMemory(expected)) return false;
  Image received;
  received.name = image.name;
  received.packFloats = image.packFloats;
  allocateImage(received, answer.width, answer.height, answer.channels, answer.depth, answer.sharedExponent);
  size_t size = 0;
  uint8_t* pixels = pixelBytes(received, size);
  if (!pixels || size != answer.bytes || !readAll(fd, pixels, size, deadline)) return false;
  received.loaded = 1;
  image = std::move(received);
  return true;
}

int64_t fileLength(const std::string& path) {
  std::error_code error;
  const uintmax_t length = std::filesystem::file_size(path, error);
  return error ? 0 : int64_t(length);
}

}  // namespace

bool soundRadianceHeader(const std::string& path) {
  FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  char line[4096];
  bool sound = std::fgets(line, sizeof line, file) && line[0] == '#' && line[1] == '?';
  // Header lines run to the first empty one; a header that never ends is
  // refused.
  int lines = 0;
  while (sound && std::fgets(line, sizeof line, file) && std::strcmp(line, "\n") != 0 && std::strcmp(line, "\r\n") != 0)
    sound = ++lines < 1024;
  long height = 0, width = 0;
  int end = 0;
  char yDigits[16] = "", xDigits[16] = "";
  // Only the orientation the decoder reads, with sizes of at most seven digits.
  sound = sound && std::fgets(line, sizeof line, file) &&
          std::sscanf(line, "-Y %7[0-9] +X %7[0-9]%n", yDigits, xDigits, &end) == 2 &&
          (line[end] == '\n' || line[end] == '\r' || line[end] == '\0');
  if (sound) {
    height = std::strtol(yDigits, nullptr, 10), width = std::strtol(xDigits, nullptr, 10);
    // The decoder makes 12 bytes a pixel.
    sound = height > 0 && width > 0 && double(width) * height * 12 <= believableDecodedBytes(fileLength(path));
  }
  std::fclose(file);
  return sound;
}

uint8_t* pixelBytes(Image& image, size_t& size) {
  auto bytesOf = [&](auto& array) {
    size = array.size() * sizeof(array[0]);
    return array.empty() ? nullptr : reinterpret_cast<uint8_t*>(array.data());
  };
  if (image.sharedExponent) return bytesOf(image.shared);
  switch (image.depth) {
    case 1: return bytesOf(image.bits);
    case 8: return bytesOf(image.bytes);
    case 16: return bytesOf(image.words);
    case 32: return bytesOf(image.floats);
    case 64: return bytesOf(image.doubles);
  }
  size = 0;
  return nullptr;
}

bool decodeContained(Image& image, const std::string& path, bool (*decode)(Image&, const std::string&)) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    decodeInChild(fds[1], image, path, decode);
  }
  close(fds[1]);
  if (child < 0) {
    // No process to spare: decode here, as an unguarded load would.
    close(fds[0]);
    return decode(image, path);
  }
  const Clock::time_point deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(imageDecodeSeconds));
  DecodeAnswer answer{};
  bool readable = readAll(fds[0], &answer, sizeof answer, deadline) && answer.readable == 1;
  if (readable && answer.loaded) readable = receivePixels(image, answer, fds[0], deadline);
  close(fds[0]);
  // The child is done or is given up; either way it is reaped here.
  if (!readable) kill(child, SIGKILL);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return readable;
}
