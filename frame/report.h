// The console report: aligned rows divided by rules, on standard output.
// Row names carry their own blanks; nothing here pads a name.
#pragma once

#include <atomic>
#include <cstdint>
#include <new>
#include <string>

void printRule();
void printFloatValue(float value, int precision);
void printRow(const std::string& name, float value, const std::string& unit, int precision = 3);
void printIntegerRow(const std::string& name, int64_t value, const std::string& unit);
void printTripleRow(const std::string& name, float a, float b, float c, const std::string& unit);
// Memory of an array: element size, count and mebibytes; nothing when empty.
void printArrayRow(const std::string& name, int64_t elementSize, int64_t count, const std::string& unit);
void printVec3Value(float x, float y, float z);
// With a noise threshold the line also counts the pixels still taking passes.
void printProgress(int percent, float raysPerMicrosecond, int64_t activePixels = -1);
void printWarning(const std::string& message);
void printError(const std::string& message);

// Runs an export's work. An allocation that fails ends that work with the
// error line "<name> - out of memory" rather than the process; what was made
// before it stays.
template <typename Work>
void guardAllocation(const char* name, Work work) {
  try {
    work();
  } catch (const std::bad_alloc&) {
    printError(std::string(name) + " - out of memory");
  }
}

// An exception cannot leave a parallel loop: it would end the process. Inside
// one, each iteration's work runs through `run`, which notes a failed
// allocation and passes over the rest of the loop's work; after the loop,
// `rethrow` hands the failure on to the export's guardAllocation.
struct LoopAllocation {
  std::atomic<bool> failed{false};
  template <typename Work>
  void run(Work work) noexcept {
    if (failed.load(std::memory_order_relaxed)) return;
    try {
      work();
    } catch (const std::bad_alloc&) {
      failed.store(true, std::memory_order_relaxed);
    }
  }
  void rethrow() const {
    if (failed.load()) throw std::bad_alloc();
  }
};
void printBytesRow(const std::string& name, int64_t bytes);

// Monotonic high-resolution clock in nanoseconds.
int64_t clockNanoseconds();
// The processor clock in milliseconds, used to time scene loading.
int64_t processorMilliseconds();
