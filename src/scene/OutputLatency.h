#pragma once
// How far behind the performer the picture is: for each tracking datagram,
// the time from its arrival to the hand-off of the first rendered frame that
// shows it to the outputs, split into waiting for the next tick (arrival to
// frame capture) and rendering (capture to hand-off). Summaries cover a
// sliding window (the last second for the operator's figures).
//
// Threads: record() on the render thread, summary() on any thread; a lock
// guards the samples (a few instructions per call).

#include <cstddef>
#include <deque>
#include <mutex>

namespace velmora {

class OutputLatency {
 public:
  // Samples older than this (seconds) are forgotten; the deque never holds more.
  static constexpr double keepSeconds = 2.0;
  static constexpr std::size_t maxSamples = 4096;

  struct Summary {
    std::size_t count = 0;  // samples in the window
    // Seconds; 0 when count is 0. Percentiles by nearest rank.
    double p50 = 0.0;
    double p99 = 0.0;
    double tickWaitP50 = 0.0;  // arrival to frame capture
    double renderP50 = 0.0;    // frame capture to hand-off
  };

  // Times in seconds on one monotonic clock; arrival <= captured <= handedOff
  // is expected but not required (a negative part is kept as measured).
  void record(double arrival, double captured, double handedOff);
  // The samples handed off within (now - window, now].
  Summary summary(double now, double window = 1.0) const;

 private:
  struct Sample {
    double handedOff, total, tickWait, render;
  };
  mutable std::mutex mutex_;
  std::deque<Sample> samples_;
};

}  // namespace velmora
