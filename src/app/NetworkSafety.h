#pragma once
// Applies the operator's network safety settings to the listeners and keeps
// them applied when they change: the address each listener binds, the
// sender allow-lists of the cue port and of tracking, and the relay
// targets of the phone's stream.
//
// Malformed stored entries are reported (one line each) and skipped; an
// allow-list whose entries are all malformed admits nobody. A malformed
// bind address is reported and every interface is bound, as without one.
//
// Threads: main thread (an observer of the face tracking state).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tracking/FaceTrackingState.h"

namespace velmora {

class QLabOSCServer;
class TrackingReceiver;
class DatagramRelay;

class NetworkSafety {
 public:
  // Applies everything once (call before the listeners start) and observes
  // the state from then on. The relay becomes one of the receiver's taps.
  NetworkSafety(FaceTrackingState& state, TrackingReceiver& receiver, QLabOSCServer& cueServer,
                std::shared_ptr<DatagramRelay> relay);
  ~NetworkSafety();
  NetworkSafety(const NetworkSafety&) = delete;
  NetworkSafety& operator=(const NetworkSafety&) = delete;

  // A bind address as stored: "" (every interface) or a dotted-quad IPv4
  // address; none when malformed.
  static std::optional<std::uint32_t> parseBindAddress(const std::string& text);

  // The ports this process listens on: tracking and the cue port (a relay
  // target there on this machine would loop).
  std::vector<std::uint16_t> ownPorts() const;

 private:
  void applyTrackingAllowList();
  void applyOscAllowList();
  // True when the address changed.
  bool applyTrackingBindAddress();
  bool applyOscBindAddress();
  void applyRelayTargets();
  void changed(FaceTrackingState::Property property);

  FaceTrackingState& state_;
  TrackingReceiver& receiver_;
  QLabOSCServer& cueServer_;
  std::shared_ptr<DatagramRelay> relay_;
  int observer_ = 0;
};

}  // namespace velmora
