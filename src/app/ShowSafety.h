#pragma once
// Show safety, one owner: the operator's network safety settings applied to
// both listeners and kept applied when they change (the address each
// listener binds, the sender allow-lists of tracking and of the cue port,
// the relay targets of the phone's stream), and the session recording.
// The headless run's "--record FILE" and the dashboard (through
// ShowSafetyControls) both act here.
//
// Owns the relay: it lives exactly as long as this object, and the tracking
// receiver holds it only as a tap between start() and the destructor. The
// recorder likewise is a tap from startRecording() to stopRecording().
//
// Malformed stored entries are reported (one line each) and skipped; an
// allow-list whose entries are all malformed admits nobody. A malformed
// bind address is reported and every interface is bound, as without one.
// A recording that cannot start is reported and the show goes on without it.
//
// Threads: main thread (an observer of the face tracking state).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tracking/FaceTrackingState.h"
#include "ui/ShowSafetyControls.h"

namespace velmora {

class DatagramRelay;
class QLabOSCServer;
class SessionRecorder;
class TrackingReceiver;

class ShowSafety final : public ShowSafetyControls {
 public:
  // Logs nothing and touches no listener until start().
  ShowSafety(FaceTrackingState& state, TrackingReceiver& receiver, QLabOSCServer& cueServer);
  // Stops a recording still running; the relay stops with this object.
  ~ShowSafety() override;
  ShowSafety(const ShowSafety&) = delete;
  ShowSafety& operator=(const ShowSafety&) = delete;

  // Applies everything once (call before the listeners start) and observes
  // the state from then on. The relay becomes one of the receiver's taps.
  void start();

  // A bind address as stored: "" (every interface, 0) or a dotted-quad IPv4
  // address; none when malformed.
  static std::optional<std::uint32_t> parseBindAddress(const std::string& text);

  // The ports this process listens on: tracking and the cue port (a relay
  // target there on this machine would loop).
  std::vector<std::uint16_t> ownPorts() const;

  // ShowSafetyControls. startRecording stops a running recording first and,
  // when the file cannot be written, logs "[Velmora] Not recording: could
  // not create FILE: reason". stopRecording finishes the file; idempotent.
  bool startRecording(const std::string& path) override;
  void stopRecording() override;
  bool isRecording() const override;
  std::string recordingStatus() const override;
  std::string defaultRecordingFile() const override;
  std::vector<std::string> relayStatus() const override;
  std::uint64_t refusedTracking() const override;
  std::uint64_t refusedOsc() const override;
  std::vector<std::string> malformedSenders(const std::vector<std::string>& entries) const override;
  bool isBindAddress(const std::string& text) const override;

 private:
  // Which listener a bind address is for.
  enum class Listener { tracking, cues };
  void applyTrackingAllowList();
  void applyOscAllowList();
  // Parses the stored address, reports it, hands it to the listener and,
  // when it changed and the listener is open, reopens it there.
  void applyBindAddress(Listener listener, bool reopen);
  void applyRelayTargets();
  void changed(FaceTrackingState::Property property);

  FaceTrackingState& state_;
  TrackingReceiver& receiver_;
  QLabOSCServer& cueServer_;
  std::shared_ptr<DatagramRelay> relay_;
  std::shared_ptr<SessionRecorder> recorder_;
  std::string recordingFailure_;
  int observer_ = 0;
};

}  // namespace velmora
