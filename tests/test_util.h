// Helpers shared by the tests: capturing the report and scratch folders.
#pragma once

#include <functional>
#include <string>

// Runs `body` and returns everything it printed on standard output.
std::string captureOutput(const std::function<void()>& body);
// A fresh empty folder under the system's temporary directory.
std::string scratchFolder(const std::string& name);
// Runs qzStartup quietly: the tables are built, the banner is swallowed.
void quietStartup();
