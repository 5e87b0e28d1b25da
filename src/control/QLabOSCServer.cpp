#include "control/QLabOSCServer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <span>
#include <vector>

#include "base/Clock.h"
#include "base/Log.h"
#include "base/MainQueue.h"
#include "base/MainThreadMailbox.h"
#include "base/SerialQueue.h"
#include "control/OSCCommandCatalog.h"
#include "osc/OSCParser.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

namespace {
const char* const kComponent = "QLabOSCServer";
// Datagrams read per readiness event before the queue runs other work (a
// stop, a rebind); the source fires again at once while data is waiting.
constexpr int kMaxDatagramsPerEvent = 256;
}  // namespace

struct QLabOSCServer::Impl {
  SerialQueue queue{"com.velmora.qlab"};
  // Queue-only from here on.
  std::unique_ptr<asio::ip::udp::socket> socket;
  std::uint64_t generation = 0;  // bumped by every close: stale readiness events are ignored
  std::array<std::uint8_t, receiveBufferSize> buffer{};
  MainThreadMailbox mailbox{mailboxCapacity};
  std::uint64_t reportedDrops = 0;
  double lastDropReport = -1e9;
};

QLabOSCServer& QLabOSCServer::shared() {
  static QLabOSCServer server;
  return server;
}

QLabOSCServer::QLabOSCServer() : impl_(std::make_unique<Impl>()) {
  FaceTrackingState& state = FaceTrackingState::shared();
  enabled_ = state.isOSCEnabled();
  // The setter has stored the flag (and shown "OSC cues: disabled" when
  // switched off) before it calls this.
  state.setOSCServerControl([this](bool enabled) {
    enabled_ = enabled;
    if (enabled) {
      startListening();
    } else {
      stopListening();
    }
  });
}

QLabOSCServer::~QLabOSCServer() { shutdown(); }

void QLabOSCServer::startListening() {
  VELMORA_ASSERT_MAIN_THREAD();
  FaceTrackingState& state = FaceTrackingState::shared();
  enabled_ = state.isOSCEnabled();
  if (!enabled_) {
    setStatus("OSC cues: disabled");
    return;
  }
  const auto port = static_cast<std::uint16_t>(std::clamp<long long>(state.oscPort(), 0, 65535));
  impl_->queue.post([this, port] { open(port); });
}

void QLabOSCServer::stopListening() {
  impl_->queue.post([this] { closeSocket(); });
}

void QLabOSCServer::restart() { startListening(); }

void QLabOSCServer::updateActiveState() {
  VELMORA_ASSERT_MAIN_THREAD();
  enabled_ = FaceTrackingState::shared().isOSCEnabled();
  if (enabled_) {
    startListening();
  } else {
    stopListening();
    setStatus("OSC cues: disabled");
  }
}

void QLabOSCServer::setStatus(const std::string& text) {
  if (MainQueue::shared().isMainThread()) {
    FaceTrackingState::shared().setOscStatus(text);
  } else {
    MainQueue::shared().post([text] { FaceTrackingState::shared().setOscStatus(text); });
  }
}

