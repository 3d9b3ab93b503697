// quazel's first step. The renderer and its library are built for processors
// with AVX2, FMA and RDRAND; on one without, they would die of an illegal
// instruction with no word. This file is compiled for any x86-64 processor,
// checks the instructions, and only then starts the renderer, quazel-avx2,
// which lies beside it, in this same process.
#include <cpuid.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {
enum Register { eax, ebx, ecx, edx };

struct Feature {
  const char* name;
  unsigned leaf;
  Register reg;
  unsigned bit;
};

// Every instruction set the build's flags (-mavx2 -mfma -mrdrnd) turn on, the
// ones -mavx2 implies included.
const Feature features[] = {
    {"SSE3", 1, ecx, 0},     {"SSSE3", 1, ecx, 9},  {"SSE4.1", 1, ecx, 19}, {"SSE4.2", 1, ecx, 20},
    {"AVX", 1, ecx, 28},     {"FMA", 1, ecx, 12},   {"AVX2", 7, ebx, 5},    {"RDRAND", 1, ecx, 30},
};

bool hasBit(unsigned leaf, Register reg, unsigned bit) {
  unsigned r[4] = {0, 0, 0, 0};
  if (__get_cpuid_max(0, nullptr) < leaf) return false;
  __cpuid_count(leaf, 0, r[0], r[1], r[2], r[3]);
  return (r[reg] >> bit) & 1;
}

// The processor may have AVX and the system still not save its registers.
bool systemSavesAvxRegisters() {
  if (!hasBit(1, ecx, 27)) return false;  // OSXSAVE
  unsigned low = 0, high = 0;
  __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return (low & 0x6) == 0x6;  // SSE and AVX state
}

// A test hook: QUAZEL_TEST_MISSING_CPU_FEATURE names one feature to treat as missing.
bool forcedMissing(const char* name) {
  const char* forced = std::getenv("QUAZEL_TEST_MISSING_CPU_FEATURE");
  return forced && std::strcmp(forced, name) == 0;
}

// The first feature the processor lacks, or null.
const char* missingFeature() {
  for (const Feature& f : features)
    if (forcedMissing(f.name) || !hasBit(f.leaf, f.reg, f.bit)) return f.name;
  if (forcedMissing("AVX state") || !systemSavesAvxRegisters()) return "AVX state";
  return nullptr;
}
}  // namespace

int main(int, char** argv) {
  if (const char* missing = missingFeature()) {
    std::fprintf(stderr,
                 "quazel: this processor lacks %s, which quazel needs (x86-64 with AVX2, FMA and RDRAND: "
                 "Intel from Haswell, AMD from Excavator and Zen)\n",
                 missing);
    return 2;
  }
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 16);
  if (n <= 0) {
    std::fprintf(stderr, "quazel: cannot find its own path: %s\n", std::strerror(errno));
    return 1;
  }
  self[n] = 0;
  std::strcpy(self + n, "-avx2");
  execv(self, argv);
  std::fprintf(stderr, "quazel: cannot start %s: %s\n", self, std::strerror(errno));
  return 1;
}
