#include "app/NetworkSafety.h"

#include "base/Log.h"
#include "control/QLabOSCServer.h"
#include "net/DatagramEnvelope.h"
#include "net/SenderAllowList.h"
#include "tracking/TrackingReceiver.h"
#include "net/DatagramRelay.h"

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

NetworkSafety::NetworkSafety(FaceTrackingState& state, TrackingReceiver& receiver, QLabOSCServer& cueServer,
                             std::shared_ptr<DatagramRelay> relay)
    : state_(state), receiver_(receiver), cueServer_(cueServer), relay_(std::move(relay)) {
  applyTrackingAllowList();
  applyOscAllowList();
  applyTrackingBindAddress();
  applyOscBindAddress();
  applyRelayTargets();
  receiver_.addTap(relay_);
  observer_ = state_.observe([this](FaceTrackingState::Property p) { changed(p); });
}

NetworkSafety::~NetworkSafety() {
  state_.unobserve(observer_);
  receiver_.removeTap(relay_.get());
}

std::optional<std::uint32_t> NetworkSafety::parseBindAddress(const std::string& text) {
  if (text.empty()) return 0u;
  return SenderAllowList::parseAddress(text);
}

std::vector<std::uint16_t> NetworkSafety::ownPorts() const {
  std::vector<std::uint16_t> ports = receiver_.ports();
  if (state_.oscPort() >= 1 && state_.oscPort() <= 65535) ports.push_back(static_cast<std::uint16_t>(state_.oscPort()));
  return ports;
}

void NetworkSafety::applyTrackingAllowList() {
  receiver_.senderFilter().setAllowList(parsedList(state_.trackingAllowedSenders(), "tracking"));
}

void NetworkSafety::applyOscAllowList() {
  cueServer_.senderFilter().setAllowList(parsedList(state_.oscAllowedSenders(), "OSC cues"));
}

bool NetworkSafety::applyTrackingBindAddress() {
  auto address = parseBindAddress(state_.trackingBindAddress());
  if (!address) {
    logLine(kComponent, "Tracking bind address \"" + state_.trackingBindAddress() +
                            "\" is not an IPv4 address; listening on every interface");
    address = 0u;
  } else if (*address != 0) {
    logLine(kComponent, "Tracking listens on " + DatagramEnvelope::addressText(*address) + " only");
  }
  const bool changedAddress = receiver_.bindAddress() != *address;
  receiver_.setBindAddress(*address);
  return changedAddress;
}

bool NetworkSafety::applyOscBindAddress() {
  auto address = parseBindAddress(state_.oscBindAddress());
  if (!address) {
    logLine(kComponent, "OSC cue bind address \"" + state_.oscBindAddress() +
                            "\" is not an IPv4 address; listening on every interface");
    address = 0u;
  } else if (*address != 0) {
    logLine(kComponent, "OSC cues listen on " + DatagramEnvelope::addressText(*address) + " only");
  }
  const bool changedAddress = cueServer_.bindAddress() != *address;
  cueServer_.setBindAddress(*address);
  return changedAddress;
}

void NetworkSafety::applyRelayTargets() { relay_->setTargets(state_.relayTargets(), ownPorts()); }

void NetworkSafety::changed(FaceTrackingState::Property property) {
  using P = FaceTrackingState::Property;
  switch (property) {
    case P::trackingAllowedSenders:
      applyTrackingAllowList();
      break;
    case P::oscAllowedSenders:
      applyOscAllowList();
      break;
    case P::trackingBindAddress:
      if (applyTrackingBindAddress()) {
        receiver_.stopListening();
        receiver_.startListening();  // on the same queue, after the close
      }
      break;
    case P::oscBindAddress:
      if (applyOscBindAddress()) cueServer_.startListening();  // rebinds (shows "disabled" when off)
      break;
    case P::relayTargets:
    case P::oscPort:
      applyRelayTargets();
      break;
    default:
      break;
  }
}

}  // namespace velmora
