#include "control/RemoteReplies.h"

#include <cmath>
#include <nlohmann/json.hpp>
#include <string_view>
#include <unordered_map>

#include "animation/CharacterAnimationController.h"
#include "control/CommandContext.h"
#include "control/OSCCommandCatalog.h"
#include "control/RemoteValues.h"
#include "osc/OSCWriter.h"

namespace velmora {

namespace {

bool beginsWithReply(std::string_view address) {
  constexpr std::string_view reply = "/reply";
  if (address.size() < reply.size()) return false;
  for (std::size_t i = 0; i < reply.size(); ++i) {
    const char c = address[i];
    if ((c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c) != reply[i]) return false;
  }
  return true;
}

std::string jsonString(std::string_view text) { return nlohmann::json(std::string(text)).dump(); }

// The values each command governs, by canonical address (names of
// RemoteValues; "lighting" is the whole record). Cue commands are handled
// apart; a command not listed governs nothing shown (its data is null).
const std::unordered_map<std::string, std::vector<std::string>>& governed() {
  static const std::unordered_map<std::string, std::vector<std::string>> table = {
      {"/velmora/reset", {"sensitivity", "smoothing", "opacity", "cue"}},
      {"/velmora/sensitivity", {"sensitivity"}},
      {"/velmora/smoothing", {"smoothing"}},
      {"/velmora/lockrotation", {"lock"}},
      {"/velmora/model", {"character"}},
      {"/velmora/ghost", {"character"}},
      {"/velmora/theatricalmask", {"character"}},
      {"/velmora/opacity", {"opacity"}},
      {"/velmora/syphon", {"syphon"}},
      {"/velmora/ndi", {"ndi"}},
      {"/velmora/osc", {"osc"}},
      {"/velmora/lighting", {"master"}},
      {"/velmora/lighting/preset", {"lighting"}},
      {"/velmora/lighting/key", {"lighting"}},
      {"/velmora/lighting/fill", {"lighting"}},
      {"/velmora/lighting/rim", {"lighting"}},
      {"/velmora/lighting/ambient", {"lighting"}},
      {"/velmora/lighting/keyheight", {"lighting"}},
      {"/velmora/lighting/keyside", {"lighting"}},
      {"/velmora/lighting/warmth", {"lighting"}},
      {"/velmora/lighting/shadow", {"lighting"}},
      {"/velmora/lighting/reset", {"lighting", "master"}},
      {"/velmora/ghost/reset", {"cue"}},
      {"/velmora/mask/reset", {"cue"}},
  };
  return table;
}

}  // namespace

RemoteReplies::Bytes RemoteReplies::replyMessage(const std::string& address, bool ok, const std::string& dataJson) {
  std::string body = "{\"address\":" + jsonString(address) + ",\"status\":\"" + (ok ? "ok" : "error") +
                     "\",\"data\":" + dataJson + "}";
  return OSCWriter::message("/reply" + address).s(body).bytes();
}

std::string RemoteReplies::governedValue(const std::string& canonicalAddress, const CommandContext& context,
                                         double now) {
  const bool cueCommand =
      canonicalAddress.starts_with("/velmora/ghost/") || canonicalAddress.starts_with("/velmora/mask/");
  if (cueCommand && !governed().contains(canonicalAddress)) {
    const auto& cues = context.cues;
    if (!cues.activeCue()) return "null";
    const double duration = cues.activeCue()->duration();
    return "{\"cue\":" + jsonString(cues.activeCueName()) +
           ",\"duration\":" + nlohmann::json(std::isfinite(duration) ? duration : 0.0).dump() + "}";
  }
  const auto it = governed().find(canonicalAddress);
  if (it == governed().end()) return "null";
  const auto values = RemoteValues::read(context, now);
  if (it->second.size() == 1) return RemoteValues::valueJson(values, it->second.front()).value_or("null");
  std::string out = "{";
  for (const std::string& name : it->second) {
    if (out.size() > 1) out += ",";
    out += jsonString(name) + ":" + RemoteValues::valueJson(values, name).value_or("null");
  }
  return out + "}";
}

void RemoteReplies::handle(const OSCMessage& message, const UdpSender& from, CommandContext& context, double now,
                           const std::function<bool()>& run) {
  from_ = from;
  now_ = now;
  data_.reset();
  ok_ = true;
  peers_.heard(from, now);
  const bool handled = run();
  if (beginsWithReply(message.address)) return;
  std::string data;
  if (!handled) {
    ok_ = false;
    data = jsonString("unknown address");
  } else if (data_) {
    data = *data_;
  } else {
    const OSCCommand* command = OSCCommandCatalog::find(message.address);
    data = command ? governedValue(command->address, context, now) : "null";
  }
  const UdpSender target = peers_.replyTarget(from);
  lastReply_ = "/reply" + message.address + " " + (ok_ ? "ok" : "error") + " to " + target.text();
  send_({replyMessage(message.address, ok_, data)}, {target});
}

void RemoteReplies::refuse(std::string reason) {
  ok_ = false;
  data_ = jsonString(reason);
}

void RemoteReplies::answerState(const CommandContext& context) {
  answer(RemoteValues::stateJson(RemoteValues::read(context, now_)));
}

void RemoteReplies::answerGet(const OSCMessage& message, const CommandContext& context) {
  const auto name = message.stringValue();
  if (!name) return refuse("give a value's name, e.g. /velmora/get s sensitivity");
  const auto value = RemoteValues::valueJson(RemoteValues::read(context, now_), *name);
  if (!value) return refuse("no value named " + *name);
  answer(*value);
}

void RemoteReplies::setReplyPort(const OSCMessage& message) {
  const auto port = message.floatValue();
  if (!port || !(*port >= 0 && *port <= 65535)) return refuse("give a port 1..65535, or 0 for the source port");
  peers_.setReplyPort(from_, static_cast<std::uint16_t>(*port), now_);
  answer(std::to_string(static_cast<int>(*port)));
}

void RemoteReplies::thump() { answer(jsonString("thump")); }

void RemoteReplies::updates(const OSCMessage& message, const CommandContext& context) {
  const auto on = message.boolValue();
  if (on && *on) {
    // The first subscriber takes the baseline now, so a change made right
    // after the subscription is announced.
    if (peers_.subscribers().empty()) {
      feed_.reset();
      feed_.poll(context, now_);
    }
    if (!peers_.subscribe(from_, now_)) {
      return refuse("already " + std::to_string(RemotePeers::maxSubscribers) + " subscribers");
    }
  } else if (on) {
    peers_.unsubscribe(from_);
  }
  answer(peers_.isSubscribed(from_) ? "true" : "false");
}

void RemoteReplies::tick(const CommandContext& context, double now) {
  peers_.expire(now);
  if (peers_.subscribers().empty()) {
    feed_.reset();
    return;
  }
  auto events = feed_.poll(context, now);
  if (!events.empty()) send_(std::move(events), peers_.eventTargets());
}

std::vector<std::string> RemoteReplies::subscriberLines(double now) const {
  std::vector<std::string> out;
  for (const auto& s : peers_.subscribers()) {
    out.push_back(s.sender.text() + " -> " + peers_.replyTarget(s.sender).text() + ", " +
                  std::to_string(static_cast<int>(now - s.lastHeard)) + " s ago");
  }
  return out;
}

}  // namespace velmora
