#include "net/DatagramRelay.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdio>
#include <asio/ip/udp.hpp>
#include <optional>

#include "base/Clock.h"
#include "base/Log.h"
#include "net/LocalAddress.h"
#include "net/RelayTarget.h"

namespace velmora {

namespace {

// The component name in its log lines, which operators and their log filters know.
constexpr std::string_view kComponent = "TrackingRelay";

}  // namespace

struct DatagramRelay::Target {
  std::string text;                   // as the operator wrote it
  std::optional<RelayTarget> parsed;  // none when malformed
  std::vector<std::uint16_t> ownPorts;
  std::unique_ptr<asio::ip::udp::socket> socket;  // connected; none until resolved
  bool refused = false;                           // malformed, or a loop: never sends
  std::string error;                              // the current failure; empty when relaying
  double retryAt = 0.0;                           // next attempt while failing
  double cleanSince = -1.0;                       // first clean send after a failure
  std::uint64_t sent = 0;
  TargetStatus status;  // published copy, under the relay's mutex
};

DatagramRelay::DatagramRelay(double retryInterval) : retryInterval_(retryInterval) {}

std::string DatagramRelay::retryNote() const {
  char seconds[32];
  std::snprintf(seconds, sizeof seconds, "%g", retryInterval_);
  return std::string(" (retrying every ") + seconds + " s)";
}

DatagramRelay::~DatagramRelay() {
  queue_.sync([this] {
    std::lock_guard lock(mutex_);
    targets_.clear();  // closes the sockets while their context still runs
  });
  queue_.stop();
}

void DatagramRelay::setTargets(const std::vector<std::string>& targets, std::vector<std::uint16_t> ownPorts) {
  {
    // From now on datagrams are kept for the new list: they wait in the queue
    // behind the task that resolves it, so none that arrives meanwhile is lost.
    std::lock_guard lock(mutex_);
    relaying_ = !targets.empty();
  }
  queue_.post([this, targets, ownPorts = std::move(ownPorts)] {
    std::vector<std::unique_ptr<Target>> fresh;
    const double now = uptime();
    for (const std::string& text : targets) {
      auto target = std::make_unique<Target>();
      target->text = text;
      target->ownPorts = ownPorts;
      target->status.target = text;
      std::string why;
      target->parsed = RelayTarget::parse(text, &why);
      if (!target->parsed) {
        target->refused = true;
        target->status.text = "malformed: " + why;
        logLine(kComponent, "Relay target \"" + text + "\" is malformed (" + why + "); skipped");
      } else {
        connect(*target, now);
      }
      fresh.push_back(std::move(target));
    }
    std::lock_guard lock(mutex_);
    targets_.swap(fresh);  // the old sockets close when `fresh` goes
  });
}

void DatagramRelay::connect(Target& target, double now) {
  target.socket.reset();
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  const int rc = ::getaddrinfo(target.parsed->host.c_str(), nullptr, &hints, &found);
  if (rc != 0 || !found) {
    markFailed(target, std::string("cannot resolve ") + target.parsed->host + ": " + ::gai_strerror(rc), now);
    return;
  }
  const std::uint32_t address = ntohl(reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr);
  ::freeaddrinfo(found);

  const auto& own = target.ownPorts;
  if (std::find(own.begin(), own.end(), target.parsed->port) != own.end() && isThisMachine(address)) {
    target.refused = true;
    const std::string why = "this machine's port " + std::to_string(target.parsed->port) +
                            " is one of Velmora's own listening ports (it would loop)";
    logLine(kComponent, "Refused relay target " + target.text + ": " + why);
    std::lock_guard lock(mutex_);
    target.status.text = "refused: " + why;
    target.status.ok = false;
    return;
  }

  auto socket = std::make_unique<asio::ip::udp::socket>(queue_.context());
  std::error_code ec;
  socket->open(asio::ip::udp::v4(), ec);
  if (!ec) socket->non_blocking(true, ec);
  // Connected, so that "nobody listens there" comes back as an error.
  if (!ec) socket->connect(asio::ip::udp::endpoint(asio::ip::address_v4(address), target.parsed->port), ec);
  if (ec) {
    markFailed(target, ec.message(), now);
    return;
  }
  target.socket = std::move(socket);
  std::lock_guard lock(mutex_);
  if (target.error.empty()) {
    target.status.text = "waiting for the first datagram";
    target.status.ok = true;
  }
}

void DatagramRelay::markFailed(Target& target, const std::string& reason, double now) {
  if (target.error.empty()) {
    logLine(kComponent, "Relay target " + target.text + ": " + reason + retryNote());
  }
  target.error = reason;
  target.retryAt = now + retryInterval_;
  target.cleanSince = -1.0;
  std::lock_guard lock(mutex_);
  target.status.text = "error: " + reason + retryNote();
  target.status.ok = false;
}

void DatagramRelay::datagramArrived(std::span<const std::uint8_t> payload, const DatagramEnvelope& /*envelope*/) {
  std::lock_guard lock(mutex_);
  if (!relaying_) return;
  if (waiting_.size() >= maxWaiting) {
    ++dropped_;
    return;
  }
  waiting_.emplace_back(payload.begin(), payload.end());
  if (!drainPosted_) {
    drainPosted_ = true;
    queue_.post([this] { drain(); });
  }
}

void DatagramRelay::drain() {
  std::deque<std::vector<std::uint8_t>> batch;
  {
    std::lock_guard lock(mutex_);
    batch.swap(waiting_);
    drainPosted_ = false;
  }
  const double now = uptime();
  for (const auto& payload : batch) {
    for (auto& target : targets_) sendTo(*target, payload, now);
  }
  std::lock_guard lock(mutex_);
  for (auto& target : targets_) {
    target->status.sent = target->sent;
    if (!target->refused && target->error.empty() && target->sent > 0) {
      target->status.text = "relaying (" + std::to_string(target->sent) + " sent)";
      target->status.ok = true;
    }
  }
}

void DatagramRelay::sendTo(Target& target, const std::vector<std::uint8_t>& payload, double now) {
  if (target.refused) return;
  if (!target.error.empty() && now < target.retryAt) return;  // failing: wait for the next attempt
  if (!target.socket) {
    connect(target, now);
    if (!target.socket) return;
  }
  std::error_code ec;
  target.socket->send(asio::buffer(payload), 0, ec);
  if (ec == asio::error::would_block) return;  // the socket's buffer is full: this datagram is skipped
  if (ec) {
    markFailed(target, ec.message(), now);
    return;
  }
  ++target.sent;
  if (!target.error.empty()) {
    // Back only after a whole retry interval without an error, so a target
    // that fails every other datagram (nobody listening) does not flap.
    if (target.cleanSince < 0) target.cleanSince = now;
    if (now - target.cleanSince >= retryInterval_) {
      target.error.clear();
      logLine(kComponent, "Relay target " + target.text + ": relaying again");
    }
  }
}

std::vector<DatagramRelay::TargetStatus> DatagramRelay::status() const {
  std::lock_guard lock(mutex_);
  std::vector<TargetStatus> out;
  for (const auto& target : targets_) out.push_back(target->status);
  return out;
}

std::uint64_t DatagramRelay::droppedCount() const {
  std::lock_guard lock(mutex_);
  return dropped_;
}

void DatagramRelay::waitForQueue() { queue_.sync([] {}); }

}  // namespace velmora
