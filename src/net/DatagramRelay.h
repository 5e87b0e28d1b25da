#pragma once
// Relays the phone's stream to other applications: every tracking datagram
// the receiver accepts goes, unchanged, to each relay target ("host:port").
// A stage often has a second program that wants the same phone, and a
// phone app streams to one address only.
//
// A target that resolves to this machine on one of Velmora's own listening
// ports is refused (it would loop). A target that fails (the name does not
// resolve, the network is unreachable, nobody listens there) shows its
// error in its status, skips datagrams and is retried every retryInterval
// seconds; it logs one line when it starts failing and one when it relays
// again, never a line per datagram.
//
// Threads: datagramArrived runs on the receiver's queue and only copies the
// datagram; sockets, resolution and sending run on the relay's own serial
// queue ("com.velmora.relay"), so a slow target never delays decoding.
// setTargets and status from any thread.

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/SerialQueue.h"
#include "net/DatagramTap.h"

namespace velmora {

class DatagramRelay final : public DatagramTap {
 public:
  // Datagrams that may wait for the relay's queue; more are dropped and counted.
  static constexpr std::size_t maxWaiting = 1024;
  // Seconds between attempts for a failing target, and of clean sending
  // before a failing target counts as relaying again.
  static constexpr double defaultRetryInterval = 2.0;

  struct TargetStatus {
    std::string target;  // as the operator wrote it
    // "relaying (N sent)", "waiting for the first datagram", "error: REASON
    // (retrying every 2 s)", "refused: REASON", "malformed: REASON".
    std::string text;
    bool ok = false;
    std::uint64_t sent = 0;
  };

  // Tests shorten the retry interval.
  explicit DatagramRelay(double retryInterval = defaultRetryInterval);
  ~DatagramRelay() override;
  DatagramRelay(const DatagramRelay&) = delete;
  DatagramRelay& operator=(const DatagramRelay&) = delete;

  // Any thread. Replaces the targets. `ownPorts` are the ports this process
  // listens on (tracking and cues): a target on this machine at one of them
  // is refused. Malformed entries are kept in the status with their reason.
  void setTargets(const std::vector<std::string>& targets, std::vector<std::uint16_t> ownPorts);

  void datagramArrived(std::span<const std::uint8_t> payload, const DatagramEnvelope& envelope) override;

  // Any thread, in the order the targets were given.
  std::vector<TargetStatus> status() const;
  // Datagrams dropped because the relay's queue fell behind.
  std::uint64_t droppedCount() const;
  // Any thread but the relay's: waits until the work submitted so far ran.
  void waitForQueue();

 private:
  struct Target;
  // Relay's queue.
  void drain();
  void sendTo(Target& target, const std::vector<std::uint8_t>& payload, double now);
  void connect(Target& target, double now);
  void markFailed(Target& target, const std::string& reason, double now);
  std::string retryNote() const;

  const double retryInterval_;

  mutable std::mutex mutex_;  // guards relaying_, waiting_, drainPosted_, dropped_ and the targets' status
  bool relaying_ = false;     // the latest list names a target (set at once, before the queue resolves it)
  std::deque<std::vector<std::uint8_t>> waiting_;
  bool drainPosted_ = false;
  std::uint64_t dropped_ = 0;
  std::vector<std::unique_ptr<Target>> targets_;  // replaced on the queue, read under mutex_

  // Last: destroyed first, so no queued work outlives the members above.
  SerialQueue queue_{"com.velmora.relay"};
};

}  // namespace velmora
