#pragma once
// One monotonic clock for the whole process ("system uptime", "media time"):
// seconds as double since a process-wide origin taken on first use.
// Wall-clock dates use std::chrono::system_clock.

#include <chrono>

namespace velmora {

using WallTime = std::chrono::system_clock::time_point;

// Seconds since the process-wide monotonic origin. Any thread.
double uptime();

// The current wall-clock date. Any thread.
WallTime wallNow();

}  // namespace velmora
