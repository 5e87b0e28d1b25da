#pragma once
// Show safety: recording the session (a record button, the file and its
// status), how long the phone may be silent before the face eases to
// neutral, the relay targets with each one's status, and the trusted
// senders (allow-lists and bind addresses of tracking and the cue port)
// with how many datagrams were refused. Lists are edited one entry per
// line and stored with Apply. Main thread.

#include <string>
#include <vector>

namespace velmora {

struct DashboardContext;

class SafetyPanel {
 public:
  explicit SafetyPanel(DashboardContext& context);
  void draw();

  // One entry per line, spaces around each trimmed, empty lines dropped.
  static std::vector<std::string> splitLines(const std::string& text);
  static std::string joinLines(const std::vector<std::string>& entries);

  // What Apply does for each list and address: stores it in the state
  // (which persists it and, through the application, applies it).
  void applyRelayTargets(const std::string& text);
  void applyTrackingAllowed(const std::string& text);
  void applyOscAllowed(const std::string& text);

 private:
  void drawRecording();
  void drawTrackingLoss();
  void drawRelay();
  void drawTrustedSenders();

  DashboardContext& context_;
  char recordFile_[512] = {};
  char relayText_[2048] = {};
  char trackingAllowedText_[2048] = {};
  char oscAllowedText_[2048] = {};
  char trackingBind_[64] = {};
  char oscBind_[64] = {};
  bool loaded_ = false;  // the edit fields were filled from the state
};

}  // namespace velmora
