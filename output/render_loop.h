// The progressive render: one pass gives every pixel of the region one sample,
// and the beauty image is a valid image after every pass.
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "frame/vec.h"

// One pass into the beauty AOV as a running mean.
void renderPass();
// One pass that hands the colours of the region back, row by row, and adds
// colour / sample to the beauty AOV.
void renderPixels(std::vector<Color3f>& out);
// One pass with its progress line; after the last one, the closing report and
// the saves. Also the idle callback of the preview window.
void progressiveStep();
// A sample holding a NaN or an infinity becomes the error colour; otherwise each
// channel is limited from above by the clamp.
Color3f acceptSample(Color3f L);
// The running mean of pass p: (p old + L) / (p + 1).
Color3f runningMean(Color3f old, Color3f L, int pass);
void readRenderBlock(std::istream& file);
// "random" or "sobol" into the sampler's number; false for any other name.
bool samplerByName(const std::string& name, uint8_t& kind);
