#pragma once
// Face-tracking packets from the phone over UDP: listens on several ports at
// once (the tracking apps default to different ones), counts every datagram,
// decodes it (decodeDatagram: format detection and the four decoders) and
// hands the frame to a TrackingSink. The shared receiver's sink posts to
// FaceTrackingState::shared().ingestPacket on the main thread.
//
// Threads: every socket, every read, detection and decoding run on the
// receiver's serial queue ("com.velmora.tracking"). The public start/stop
// calls may come from any thread; statistics() from any thread.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "base/SerialQueue.h"
#include "tracking/DatagramTap.h"
#include "tracking/SenderFilter.h"
#include "tracking/TrackingFormat.h"
#include "tracking/TrackingSink.h"
#include "tracking/UdpListener.h"

namespace velmora {

class TrackingReceiver {
 public:
  // Snapshot for status lines. Counts every datagram read, whatever its format.
  struct Statistics {
    std::uint64_t packetsReceived = 0;
    double packetsPerSecond = 0.0;  // measured over about one second
    std::string lastSender;         // "a.b.c.d:port", empty before the first
    TrackingFormat lastFormat = TrackingFormat::none;
    std::uint64_t dropped = 0;         // frames the sink dropped under a flood
    std::uint64_t readinessEvents = 0;  // wake-ups; a burst costs one
    std::uint64_t refused = 0;          // datagrams from senders not in the allow-list
  };

  static constexpr std::size_t receiveBufferSize = 65535;
  // Frames waiting for the main thread at most; older ones are dropped.
  static constexpr std::size_t mainThreadCapacity = 256;

  // The application's receiver, sink = MainThreadTrackingSink.
  static TrackingReceiver& shared();

  // A receiver with its own queue handing frames to `sink`.
  explicit TrackingReceiver(std::shared_ptr<TrackingSink> sink);
  // Closes every socket and ends the queue.
  ~TrackingReceiver();
  TrackingReceiver(const TrackingReceiver&) = delete;
  TrackingReceiver& operator=(const TrackingReceiver&) = delete;

  // 11111, 49983, 39539 unless set; read when listening starts.
  std::vector<std::uint16_t> ports() const;
  void setPorts(std::vector<std::uint16_t> ports);
  // The local address every port binds (IPv4, host byte order): 0, the
  // default, is every interface. Read when listening starts.
  std::uint32_t bindAddress() const;
  void setBindAddress(std::uint32_t address);

  // Who may send tracking: datagrams from others are dropped before
  // anything else sees them, counted, and logged once per sender as
  // "[TrackingReceiver] Refused tracking data from a.b.c.d (not in the
  // allowed senders)". Everyone until an allow-list is set.
  SenderFilter& senderFilter() { return senderFilter_; }

  // Any thread. Taps see every admitted datagram, before it is decoded (the
  // session recorder, the relay). Adding the same tap twice adds it once.
  void addTap(std::shared_ptr<DatagramTap> tap);
  // Any thread. After it returns the tap is called no more.
  void removeTap(const DatagramTap* tap);

  SerialQueue& queue() { return queue_; }

  // Any thread: schedules startListening(on:) for every port, in order, and
  // returns at once.
  void startListening();
  // Receiver's queue: opens, configures (address and port reuse) and binds
  // one socket and starts waiting for its datagrams. Failures are logged and
  // skip the port.
  void startListening(std::uint16_t port);
  // Any thread: schedules closing every socket.
  void stopListening();
  // Any thread; waits for the queue. Ports with an open socket, ascending.
  std::vector<std::uint16_t> listeningPorts();

  // Receiver's queue (or the one thread driving a test/fuzzer): counts the
  // datagram, decodes it with decodeDatagram and delivers the frame, or the
  // sender of a datagram in no known format, to the sink.
  void processData(std::span<const std::uint8_t> data, const std::string& sender);

  Statistics statistics() const;
  const std::shared_ptr<TrackingSink>& sink() const { return sink_; }

 private:
  void countPacket(const std::string& sender, TrackingFormat format);
  // Receiver's queue: the door, the taps, then processData.
  void datagramArrived(std::span<const std::uint8_t> bytes, const UdpSender& from, std::uint16_t port);
  using Taps = std::vector<std::shared_ptr<DatagramTap>>;

  std::shared_ptr<TrackingSink> sink_;

  mutable std::mutex portsMutex_;
  std::vector<std::uint16_t> ports_{11111, 49983, 39539};
  std::uint32_t bindAddress_ = 0;
  // What a datagram from another machine was sent to, for the recorder's
  // envelope when the sockets bind every interface: this machine's address.
  std::uint32_t localAddress_ = 0;  // queue only, found when listening starts

  SenderFilter senderFilter_{"TrackingReceiver", "tracking data"};
  mutable std::mutex tapsMutex_;
  std::shared_ptr<const Taps> taps_ = std::make_shared<const Taps>();  // replaced whole, under tapsMutex_

  // Queue-only state: one listener per open socket, by descriptor, and the
  // one buffer every drain reuses.
  std::map<int, std::unique_ptr<UdpListener>> socketSources_;
  std::vector<std::uint8_t> buffer_;

  mutable std::mutex statsMutex_;
  Statistics stats_;
  double rateWindowStart_ = -1.0;
  std::uint64_t rateWindowCount_ = 0;

  // Last: destroyed first, so no queued work outlives the members above.
  SerialQueue queue_{"com.velmora.tracking"};
};

}  // namespace velmora
