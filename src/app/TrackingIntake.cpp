#include "app/TrackingIntake.h"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "base/Log.h"
#include "tracking/FaceTrackingState.h"
#include "tracking/TrackingLossEase.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {

TrackingIntake::TrackingIntake(TrackingReceiver& receiver, FaceTrackingState& state)
    : receiver_(receiver), state_(state) {}

std::optional<std::vector<std::uint16_t>> TrackingIntake::parsePorts(std::string_view text) {
  std::vector<std::uint16_t> ports;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find(',', start);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view item = text.substr(start, end - start);
    unsigned value = 0;
    auto r = std::from_chars(item.data(), item.data() + item.size(), value);
    if (item.empty() || r.ec != std::errc() || r.ptr != item.data() + item.size() || value < 1 || value > 65535) {
      return std::nullopt;
    }
    ports.push_back(static_cast<std::uint16_t>(value));
    start = end + 1;
  }
  if (ports.empty()) return std::nullopt;
  return ports;
}

void TrackingIntake::configurePorts() {
  if (portsConfigured_) return;
  portsConfigured_ = true;
  if (const char* env = std::getenv("VELMORA_TRACKING_PORTS"); env && *env) {
    if (auto ports = parsePorts(env)) {
      receiver_.setPorts(*ports);
    } else {
      logLine("Velmora", std::string("VELMORA_TRACKING_PORTS=\"") + env +
                             "\" is not a comma-separated list of ports 1..65535; using the default ports");
    }
  }
}

void TrackingIntake::start() {
  configurePorts();
  receiver_.startListening();
}

std::string TrackingIntake::statusLine() const {
  const auto stats = receiver_.statistics();
  char rate[32];
  std::snprintf(rate, sizeof rate, "%.1f", stats.packetsPerSecond);
  // The state's sender text already carries " (Unknown format)" for a
  // datagram in no known format.
  std::string line = std::string("tracking: ") + rate + " packets/s from " + state_.senderIP() + ", " +
                     std::to_string(state_.totalPacketsReceived()) + " received";
  if (stats.dropped > 0) line += ", " + std::to_string(stats.dropped) + " dropped under load";
  if (stats.refused > 0) line += ", " + std::to_string(stats.refused) + " refused (not in the allowed senders)";
  if (state_.outputLatencyP99() > 0.0) {
    char latency[128];
    std::snprintf(latency, sizeof latency, ", output latency p50 %.1f ms, p99 %.1f ms", state_.outputLatencyP50(),
                  state_.outputLatencyP99());
    line += latency;
    if (latencySplit_) {
      const auto [wait, render] = latencySplit_();
      std::snprintf(latency, sizeof latency, " (tick wait %.1f ms + render %.1f ms)", wait * 1e3, render * 1e3);
      line += latency;
    }
  }
  return line;
}

void TrackingIntake::tick(double now) {
  if (state_.isTrackingLost()) {
    if (lastLostLineTime_ < 0 || now - lastLostLineTime_ >= statusInterval) {
      const auto since = state_.trackingLostSince().value_or(wallNow());
      logLine("Velmora", TrackingLossEase::lostText(std::chrono::duration<double>(wallNow() - since).count()));
      lastLostLineTime_ = now;
    }
  } else {
    lastLostLineTime_ = -1.0;
  }
  // Datagrams in no known format still count (they do not end the loss).
  const std::uint64_t count = state_.totalPacketsReceived();
  if (count == lastLineCount_) return;
  if (lastLineTime_ < 0) {
    // First packets: the first line comes one second later, when the rate
    // has been measured over a whole second.
    lastLineTime_ = now - statusInterval + 1.0;
    return;
  }
  if (now - lastLineTime_ < statusInterval) return;
  logLine("Velmora", statusLine());
  lastLineTime_ = now;
  lastLineCount_ = count;
}

void TrackingIntake::stop() {
  receiver_.stopListening();
  receiver_.queue().sync([] {});
}

}  // namespace velmora
