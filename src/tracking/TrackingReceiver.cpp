#include "tracking/TrackingReceiver.h"

#include <algorithm>
#include <chrono>
#include <exception>

#include "base/Clock.h"
#include "base/Log.h"
#include "net/LocalAddress.h"
#include "tracking/MainThreadTrackingSink.h"
#include "tracking/TrackingDecoders.h"

namespace velmora {

namespace {

constexpr std::string_view kComponent = "TrackingReceiver";

}  // namespace

TrackingReceiver& TrackingReceiver::shared() {
  static TrackingReceiver receiver(std::make_shared<MainThreadTrackingSink>(maxWaitingSenders));
  return receiver;
}

// Left uninitialised (every byte handed out was written by the receive call
// first): the pages of a large allocation become resident only where
// datagrams reach, not all 2 MiB up front.
TrackingReceiver::TrackingReceiver(std::shared_ptr<TrackingSink> sink)
    : sink_(std::move(sink)),
      buffer_(std::make_unique_for_overwrite<std::uint8_t[]>(receiveBufferSize * datagramsPerRead)) {}

TrackingReceiver::~TrackingReceiver() {
  queue_.sync([this] { socketSources_.clear(); });
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

std::uint32_t TrackingReceiver::bindAddress() const {
  std::lock_guard lock(portsMutex_);
  return bindAddress_;
}

void TrackingReceiver::setBindAddress(std::uint32_t address) {
  std::lock_guard lock(portsMutex_);
  bindAddress_ = address;
}

void TrackingReceiver::addTap(std::shared_ptr<DatagramTap> tap) {
  std::lock_guard lock(tapsMutex_);
  if (std::find(taps_->begin(), taps_->end(), tap) != taps_->end()) return;
  auto taps = std::make_shared<Taps>(*taps_);
  taps->push_back(std::move(tap));
  taps_ = std::move(taps);
}

void TrackingReceiver::removeTap(const DatagramTap* tap) {
  {
    std::lock_guard lock(tapsMutex_);
    auto taps = std::make_shared<Taps>(*taps_);
    std::erase_if(*taps, [&](const auto& t) { return t.get() == tap; });
    taps_ = std::move(taps);
  }
  // A batch being handed out right now may still hold the old list.
  if (queue_.isCurrent()) {
    if (batch_.taps) batch_.taps = taps_;
  } else {
    queue_.sync([] {});
  }
}

void TrackingReceiver::startListening() {
  queue_.post([this] {
    const auto local = SenderAllowList::parseAddress(detectLocalIP());
    localAddress_ = local ? *local : 0x7F000001;
  });
  for (std::uint16_t port : ports()) {
    queue_.post([this, port] { startListening(port); });
  }
}

void TrackingReceiver::startListening(std::uint16_t port) {
  auto listener = std::make_unique<UdpListener>(
      queue_.context(), UdpListener::Options{.reuseAddressAndPort = true,
                                             .maxDatagramsPerEvent = maxDatagramsPerEvent,
                                             .datagramsPerRead = datagramsPerRead,
                                             .receiveBufferBytes = socketReceiveBufferBytes});
  const std::uint32_t bound = bindAddress();
  UdpListener::Callbacks callbacks;
  callbacks.onReadiness = [this] {
    batchEnded();  // settles a batch another listener's event left open, if any
    std::lock_guard lock(statsMutex_);
    ++stats_.readinessEvents;
  };
  callbacks.onDatagram = [this, port, bound](std::span<const std::uint8_t> bytes, const UdpSender& from) {
    try {
      datagramArrived(bytes, from, port, bound);
    } catch (const std::exception& e) {
      // A datagram that makes a decoder throw is lost; the socket keeps
      // listening.
      logLine(kComponent, std::string("readPackets: dropped a datagram: ") + e.what());
    }
  };
  callbacks.onBatch = [this](std::size_t) { batchEnded(); };
  const auto opened = listener->open(port, std::span<std::uint8_t>(buffer_.get(), receiveBufferSize * datagramsPerRead),
                                     std::move(callbacks), bound);
  if (opened.failure == UdpListener::Failure::create) {
    logLine(kComponent, "Failed to create socket for port " + std::to_string(port));
    return;
  }
  if (opened.failure == UdpListener::Failure::bind) {
    logLine(kComponent, "Could not bind to port " + std::to_string(port));
    return;
  }
  const int descriptor = listener->descriptor();
  socketSources_[descriptor] = std::move(listener);
  logLine(kComponent, "Listening for ARKit facial tracking on UDP port " + std::to_string(port));
}

void TrackingReceiver::stopListening() {
  // Closing a listener ends its pending wait and closes the descriptor.
  queue_.post([this] { socketSources_.clear(); });
}

std::vector<std::uint16_t> TrackingReceiver::listeningPorts() {
  std::vector<std::uint16_t> out;
  queue_.sync([&] {
    for (const auto& [descriptor, listener] : socketSources_) out.push_back(listener->port());
  });
  std::sort(out.begin(), out.end());
  return out;
}

const std::string& TrackingReceiver::senderText(const UdpSender& from) {
  const std::uint64_t key = (static_cast<std::uint64_t>(from.address) << 16) | from.port;
  auto it = senderTexts_.find(key);
  if (it == senderTexts_.end()) {
    if (senderTexts_.size() >= senderTextLimit) senderTexts_.clear();
    it = senderTexts_.emplace(key, from.text()).first;
  }
  return it->second;
}

void TrackingReceiver::datagramArrived(std::span<const std::uint8_t> bytes, const UdpSender& from,
                                       std::uint16_t port, std::uint32_t boundAddress) {
  if (!senderFilter_.admit(from.address)) return;
  if (batch_.arrived < 0) {
    // Read off the socket together: one arrival time for the batch, taken
    // before decoding (the decoders' time is part of the latency).
    batch_.arrived = uptime();
    std::lock_guard lock(tapsMutex_);
    batch_.taps = taps_;
  }
  if (!batch_.taps->empty()) {
    if (batch_.arrivalMicroseconds < 0) {
      batch_.arrivalMicroseconds =
          std::chrono::duration_cast<std::chrono::microseconds>(wallNow().time_since_epoch()).count();
    }
    DatagramEnvelope envelope;
    envelope.sourceAddress = from.address;
    envelope.sourcePort = from.port;
    envelope.destinationAddress =
        boundAddress ? boundAddress : (from.address >> 24) == 127 ? 0x7F000001 : localAddress_;
    envelope.destinationPort = port;
    envelope.arrivalMicroseconds = batch_.arrivalMicroseconds;
    for (const auto& tap : *batch_.taps) tap->datagramArrived(bytes, envelope);
  }
  const std::string& sender = senderText(from);
  const TrackingFormat format = decodeAndDeliver(bytes, sender, batch_.arrived);
  ++batch_.count;
  if (batch_.lastSender != sender) batch_.lastSender = sender;
  batch_.lastFormat = format;
}

void TrackingReceiver::batchEnded() {
  if (batch_.count > 0) countPackets(batch_.lastSender, batch_.lastFormat, batch_.count, batch_.arrived);
  batch_.count = 0;
  batch_.arrived = -1.0;
  batch_.arrivalMicroseconds = -1;
  batch_.taps.reset();
}

void TrackingReceiver::processData(std::span<const std::uint8_t> data, const std::string& sender) {
  const double arrived = uptime();
  countPackets(sender, decodeAndDeliver(data, sender, arrived), 1, arrived);
}

TrackingFormat TrackingReceiver::decodeAndDeliver(std::span<const std::uint8_t> data, const std::string& sender,
                                                  double arrived) {
  DecodedDatagram decoded = decodeDatagram(data, sender);
  if (decoded.frame) {
    decoded.frame->frame.arrivalTime = arrived;
    sink_->deliver(std::move(*decoded.frame));
  } else {
    // Unknown: counted and shown, nothing else changes.
    sink_->deliverUnknown(sender);
  }
  return decoded.format;
}

void TrackingReceiver::countPackets(const std::string& sender, TrackingFormat format, std::uint64_t count,
                                    double now) {
  std::lock_guard lock(statsMutex_);
  stats_.packetsReceived += count;
  if (stats_.lastSender != sender) stats_.lastSender = sender;
  stats_.lastFormat = format;
  if (rateWindowStart_ < 0) rateWindowStart_ = now;
  rateWindowCount_ += count;
  if (now - rateWindowStart_ >= 1.0) {
    stats_.packetsPerSecond = static_cast<double>(rateWindowCount_) / (now - rateWindowStart_);
    rateWindowCount_ = 0;
    rateWindowStart_ = now;
  }
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
  copy.refused = senderFilter_.refusedCount();
  return copy;
}

}  // namespace velmora
