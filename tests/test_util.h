// Helpers shared by the tests: capturing the report and scratch folders.
#pragma once

#include <functional>
#include <string>

#include "frame/vec.h"
#include "shading/image.h"

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
// How many times `part` occurs in `text`, overlaps included.
size_t occurrences(const std::string& text, const std::string& part);
// A float image in memory, each pixel the colour at its centre's (u, v), u across and v down.
Image colourImage(int width, int height, const std::function<Color3f(float u, float v)>& color);
