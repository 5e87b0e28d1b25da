#pragma once
// The interactive run's tracking intake: starts the shared TrackingReceiver
// on the configured ports, prints a status line while packets arrive, and
// stops the receiver at shutdown. Main thread.
//
// Ports: 11111, 49983, 39539, or the comma-separated list in the
// environment variable VELMORA_TRACKING_PORTS (tests pick free ports so).

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmora {

class FaceTrackingState;
class TrackingReceiver;

class TrackingIntake {
 public:
  static constexpr double statusInterval = 2.0;  // seconds between status lines, at most

  TrackingIntake(TrackingReceiver& receiver, FaceTrackingState& state);

  // Reads VELMORA_TRACKING_PORTS (a malformed value is logged and ignored)
  // into the receiver's ports, once.
  void configurePorts();
  // configurePorts(), then starts listening.
  void start();
  // Every tick: "[Velmora] tracking: 60.0 packets/s from 127.0.0.1:50000,
  // 1234 received" at most every statusInterval seconds, and only when
  // packets arrived since the last line; while the state says tracking is
  // lost, "[Velmora] Tracking lost (no data for N.N s)" as well, as often.
  // `now` in seconds of uptime. While frames reach the outputs the line goes
  // on with their latency: ", output latency p50 12.5 ms, p99 20.1 ms" and,
  // when a split is set, " (tick wait 8.0 ms + render 4.1 ms)".
  void tick(double now);
  // Closes the sockets and waits until they are closed.
  void stop();

  // The status line (without the "[Velmora] " prefix) for the current state.
  std::string statusLine() const;
  // Main thread. Where the line's latency split comes from: the medians
  // (seconds) of waiting for the tick and of rendering, over the last second.
  void setLatencySplit(std::function<std::pair<double, double>()> split) { latencySplit_ = std::move(split); }

  // "p1,p2,..." with each port 1..65535; none when malformed or empty.
  static std::optional<std::vector<std::uint16_t>> parsePorts(std::string_view text);

 private:
  TrackingReceiver& receiver_;
  FaceTrackingState& state_;
  std::function<std::pair<double, double>()> latencySplit_;
  bool portsConfigured_ = false;
  double lastLineTime_ = -1.0;
  double lastLostLineTime_ = -1.0;  // < 0: not lost at the last tick
  std::uint64_t lastLineCount_ = 0;
};

}  // namespace velmora
