#include "control/RemotePeers.h"

#include <algorithm>

namespace velmora {

namespace {
bool same(const UdpSender& a, const UdpSender& b) { return a.address == b.address && a.port == b.port; }
}  // namespace

void RemotePeers::heard(const UdpSender& sender, double now) {
  for (auto& s : subscribers_) {
    if (same(s.sender, sender)) s.lastHeard = now;
  }
  for (auto& r : replyPorts_) {
    if (r.address == sender.address) r.lastHeard = now;
  }
}

bool RemotePeers::subscribe(const UdpSender& sender, double now) {
  expire(now);
  for (auto& s : subscribers_) {
    if (same(s.sender, sender)) {
      s.lastHeard = now;
      return true;
    }
  }
  if (subscribers_.size() >= maxSubscribers) return false;
  subscribers_.push_back({sender, now});
  return true;
}

void RemotePeers::unsubscribe(const UdpSender& sender) {
  std::erase_if(subscribers_, [&](const Subscriber& s) { return same(s.sender, sender); });
}

bool RemotePeers::isSubscribed(const UdpSender& sender) const {
  return std::any_of(subscribers_.begin(), subscribers_.end(),
                     [&](const Subscriber& s) { return same(s.sender, sender); });
}

std::size_t RemotePeers::expire(double now) {
  return std::erase_if(subscribers_,
                       [&](const Subscriber& s) { return now - s.lastHeard > subscriptionLifetime; });
}

void RemotePeers::setReplyPort(const UdpSender& sender, std::uint16_t port, double now) {
  std::erase_if(replyPorts_, [&](const ReplyPort& r) { return r.address == sender.address; });
  if (port == 0) return;
  if (replyPorts_.size() >= maxReplyPorts) {
    const auto oldest = std::min_element(replyPorts_.begin(), replyPorts_.end(), [](const auto& a, const auto& b) {
      return a.lastHeard < b.lastHeard;
    });
    replyPorts_.erase(oldest);
  }
  replyPorts_.push_back({sender.address, port, now});
}

UdpSender RemotePeers::replyTarget(const UdpSender& sender) const {
  for (const auto& r : replyPorts_) {
    if (r.address == sender.address) return {sender.address, r.port};
  }
  return sender;
}

std::vector<UdpSender> RemotePeers::eventTargets() const {
  std::vector<UdpSender> out;
  out.reserve(subscribers_.size());
  for (const auto& s : subscribers_) {
    const UdpSender target = replyTarget(s.sender);
    if (std::none_of(out.begin(), out.end(), [&](const UdpSender& t) { return same(t, target); })) {
      out.push_back(target);
    }
  }
  return out;
}

}  // namespace velmora