void QLabOSCServer::open(std::uint16_t port) {
  closeSocket();
  if (!enabled_) {
    setStatus("OSC cues: disabled");
    return;
  }
  if (port == reservedQLabPort) {
    setStatus("OSC cues: port 53000 is QLab's own port, choose another");
    return;
  }
  // The first socket also creates the queue's reactor (an epoll and an
  // eventfd), which throws rather than reporting when no descriptor is left.
  std::unique_ptr<asio::ip::udp::socket> socket;
  asio::error_code ec;
  try {
    socket = std::make_unique<asio::ip::udp::socket>(impl_->queue.context());
    socket->open(asio::ip::udp::v4(), ec);
  } catch (const std::exception&) {
    ec = asio::error::no_descriptors;
  }
  if (ec) {
    setStatus("OSC cues: could not create socket");
    return;
  }
  socket->non_blocking(true, ec);
  // Wildcard address, no address-reuse option: a port someone else holds
  // must fail here rather than share datagrams with them.
  socket->bind(asio::ip::udp::endpoint(asio::ip::address_v4::any(), port), ec);
  if (ec) {
    // Asio's system errors carry the errno value on this platform.
    const std::string reason = bindFailureReason(ec.value());
    logLine(kComponent, "Could not bind to port " + std::to_string(port) + ": " + reason);
    setStatus("OSC cues: port " + std::to_string(port) + " " + reason);
    asio::error_code ignored;
    socket->close(ignored);
    return;
  }
  impl_->socket = std::move(socket);
  listeningPort_ = port;
  armReadSource();
  logLine(kComponent, "QLab Remote Cue listener active on UDP port " + std::to_string(port));
  setStatus("OSC cues: listening on UDP " + std::to_string(port));
}

void QLabOSCServer::closeSocket() {
  ++impl_->generation;
  if (impl_->socket) {
    asio::error_code ignored;
    impl_->socket->close(ignored);  // cancels the pending readiness wait
    impl_->socket.reset();
  }
  listeningPort_ = -1;
}

void QLabOSCServer::armReadSource() {
  if (!impl_->socket) return;
  const std::uint64_t generation = impl_->generation;
  impl_->socket->async_wait(asio::ip::udp::socket::wait_read,
                            [this, generation](const asio::error_code& ec) {
                              if (ec || generation != impl_->generation || !impl_->socket) return;
                              readPackets();
                              armReadSource();
                            });
}

void QLabOSCServer::readPackets() {
  if (!impl_->socket) return;
  asio::ip::udp::endpoint sender;  // captured, not used
  for (int i = 0; i < kMaxDatagramsPerEvent; ++i) {
    asio::error_code ec;
    const std::size_t n = impl_->socket->receive_from(asio::buffer(impl_->buffer), sender, 0, ec);
    if (ec || n == 0) break;
    const auto messages = OSCParser::parsePacket(std::span<const std::uint8_t>(impl_->buffer.data(), n));
    for (const OSCMessage& message : messages) {
      impl_->mailbox.post([this, message] { handleQLabMessage(message); });
    }
  }
  reportDrops();
}

void QLabOSCServer::reportDrops() {
  const std::uint64_t dropped = impl_->mailbox.droppedCount();
  if (dropped == impl_->reportedDrops) return;
  const double now = uptime();
  if (now - impl_->lastDropReport < 1.0) return;  // at most one line a second under a flood
  impl_->lastDropReport = now;
  impl_->reportedDrops = dropped;
  logLine(kComponent, "Main thread busy: dropped " + std::to_string(dropped) + " OSC messages so far");
}

void QLabOSCServer::handleQLabMessage(const OSCMessage& message) {
  VELMORA_ASSERT_MAIN_THREAD();
  const bool handled = OSCCommandCatalog::dispatch(message);
  std::string text = message.address + " " + message.printedArguments();
  if (!handled) text += "  (unknown)";
  FaceTrackingState::shared().setLastQLabCommand(text);
}

std::string QLabOSCServer::bindFailureReason(int errorNumber) {
  if (errorNumber == EADDRINUSE) return "already in use by another app";
  return "bind failed (errno " + std::to_string(errorNumber) + ")";
}

std::optional<std::uint16_t> QLabOSCServer::listeningPort() const {
  const int port = listeningPort_.load();
  if (port < 0) return std::nullopt;
  return static_cast<std::uint16_t>(port);
}

std::uint64_t QLabOSCServer::droppedMessageCount() const { return impl_->mailbox.droppedCount(); }

void QLabOSCServer::waitForQueue() { impl_->queue.sync([] {}); }

void QLabOSCServer::shutdown() {
  impl_->queue.sync([this] { closeSocket(); });
  impl_->queue.stop();
}

}  // namespace velmora
