// Helpers shared by the tests: capturing the report and scratch folders.
#pragma once

#include <functional>
#include <string>

#include "frame/vec.h"

constexpr float testPi = 3.14159265f;

// Runs `body` and returns everything it printed on standard output.
std::string captureOutput(const std::function<void()>& body);
// A fresh empty folder under the system's temporary directory.
std::string scratchFolder(const std::string& name);
// Runs qzStartup quietly: the tables are built, the banner is swallowed.
void quietStartup();
// Every component within `tolerance` of the expected one.
void expectColorNear(Color3f c, Color3f expected, float tolerance = 1e-6f);
void expectVecNear(Vec3f v, Vec3f expected, float tolerance = 1e-5f);
