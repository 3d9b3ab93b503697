#include "tests/test_util.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>

#include <unistd.h>

#include "qz.h"

std::string captureOutput(const std::function<void()>& body) {
  std::cout.flush();
  testing::internal::CaptureStdout();
  body();
  std::cout.flush();
  return testing::internal::GetCapturedStdout();
}

std::string scratchFolder(const std::string& name) {
  // The process id keeps parallel test runs out of each other's folders.
  auto path = std::filesystem::temp_directory_path() / ("quazel-test-" + std::to_string(getpid()) + "-" + name);
  std::filesystem::remove_all(path);
  std::filesystem::create_directories(path);
  return path.string();
}

void quietStartup() { captureOutput([] { qzStartup(); }); }
