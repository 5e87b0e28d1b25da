#pragma once
// Who talks to the cue port: the subscriptions to pushed events and the
// reply ports senders asked for. Plain bookkeeping with the time given in
// seconds (the cue clock); no sockets.
//
// A subscriber is a sender (address and source port) that sent
// "/velmora/updates i 1". Its subscription ends by itself 60 s after the
// last message from that sender (controllers heartbeat with
// "/velmora/thump"), so a controller that went away, or that cannot be
// reached, stops costing a send per event within a minute. At most 32.
//
// A reply port ("/velmora/replyport i <port>") belongs to the sender's
// address, not to its source port: the cue software's clients, and shell
// tools such as oscsend, send from a new port each time while listening on
// one fixed port. Replies and events for that address go there; 0 goes
// back to each message's source port. At most 256 addresses are kept, the
// least recently heard forgotten first.
//
// Main thread only.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "net/UdpListener.h"

namespace velmora {

class RemotePeers {
 public:
  static constexpr std::size_t maxSubscribers = 32;
  static constexpr double subscriptionLifetime = 60.0;  // seconds without a message
  static constexpr std::size_t maxReplyPorts = 256;

  struct Subscriber {
    UdpSender sender;     // who subscribed
    double lastHeard = 0; // seconds
  };

  // Any message from `sender` at `now` keeps its subscription alive.
  void heard(const UdpSender& sender, double now);
  // Subscribes (or renews); false when 32 others are subscribed already.
  bool subscribe(const UdpSender& sender, double now);
  void unsubscribe(const UdpSender& sender);
  bool isSubscribed(const UdpSender& sender) const;
  // Drops the subscriptions lapsed at `now`; returns how many.
  std::size_t expire(double now);
  const std::vector<Subscriber>& subscribers() const { return subscribers_; }

  // 0 clears the address's reply port.
  void setReplyPort(const UdpSender& sender, std::uint16_t port, double now);
  // Where replies and events for `sender` go: its address, at its reply
  // port when one is set, else at its source port.
  UdpSender replyTarget(const UdpSender& sender) const;
  // Each subscriber's reply target, each target once (two subscriptions
  // from one address with one reply port get each event once).
  std::vector<UdpSender> eventTargets() const;

 private:
  struct ReplyPort {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    double lastHeard = 0;
  };
  std::vector<Subscriber> subscribers_;
  std::vector<ReplyPort> replyPorts_;
};

}  // namespace velmora
