#include "control/QLabOSCServer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>

#include "base/Clock.h"
#include "base/Log.h"
#include "base/MainQueue.h"
#include "base/MainThreadMailbox.h"
#include "base/SerialQueue.h"
#include "control/OSCCommandCatalog.h"
#include "osc/OSCParser.h"
#include "tracking/FaceTrackingState.h"
#include "net/UdpListener.h"

namespace velmora {

namespace {
const char* const kComponent = "QLabOSCServer";
}  // namespace

struct QLabOSCServer::Impl {
  explicit Impl(MainQueue& mainQueue) : mailbox(mailboxCapacity, mainQueue) {}
  SerialQueue queue{"com.velmora.qlab"};
  // Queue-only from here on. No address-reuse option: a port someone else
  // holds must fail to bind rather than share datagrams with them.
  UdpListener listener{queue.context(), UdpListener::Options{.maxDatagramsPerEvent = maxDatagramsPerEvent,
                                                            .datagramsPerRead = datagramsPerRead}};
  std::array<std::uint8_t, receiveBufferSize * datagramsPerRead> buffer{};
  MainThreadMailbox mailbox;
  SenderFilter filter{kComponent, "OSC"};
  std::uint64_t reportedDrops = 0;
  double lastDropReport = -1e9;
};

QLabOSCServer::QLabOSCServer(CommandContext commands, MainQueue& mainQueue)
    : commands_(std::move(commands)),
      mainQueue_(mainQueue),
      impl_(std::make_unique<Impl>(mainQueue)),
      replies_(std::make_unique<RemoteReplies>(
          [this](std::vector<std::vector<std::uint8_t>> datagrams, std::vector<UdpSender> targets) {
            send(std::move(datagrams), std::move(targets));
          })) {
  enabled_ = commands_.state.isOSCEnabled();
}

QLabOSCServer::~QLabOSCServer() { shutdown(); }

void QLabOSCServer::startListening() {
  VELMORA_ASSERT_MAIN_THREAD();
  FaceTrackingState& state = commands_.state;
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
  enabled_ = commands_.state.isOSCEnabled();
  if (enabled_) {
    startListening();
  } else {
    stopListening();
    setStatus("OSC cues: disabled");
  }
}

void QLabOSCServer::setEnabled(bool enabled) {
  VELMORA_ASSERT_MAIN_THREAD();
  enabled_ = enabled;
  if (enabled) {
    startListening();
  } else if (handlingMessage_) {
    stopAfterReply_ = true;  // "/velmora/osc 0" is answered before the socket closes
  } else {
    stopListening();
  }
}

void QLabOSCServer::setStatus(const std::string& text) {
  if (mainQueue_.isMainThread()) {
    commands_.state.setOscStatus(text);
  } else {
    FaceTrackingState* state = &commands_.state;
    mainQueue_.post([state, text] { state->setOscStatus(text); });
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
  UdpListener::Callbacks callbacks;
  callbacks.onDatagram = [this](std::span<const std::uint8_t> bytes, const UdpSender& from) {
    // A sender outside the allow-list is dropped before its bytes are read.
    if (!impl_->filter.admit(from.address)) return;
    // Each message is its own main-thread call, so a bundle's messages run
    // in bundle order.
    for (const OSCMessage& message : OSCParser::parsePacket(bytes)) {
      impl_->mailbox.post([this, message, from] { handleQLabMessage(message, from); });
    }
  };
  callbacks.onDrained = [this] { reportDrops(); };
  const auto opened = impl_->listener.open(port, impl_->buffer, std::move(callbacks), bindAddress_.load());
  if (opened.failure == UdpListener::Failure::create) {
    setStatus("OSC cues: could not create socket");
    return;
  }
  if (opened.failure == UdpListener::Failure::bind) {
    // Asio's system errors carry the errno value on this platform.
    const std::string reason = bindFailureReason(opened.error.value());
    logLine(kComponent, "Could not bind to port " + std::to_string(port) + ": " + reason);
    setStatus("OSC cues: port " + std::to_string(port) + " " + reason);
    return;
  }
  listeningPort_ = port;
  logLine(kComponent, "QLab Remote Cue listener active on UDP port " + std::to_string(port));
  setStatus("OSC cues: listening on UDP " + std::to_string(port));
}

void QLabOSCServer::closeSocket() {
  impl_->listener.close();  // ends the pending readiness wait
  listeningPort_ = -1;
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
  dispatchAndRecord(message, commands_);
}

bool QLabOSCServer::dispatchAndRecord(const OSCMessage& message, CommandContext& context) {
  const bool handled = OSCCommandCatalog::dispatch(message, context);
  std::string text = message.address + " " + message.printedArguments();
  if (!handled) text += "  (unknown)";
  commands_.state.setLastQLabCommand(text);
  return handled;
}

void QLabOSCServer::handleQLabMessage(const OSCMessage& message, const UdpSender& from) {
  VELMORA_ASSERT_MAIN_THREAD();
  CommandContext context = commands_;
  context.remote = replies_.get();
  handlingMessage_ = true;
  replies_->handle(message, from, context, context.clock(), [&] { return dispatchAndRecord(message, context); });
  handlingMessage_ = false;
  if (stopAfterReply_) {
    stopAfterReply_ = false;
    if (!enabled_) stopListening();  // queued after the reply
  }
}

void QLabOSCServer::tick() {
  VELMORA_ASSERT_MAIN_THREAD();
  replies_->tick(commands_, commands_.clock());
}

void QLabOSCServer::send(std::vector<std::vector<std::uint8_t>> datagrams, std::vector<UdpSender> targets) {
  impl_->queue.post([this, datagrams = std::move(datagrams), targets = std::move(targets)] {
    for (const auto& datagram : datagrams) {
      for (const UdpSender& target : targets) impl_->listener.sendTo(datagram, target);
    }
  });
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

SenderFilter& QLabOSCServer::senderFilter() { return impl_->filter; }

std::uint64_t QLabOSCServer::droppedMessageCount() const { return impl_->mailbox.droppedCount(); }

void QLabOSCServer::waitForQueue() { impl_->queue.sync([] {}); }

void QLabOSCServer::shutdown() {
  impl_->queue.sync([this] { closeSocket(); });
  impl_->queue.stop();
}

}  // namespace velmora
