// Checkpoints: what a render needs to go on after it was stopped. The running
// sums of every AOV that grows during the passes, each pixel's noise and pass
// count when sampling adapts, the pass count, and the size they belong to. Photons and patches are not kept: initialisation makes them
// again from the scene, and the same way whenever the sampler is seeded.
#pragma once

#include <string>

// Loads the checkpoint asked for by qzResumeCheckpoint into the prepared
// framebuffers and noise buffers and sets the pass number; one that does not fit the render is
// reported and the render starts from its first pass.
void resumeFromCheckpoint();
// Between passes: writes a checkpoint when the interval is over or a stop was
// asked for. True when the render is to stop now.
bool checkpointBetweenPasses();
// The whole checkpoint in one file: a temporary name, then a rename. Returns what went wrong.
std::string writeCheckpoint(const std::string& path);
// Returns what does not fit, or an empty string when the framebuffers and the pass are set.
std::string readCheckpoint(const std::string& path);
