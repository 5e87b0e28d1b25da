#pragma once
// Records a session: every tracking datagram the receiver accepts (those
// in no known format too) goes, with its arrival time, sender and
// destination port, into a pcap file (PcapWriter) that Wireshark, tshark
// and `velmora-phone-sim --replay` read.
//
// Written as it goes: what arrived is handed to the system at least every
// flushInterval seconds, so a crash loses at most the last second. A write
// that fails (a full disk) ends the recording with one log line and a
// status text; tracking and the show go on untouched.
//
// Threads: datagramArrived runs on the receiver's queue and only copies the
// datagram; the file is written on the recorder's own serial queue
// ("com.velmora.recorder"). status() from any thread.

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "base/CreateResult.h"
#include "base/SerialQueue.h"
#include "net/DatagramTap.h"
#include "net/RecordedDatagram.h"

namespace velmora {

class PcapWriter;

class SessionRecorder final : public DatagramTap {
 public:
  // Datagrams that may wait for the writer; more are dropped and counted
  // (a disk that stalls must not grow memory without bound).
  static constexpr std::size_t maxWaiting = 4096;
  // Seconds between flushes, at most.
  static constexpr double flushInterval = 0.5;

  struct Status {
    std::string path;
    bool recording = false;     // false after stop() or a write failure
    std::uint64_t datagrams = 0;  // written to the file
    std::uint64_t dropped = 0;    // lost because the writer fell behind
    std::string error;            // why the recording ended early; empty otherwise
  };

  // Creates the file and starts the writer. Logs "Recording tracking
  // datagrams to FILE". Failure: "could not create FILE: reason".
  static CreateResult<SessionRecorder> create(const std::string& path);
  // stop().
  ~SessionRecorder() override;

  void datagramArrived(std::span<const std::uint8_t> payload, const DatagramEnvelope& envelope) override;

  // Any thread but the recorder's queue: writes what is waiting, closes the
  // file and logs "Recording stopped: N datagrams in FILE". Idempotent.
  void stop();

  Status status() const;
  // For the operator: "Recording: 1234 datagrams to FILE", "Recorded 1234
  // datagrams to FILE", or "Recording stopped: could not write FILE: No
  // space left on device (1234 datagrams kept)".
  std::string statusText() const;

 private:
  explicit SessionRecorder(std::unique_ptr<PcapWriter> writer);
  // Recorder's queue.
  void drain();
  void flushNow();
  void armFlush();
  void failed();

  struct Timer;

  // Declared first, destroyed last: the writer and the timer below go first.
  SerialQueue queue_{"com.velmora.recorder"};
  std::unique_ptr<PcapWriter> writer_;  // queue only; null once closed
  std::unique_ptr<Timer> flushTimer_;   // queue only
  bool flushArmed_ = false;             // queue only
  bool unflushed_ = false;              // queue only
  std::atomic<bool> stopped_{false};

  mutable std::mutex mutex_;  // guards everything below
  std::deque<RecordedDatagram> waiting_;
  bool drainPosted_ = false;
  Status status_;
};

}  // namespace velmora
