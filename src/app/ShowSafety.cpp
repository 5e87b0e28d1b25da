#include "app/ShowSafety.h"

#include <ctime>

#include "base/Log.h"
#include "control/QLabOSCServer.h"
#include "net/DatagramEnvelope.h"
#include "net/DatagramRelay.h"
#include "net/SenderAllowList.h"
#include "net/SessionRecorder.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {

namespace {

constexpr std::string_view kComponent = "Velmora";

// Parses a stored allow-list, reporting each malformed entry.
SenderAllowList parsedList(const std::vector<std::string>& entries, const std::string& what) {
  std::vector<std::string> malformed;
  SenderAllowList list = SenderAllowList::parse(entries, &malformed);
  for (const std::string& m : malformed) logLine(kComponent, "Allowed senders for " + what + ": " + m + "; skipped");
  if (!list.acceptsEveryone()) {
    std::string text;
    for (const std::string& e : entries) text += (text.empty() ? "" : ", ") + e;
    logLine(kComponent, (list.blocks().empty() ? "No valid allowed sender for " + what + ": refusing everyone ("
                                               : "Accepting " + what + " only from: ") +
                            text + (list.blocks().empty() ? ")" : ""));
  }
  return list;
}

}  // namespace

ShowSafety::ShowSafety(FaceTrackingState& state, TrackingReceiver& receiver, QLabOSCServer& cueServer)
    : state_(state), receiver_(receiver), cueServer_(cueServer), relay_(std::make_shared<DatagramRelay>()) {}

ShowSafety::~ShowSafety() {
  stopRecording();
  if (observer_) state_.unobserve(observer_);
  receiver_.removeTap(relay_.get());
}

void ShowSafety::start() {
  applyTrackingAllowList();
  applyOscAllowList();
  applyBindAddress(Listener::tracking, false);
  applyBindAddress(Listener::cues, false);
  applyRelayTargets();
  receiver_.addTap(relay_);
  observer_ = state_.observe([this](FaceTrackingState::Property p) { changed(p); });
}

std::optional<std::uint32_t> ShowSafety::parseBindAddress(const std::string& text) {
  if (text.empty()) return 0u;
  return SenderAllowList::parseAddress(text);
}

std::vector<std::uint16_t> ShowSafety::ownPorts() const {
  std::vector<std::uint16_t> ports = receiver_.ports();
  if (state_.oscPort() >= 1 && state_.oscPort() <= 65535) ports.push_back(static_cast<std::uint16_t>(state_.oscPort()));
  return ports;
}

void ShowSafety::applyTrackingAllowList() {
  receiver_.senderFilter().setAllowList(parsedList(state_.trackingAllowedSenders(), "tracking"));
}

void ShowSafety::applyOscAllowList() {
  cueServer_.senderFilter().setAllowList(parsedList(state_.oscAllowedSenders(), "OSC cues"));
}

void ShowSafety::applyBindAddress(Listener listener, bool reopen) {
  const bool tracking = listener == Listener::tracking;
  const std::string text = tracking ? state_.trackingBindAddress() : state_.oscBindAddress();
  auto address = parseBindAddress(text);
  if (!address) {
    logLine(kComponent, std::string(tracking ? "Tracking bind address \"" : "OSC cue bind address \"") + text +
                            "\" is not an IPv4 address; listening on every interface");
    address = 0u;
  } else if (*address != 0) {
    logLine(kComponent, std::string(tracking ? "Tracking listens on " : "OSC cues listen on ") +
                            DatagramEnvelope::addressText(*address) + " only");
  }
  const std::uint32_t previous = tracking ? receiver_.bindAddress() : cueServer_.bindAddress();
  if (tracking) {
    receiver_.setBindAddress(*address);
  } else {
    cueServer_.setBindAddress(*address);
  }
  if (!reopen || previous == *address) return;
  if (tracking) {
    receiver_.stopListening();
    receiver_.startListening();  // on the same queue, after the close
  } else {
    cueServer_.startListening();  // rebinds (shows "disabled" when off)
  }
}

void ShowSafety::applyRelayTargets() { relay_->setTargets(state_.relayTargets(), ownPorts()); }

void ShowSafety::changed(FaceTrackingState::Property property) {
  using P = FaceTrackingState::Property;
  switch (property) {
    case P::trackingAllowedSenders:
      applyTrackingAllowList();
      break;
    case P::oscAllowedSenders:
      applyOscAllowList();
      break;
    case P::trackingBindAddress:
      applyBindAddress(Listener::tracking, true);
      break;
    case P::oscBindAddress:
      applyBindAddress(Listener::cues, true);
      break;
    case P::relayTargets:
    case P::oscPort:
      applyRelayTargets();
      break;
    default:
      break;
  }
}

bool ShowSafety::startRecording(const std::string& path) {
  stopRecording();
  auto created = SessionRecorder::create(path);
  if (!created) {
    recordingFailure_ = "Not recording: " + created.reason;
    logLine(kComponent, recordingFailure_);
    return false;
  }
  recordingFailure_.clear();
  recorder_ = std::shared_ptr<SessionRecorder>(std::move(created.value));
  receiver_.addTap(recorder_);
  return true;
}

void ShowSafety::stopRecording() {
  if (!recorder_) return;
  receiver_.removeTap(recorder_.get());
  recorder_->stop();
  // The last status stays readable until the next start.
}

bool ShowSafety::isRecording() const { return recorder_ && recorder_->status().recording; }

std::string ShowSafety::recordingStatus() const {
  if (!recordingFailure_.empty()) return recordingFailure_;
  if (!recorder_) return "Not recording";
  return recorder_->statusText();
}

std::string ShowSafety::defaultRecordingFile() const {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char name[64];
  std::strftime(name, sizeof name, "velmora-%Y%m%d-%H%M%S.pcap", &local);
  return name;
}

std::vector<std::string> ShowSafety::relayStatus() const {
  std::vector<std::string> lines;
  for (const auto& target : relay_->status()) lines.push_back(target.target + ": " + target.text);
  return lines;
}

std::uint64_t ShowSafety::refusedTracking() const { return receiver_.statistics().refused; }

std::uint64_t ShowSafety::refusedOsc() const { return cueServer_.senderFilter().refusedCount(); }

std::vector<std::string> ShowSafety::malformedSenders(const std::vector<std::string>& entries) const {
  std::vector<std::string> malformed;
  SenderAllowList::parse(entries, &malformed);
  return malformed;
}

bool ShowSafety::isBindAddress(const std::string& text) const { return parseBindAddress(text).has_value(); }

}  // namespace velmora
