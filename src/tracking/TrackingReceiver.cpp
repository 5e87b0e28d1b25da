#include "tracking/TrackingReceiver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <asio/ip/udp.hpp>
#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>

#include "base/Clock.h"
#include "base/Log.h"
#include "base/Utf8.h"
#include "osc/OSCParser.h"
#include "tracking/MainThreadTrackingSink.h"
#include "tracking/TrackingDecoders.h"

namespace velmora {

namespace {

constexpr std::string_view kComponent = "TrackingReceiver";

}  // namespace

// One open socket and its read-readiness wait. Owned by socketSources_;
// pending waits hold it weakly, so closing the map entry ends them.
struct TrackingReceiver::SocketSource {
  explicit SocketSource(asio::io_context& context) : socket(context) {}
  asio::ip::udp::socket socket;
  int descriptor = -1;
  std::uint16_t port = 0;
};

TrackingReceiver& TrackingReceiver::shared() {
  static TrackingReceiver receiver(std::make_shared<MainThreadTrackingSink>(mainThreadCapacity));
  return receiver;
}

TrackingReceiver::TrackingReceiver(std::shared_ptr<TrackingSink> sink)
    : sink_(std::move(sink)), buffer_(receiveBufferSize, 0) {}

TrackingReceiver::~TrackingReceiver() {
  queue_.sync([this] {
    for (auto& [fd, source] : socketSources_) {
      std::error_code ec;
      source->socket.close(ec);
    }
    socketSources_.clear();
  });
  queue_.stop();
}

std::vector<std::uint16_t> TrackingReceiver::ports() const {
  std::lock_guard lock(portsMutex_);
  return ports_;
}

void TrackingReceiver::setPorts(std::vector<std::uint16_t> ports) {
  std::lock_guard lock(portsMutex_);
  ports_ = std::move(ports);
}

void TrackingReceiver::startListening() {
  for (std::uint16_t port : ports()) {
    queue_.post([this, port] { startListening(port); });
  }
}

void TrackingReceiver::startListening(std::uint16_t port) {
  auto source = std::make_shared<SocketSource>(queue_.context());
  source->port = port;
  std::error_code ec;
  source->socket.open(asio::ip::udp::v4(), ec);
  if (ec) {
    logLine(kComponent, "Failed to create socket for port " + std::to_string(port));
    return;
  }
  const int fd = source->socket.native_handle();
  source->descriptor = fd;

  // Address and port reuse, so that several listeners (or a restarted
  // program) can bind the same port.
  const int yes = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &yes, sizeof yes);
  // Non-blocking, so the drain loop ends when the socket is empty.
  const int flags = ::fcntl(fd, F_GETFL, 0);
  ::fcntl(fd, F_SETFL, (flags < 0 ? 0 : flags) | O_NONBLOCK);

  source->socket.bind(asio::ip::udp::endpoint(asio::ip::address_v4::any(), port), ec);
  if (ec) {
    logLine(kComponent, "Could not bind to port " + std::to_string(port));
    source->socket.close(ec);
    return;
  }
  armWait(source);
  socketSources_[fd] = source;
  logLine(kComponent, "Listening for ARKit facial tracking on UDP port " + std::to_string(port));
}

void TrackingReceiver::armWait(const std::shared_ptr<SocketSource>& source) {
  std::weak_ptr<SocketSource> weak = source;
  source->socket.async_wait(asio::socket_base::wait_read, [this, weak](const std::error_code& ec) {
    auto s = weak.lock();
    if (!s || ec || !s->socket.is_open()) return;  // closed by stopListening
    {
      std::lock_guard lock(statsMutex_);
      ++stats_.readinessEvents;
    }
    try {
      readPackets(s->descriptor, s->port);
    } catch (const std::exception& e) {
      // A datagram that makes a decoder throw is lost; the socket keeps
      // listening.
      logLine(kComponent, std::string("readPackets: dropped a datagram: ") + e.what());
    }
    if (s->socket.is_open()) armWait(s);
  });
}

void TrackingReceiver::stopListening() {
  queue_.post([this] {
    for (auto& [fd, source] : socketSources_) {
      std::error_code ec;
      source->socket.close(ec);  // ends its pending wait and closes the descriptor
    }
    socketSources_.clear();
  });
}

std::vector<std::uint16_t> TrackingReceiver::listeningPorts() {
  std::vector<std::uint16_t> out;
  queue_.sync([&] {
    for (auto& [fd, source] : socketSources_) out.push_back(source->port);
  });
  std::sort(out.begin(), out.end());
  return out;
}

