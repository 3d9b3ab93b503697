#include "output/progress.h"

#include <unistd.h>

#include <cinttypes>
#include <cstdio>

#include "qz.h"

namespace {
int firstPassOfRun = 0;
int64_t startOfRun = 0;
int terminalFd = -1, farmFd = -1;
bool terminalLineOpen = false;  // the status line waits for its end of line

std::string clockText(double seconds) {
  if (seconds < 0) return "-:--:--";
  const int64_t s = int64_t(seconds + 0.5);
  char text[32];
  std::snprintf(text, sizeof text, "%" PRId64 ":%02d:%02d", s / 3600, int(s / 60 % 60), int(s % 60));
  return text;
}

// The whole text in one call where it can; a terminal or pipe takes it at once.
void writeAll(int fd, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += size_t(n);
  }
}
}  // namespace

void startProgress(int firstPass, int64_t nanoseconds) {
  firstPassOfRun = firstPass;
  startOfRun = nanoseconds;
}

PassStatus passStatus(int pass, int passes, double raysPerSecond, int64_t nanoseconds) {
  PassStatus status;
  status.pass = pass, status.passes = passes;
  status.rays_per_second = raysPerSecond;
  status.elapsed = double(nanoseconds - startOfRun) * 1e-9;
  // Passes of one scene cost about the same: the mean of this run's passes so far.
  const int done = pass - firstPassOfRun;
  status.left = done > 0 ? status.elapsed / done * (passes - pass) : -1;
  return status;
}

std::string terminalLine(const PassStatus& s) {
  char text[160];
  std::snprintf(text, sizeof text, "pass %d of %d  %.2f M rays/s  elapsed %s  left %s", s.pass, s.passes,
                s.rays_per_second * 1e-6, clockText(s.elapsed).c_str(), clockText(s.left).c_str());
  std::string line = text;
  if (s.active_pixels >= 0) line += "  active pixels " + std::to_string(s.active_pixels);
  return line;
}

std::string farmLine(const PassStatus& s) {
  char text[200];
  std::snprintf(text, sizeof text, "quazel-progress pass=%d passes=%d elapsed=%.1f left=%.1f rays_per_second=%.0f active=%" PRId64,
                s.pass, s.passes, s.elapsed, s.left, s.rays_per_second, s.active_pixels);
  return text;
}

void reportPassStatus(const PassStatus& status) {
  // Carriage return and erase to the end of the line: the line is rewritten in place.
  if (terminalFd >= 0) {
    writeAll(terminalFd, "\r" + terminalLine(status) + "\033[K");
    terminalLineOpen = true;
  }
  if (farmFd >= 0) writeAll(farmFd, farmLine(status) + "\n");
}

void endPassStatus() {
  if (terminalLineOpen) writeAll(terminalFd, "\n");
  terminalLineOpen = false;
}

void qzSetProgressOutput(int fd, int form) {
  if (form == 1) terminalFd = fd;
  if (form == 2) farmFd = fd;
}
