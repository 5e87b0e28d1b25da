#pragma once
// Answers and follow-ups for show controllers, after the convention the
// cue-playback software uses for its own replies:
//  - every message received on the cue port is answered to its sender with
//    "/reply" + the address as received and one string argument, a JSON
//    object {"address": ..., "status": "ok" | "error", "data": ...}: for a
//    known command the value it governs after it ran, for an unknown
//    address a short reason. Messages whose address begins with "/reply"
//    are never answered, so two devices cannot answer each other forever;
//    refused senders never get this far (the server drops them unread);
//  - "/velmora/state", "/velmora/get s <name>", "/velmora/replyport i <port>",
//    "/velmora/thump" and "/velmora/updates i 1|0" (the catalogue's
//    "Replies & Following" group) run here;
//  - once a tick the change feed's events go to every subscriber.
//
// Nothing here touches a socket: datagrams leave through `send`, which the
// cue server implements by posting them to its queue, so the main thread
// never waits on the network.
//
// Main thread only.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "control/ChangeFeed.h"
#include "control/RemotePeers.h"
#include "osc/OSCMessage.h"
#include "net/UdpListener.h"

namespace velmora {

struct CommandContext;

class RemoteReplies {
 public:
  using Bytes = std::vector<std::uint8_t>;
  // Sends every datagram to every target, in order; called on the main
  // thread, must not block.
  using Send = std::function<void(std::vector<Bytes> datagrams, std::vector<UdpSender> targets)>;

  explicit RemoteReplies(Send send) : send_(std::move(send)) {}

  // One received message: `run` dispatches it (true when a command took
  // it); the reply follows unless the address begins with "/reply".
  // `context.remote` must point here while `run` runs. `now`: cue clock.
  void handle(const OSCMessage& message, const UdpSender& from, CommandContext& context, double now,
              const std::function<bool()>& run);

  // The "Replies & Following" commands, called from their catalogue
  // actions while handle() runs.
  void answerState(const CommandContext& context);
  void answerGet(const OSCMessage& message, const CommandContext& context);
  void setReplyPort(const OSCMessage& message);
  void thump();
  void updates(const OSCMessage& message, const CommandContext& context);

  // Once a tick: drops lapsed subscriptions and sends what changed.
  void tick(const CommandContext& context, double now);

  // For the remote-control panel: one line per subscriber
  // ("a.b.c.d:port -> a.b.c.d:port, 12 s ago"), and the last reply sent
  // ("None" before the first).
  std::vector<std::string> subscriberLines(double now) const;
  const std::string& lastReply() const { return lastReply_; }
  const RemotePeers& peers() const { return peers_; }

  // The reply datagram: "/reply" + address, one string of JSON. `dataJson`
  // is already JSON text.
  static Bytes replyMessage(const std::string& address, bool ok, const std::string& dataJson);
  // What a known command's reply carries in "data" after it ran: the value
  // it governs (one value, or an object of several), the cue started and
  // its duration, or null.
  static std::string governedValue(const std::string& canonicalAddress, const CommandContext& context, double now);

 private:
  void answer(std::string dataJson) { data_ = std::move(dataJson); }
  void refuse(std::string reason);

  Send send_;
  RemotePeers peers_;
  ChangeFeed feed_;
  // The message being handled.
  UdpSender from_;
  double now_ = 0;
  std::optional<std::string> data_;
  bool ok_ = true;
  std::string lastReply_ = "None";
};

}  // namespace velmora
