#pragma once
// The show-safety services as the dashboard sees them: the session
// recording, the relay targets' status, the datagrams refused, and the
// checks on what the operator types before it is stored. The application's
// ShowSafety implements it; a dashboard without it (tests, tools) shows the
// recording as unavailable and no counts. The views parse nothing
// themselves: every check goes through here. Main thread.

#include <cstdint>
#include <string>
#include <vector>

namespace velmora {

class ShowSafetyControls {
 public:
  virtual ~ShowSafetyControls() = default;

  // Records every tracking datagram from now on to `path`; false when the
  // file cannot be written (recordingStatus() then says why).
  virtual bool startRecording(const std::string& path) = 0;
  virtual void stopRecording() = 0;
  virtual bool isRecording() const = 0;
  // "Not recording", "Recording: N datagrams to FILE", "Recording stopped:
  // ...", or "Not recording: ..." when it could not start.
  virtual std::string recordingStatus() const = 0;
  // "velmora-YYYYMMDD-HHMMSS.pcap" for the current local time.
  virtual std::string defaultRecordingFile() const = 0;

  // One line per relay target: "host:port: status".
  virtual std::vector<std::string> relayStatus() const = 0;
  // Datagrams refused so far for not being in the allowed senders.
  virtual std::uint64_t refusedTracking() const = 0;
  virtual std::uint64_t refusedOsc() const = 0;

  // The entries of an allow-list as typed that are neither an address nor a
  // CIDR block, each with its reason; empty when all are usable.
  virtual std::vector<std::string> malformedSenders(const std::vector<std::string>& entries) const = 0;
  // A bind address as typed: "" (every interface) or a dotted-quad IPv4 address.
  virtual bool isBindAddress(const std::string& text) const = 0;
};

}  // namespace velmora