void TrackingReceiver::readPackets(int descriptor, std::uint16_t /*port*/) {
  while (true) {
    sockaddr_in from{};
    socklen_t fromLength = sizeof from;
    const ssize_t n = ::recvfrom(descriptor, buffer_.data(), buffer_.size(), 0,
                                 reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (n < 1) return;  // empty, or an error: wait for the next readiness event
    char address[INET_ADDRSTRLEN] = {0};
    ::inet_ntop(AF_INET, &from.sin_addr, address, sizeof address);
    std::string sender = address;
    sender += ':';
    sender += std::to_string(ntohs(from.sin_port));
    processData(std::span<const std::uint8_t>(buffer_.data(), static_cast<std::size_t>(n)), sender);
  }
}

void TrackingReceiver::countPacket(const std::string& sender) {
  const double now = uptime();
  std::lock_guard lock(statsMutex_);
  ++stats_.packetsReceived;
  if (stats_.lastSender != sender) stats_.lastSender = sender;
  if (rateWindowStart_ < 0) rateWindowStart_ = now;
  ++rateWindowCount_;
  if (now - rateWindowStart_ >= 1.0) {
    stats_.packetsPerSecond = static_cast<double>(rateWindowCount_) / (now - rateWindowStart_);
    rateWindowCount_ = 0;
    rateWindowStart_ = now;
  }
}

void TrackingReceiver::recordFormat(TrackingFormat format) {
  std::lock_guard lock(statsMutex_);
  stats_.lastFormat = format;
}

TrackingReceiver::Statistics TrackingReceiver::statistics() const {
  Statistics copy;
  const double now = uptime();
  {
    std::lock_guard lock(statsMutex_);
    copy = stats_;
    // Before the first whole second, estimate from what arrived so far; when
    // packets stop, let the rate fall instead of keeping the last window's.
    const double elapsed = now - rateWindowStart_;
    if (rateWindowStart_ >= 0 && (elapsed >= 2.0 || (copy.packetsPerSecond == 0.0 && elapsed >= 0.1))) {
      copy.packetsPerSecond = static_cast<double>(rateWindowCount_) / elapsed;
    }
  }
  copy.dropped = sink_ ? sink_->droppedCount() : 0;
  return copy;
}

void TrackingReceiver::processData(std::span<const std::uint8_t> data, const std::string& sender) {
  countPacket(sender);

  // 1. OSC: "#bundle" or a leading "/". A payload the parser rejects goes on
  //    to the other formats.
  const bool bundle = data.size() >= 7 && std::memcmp(data.data(), "#bundle", 7) == 0;
  if (bundle || (!data.empty() && data[0] == '/')) {
    // Same messages and rules as parsePacket + handleOSCMessages, decoded
    // straight from the datagram without copying every address.
    if (auto decoded = decodeOSCPacket(data, sender)) {
      recordFormat(TrackingFormat::osc);
      sink_->deliver(std::move(*decoded));
      return;
    }
  }

  // 2. iFacialMocap text: UTF-8 holding "=" or "|".
  const bool utf8 = isValidUTF8(data);
  const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
  if (utf8 && std::any_of(text.begin(), text.end(), [](char c) { return c == '=' || c == '|'; })) {
    recordFormat(TrackingFormat::iFacialMocap);
    handleIFacialMocap(text, sender);
    return;
  }

  // 3. JSON whose top level is an object. Text that is not UTF-8 cannot be
  //    JSON, so binary packets skip the parse.
  //    Decoded while parsing, as json::parse + handleJSON would.
  if (utf8) {
    if (auto decoded = decodeJSONText(data, sender)) {
      recordFormat(TrackingFormat::json);
      sink_->deliver(std::move(*decoded));
      return;
    }
  }

  // 4. Live Link binary: anything of 244 bytes or more.
  if (handleUnrealLiveLinkBinary(data, sender)) {
    recordFormat(TrackingFormat::liveLink);
    return;
  }

  // 5. Unknown: counted and shown, nothing else changes.
  recordFormat(TrackingFormat::unknown);
  sink_->deliverUnknown(sender);
}

bool TrackingReceiver::handleUnrealLiveLinkBinary(std::span<const std::uint8_t> data, const std::string& sender) {
  auto decoded = decodeUnrealLiveLinkBinary(data, sender);
  if (!decoded) return false;
  sink_->deliver(std::move(*decoded));
  return true;
}

void TrackingReceiver::handleOSCMessages(const std::vector<OSCMessage>& messages, const std::string& sender) {
  sink_->deliver(decodeOSCMessages(messages, sender));
}

void TrackingReceiver::handleIFacialMocap(std::string_view text, const std::string& sender) {
  sink_->deliver(decodeIFacialMocap(text, sender));
}

void TrackingReceiver::handleJSON(const nlohmann::json& object, const std::string& sender) {
  sink_->deliver(decodeJSON(object, sender));
}

}  // namespace velmora
