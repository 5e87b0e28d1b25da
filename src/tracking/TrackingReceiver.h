#pragma once
// Face-tracking packets from the phone over UDP: listens on several ports at
// once (the tracking apps default to different ones), counts every datagram,
// decodes it (decodeDatagram: format detection and the four decoders) and
// hands the frame to a TrackingSink. The shared receiver's sink posts to
// FaceTrackingState::shared().ingestPacket on the main thread.
//
// Reading: each socket is drained in batches (UdpListener, datagramsPerRead
// per system call) into one reused buffer, and every datagram is decoded in
// place from it. Per-datagram bookkeeping (statistics, the taps' list, the
// arrival time) is settled once per batch, and each sender's "a.b.c.d:port"
// text is formatted once and kept, so the bytes of a datagram cost no heap
// allocation before the decoder.
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
#include <unordered_map>
#include <vector>

#include "base/SerialQueue.h"
#include "net/DatagramTap.h"
#include "net/SenderFilter.h"
#include "tracking/TrackingFormat.h"
#include "tracking/TrackingSink.h"
#include "net/UdpListener.h"

namespace velmora {

class TrackingReceiver {
 public:
  // Snapshot for status lines. Counts every datagram read, whatever its format.
  struct Statistics {
    std::uint64_t packetsReceived = 0;
    double packetsPerSecond = 0.0;  // measured over about one second
    std::string lastSender;         // "a.b.c.d:port", empty before the first
    TrackingFormat lastFormat = TrackingFormat::none;
    std::uint64_t dropped = 0;         // frames the sink dropped under a flood (replaced by newer ones)
    std::uint64_t readinessEvents = 0;  // wake-ups; a burst costs one
    std::uint64_t refused = 0;          // datagrams from senders not in the allow-list
  };

  // Bytes a datagram is cut to.
  static constexpr std::size_t receiveBufferSize = 65535;
  // Datagrams taken per receive call; the buffer holds this many of
  // receiveBufferSize bytes (2 MiB of address space, of which only the
  // bytes datagrams actually fill become resident).
  static constexpr std::size_t datagramsPerRead = 32;
  // Datagrams read per readiness event before the queue runs other work:
  // under a flood the ports take turns, and a stop or rebind waits at most
  // this long, instead of one port draining forever.
  static constexpr std::size_t maxDatagramsPerEvent = 1024;
  // Kernel memory per socket for datagrams waiting to be read: at the
  // default (about 200 KiB, some 160 Live Link datagrams) a flood overflows
  // whenever the queue's thread is off the CPU for a millisecond; 4 MiB
  // holds thousands. Kernel memory, used only while datagrams wait; not
  // part of the process's resident memory.
  static constexpr int socketReceiveBufferBytes = 4 * 1024 * 1024;
  // Senders whose newest frame may wait for the main thread at once (one
  // frame each; MainThreadTrackingSink); deliveries from more are dropped.
  static constexpr std::size_t maxWaitingSenders = 256;

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
  // Decodes and delivers one datagram; returns its format.
  TrackingFormat decodeAndDeliver(std::span<const std::uint8_t> data, const std::string& sender, double arrived);
  void countPackets(const std::string& sender, TrackingFormat format, std::uint64_t count, double now);
  // Receiver's queue: the door, the taps, then decoding; counted in the
  // current batch.
  void datagramArrived(std::span<const std::uint8_t> bytes, const UdpSender& from, std::uint16_t port,
                       std::uint32_t boundAddress);
  // Receiver's queue: after each receive call, the batch's counts go to the
  // statistics under one lock.
  void batchEnded();
  // Receiver's queue: "a.b.c.d:port", formatted once per sender.
  const std::string& senderText(const UdpSender& from);
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
  // one buffer every drain reuses (datagramsPerRead slots).
  std::map<int, std::unique_ptr<UdpListener>> socketSources_;
  std::unique_ptr<std::uint8_t[]> buffer_;  // datagramsPerRead * receiveBufferSize bytes
  // Queue-only: sender texts by (address << 16 | port). Emptied when it
  // reaches senderTextLimit, so a spoofed flood cannot grow it.
  static constexpr std::size_t senderTextLimit = 1024;
  std::unordered_map<std::uint64_t, std::string> senderTexts_;
  // Queue-only: the batch being handed out. The arrival time and taps are
  // taken at its first datagram; the counts reach stats_ in batchEnded().
  struct Batch {
    double arrived = -1.0;               // uptime(), < 0 before the first datagram
    std::int64_t arrivalMicroseconds = -1;  // wall clock, for the taps' envelopes
    std::shared_ptr<const Taps> taps;
    std::uint64_t count = 0;
    std::string lastSender;
    TrackingFormat lastFormat = TrackingFormat::none;
  } batch_;

  mutable std::mutex statsMutex_;
  Statistics stats_;
  double rateWindowStart_ = -1.0;
  std::uint64_t rateWindowCount_ = 0;

  // Last: destroyed first, so no queued work outlives the members above.
  SerialQueue queue_{"com.velmora.tracking"};
};

}  // namespace velmora
