#include "frame/report.h"

#include <chrono>
#include <cmath>
#include <ctime>
#include <iomanip>
#include <iostream>

namespace {
void printUnit(const std::string& unit) {
  if (!unit.empty()) std::cout << "[" << unit << "]";
}
}  // namespace

void printRule() {
  std::cout.flush();
  std::cout << std::string(80, '_') << "\n\n";
  std::cout.flush();
}

void printFloatValue(float value, int precision) {
  std::cout << std::fixed << std::setprecision(precision) << std::setw(10) << value << " ";
}

void printRow(const std::string& name, float value, const std::string& unit, int precision) {
  std::cout << name << " ";
  printFloatValue(value, precision);
  printUnit(unit);
  std::cout << std::endl;
}

void printIntegerRow(const std::string& name, int64_t value, const std::string& unit) {
  std::cout << name << " " << std::setw(10) << value << " ";
  printUnit(unit);
  std::cout << std::endl;
}

void printTripleRow(const std::string& name, float a, float b, float c, const std::string& unit) {
  std::cout << name << " ";
  printFloatValue(a, 3);
  std::cout << " ";
  printFloatValue(b, 3);
  std::cout << " ";
  printFloatValue(c, 3);
  printUnit(unit);
  std::cout << std::endl;
}

void printArrayRow(const std::string& name, int64_t elementSize, int64_t count, const std::string& unit) {
  if (count == 0) return;
  std::cout << name << " " << std::setw(10) << elementSize << " [bytes]" << std::setw(10) << count << " ";
  printFloatValue(float(count * elementSize) / 1048576.0f, 3);
  printUnit(unit);
  std::cout << std::endl;
}

void printBytesRow(const std::string& name, int64_t bytes) {
  printRow(name, float(bytes) * 0x1p-20f, "M bytes", 3);
}

void printVec3Value(float x, float y, float z) {
  // Zero carries the sign "-": only values above 0 get the blank.
  float v[3] = {x, y, z};
  for (int i = 0; i < 3; ++i) {
    const char* sign = v[i] > 0 ? " " : "-";
    if (i == 0)
      std::cout << std::setw(12) << sign;
    else
      std::cout << sign;
    std::cout << std::fabs(v[i]);
    if (i < 2) std::cout << " ";
  }
}

void printProgress(int percent, float raysPerMicrosecond, int64_t activePixels) {
  std::cout << std::setw(3) << percent << "[%]  " << std::fixed << std::setprecision(2) << std::setw(5)
            << raysPerMicrosecond << "[M rays/s] ";
  if (activePixels >= 0) std::cout << activePixels << " [active pixels]";
  std::cout << std::endl;
}

void printWarning(const std::string& message) { std::cout << "warning :( " << message << std::endl; }

void printError(const std::string& message) { std::cout << "error :( " << message << std::endl; }

int64_t clockNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int64_t processorMilliseconds() { return int64_t(std::clock()) * 1000 / CLOCKS_PER_SEC; }
