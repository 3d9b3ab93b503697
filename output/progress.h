// The status of a running render for people and farm managers: pass k of N,
// rays per second, the time so far and an estimate of the time left, from
// this run's own passes. The console report keeps its own progress rows.
#pragma once

#include <cstdint>
#include <string>

struct PassStatus {
  int pass = 0, passes = 0;    // passes done of the planned count
  double rays_per_second = 0;
  double elapsed = 0, left = 0;  // seconds of this run; left < 0: not known yet
  int64_t active_pixels = -1;    // -1: every pixel is sampled each pass
};

// This run starts at pass `firstPass` at time `nanoseconds` (a resumed run starts past 0).
void startProgress(int firstPass, int64_t nanoseconds);
// The status once `pass` passes of `passes` are done, at time `nanoseconds`.
PassStatus passStatus(int pass, int passes, double raysPerSecond, int64_t nanoseconds);
// "pass 12 of 64  1.23 M rays/s  elapsed 0:00:12  left 0:00:48" for a terminal.
std::string terminalLine(const PassStatus& status);
// "quazel-progress pass=12 passes=64 elapsed=12.0 left=48.0 rays_per_second=1230000 active=-1"
std::string farmLine(const PassStatus& status);
// Writes the status to the outputs the host asked for.
void reportPassStatus(const PassStatus& status);
// Ends the terminal's status line once the render ends, whichever pass it ends on.
void endPassStatus();
