// What every fuzz target needs: a private scratch folder in memory, files
// written into it, and a report that goes nowhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Created on first use, removed when the process ends.
const std::string& scratchFolder();
void writeFile(const std::string& path, const uint8_t* data, size_t size);
// Standard output goes to /dev/null; the fuzzer talks on standard error.
void muteReport();
