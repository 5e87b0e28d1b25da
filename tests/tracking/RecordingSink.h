#pragma once
// A TrackingSink that keeps the frames it is given (unknown datagrams are
// ignored), for tests that drive the receiver without the main thread; as a
// DatagramTap, it keeps a copy of every datagram it is shown and its envelope.
// Thread-safe: net tests read it while the receiver's queue writes it.
#include <mutex>
#include <string>
#include <vector>

#include "net/DatagramTap.h"
#include "tracking/TrackingSink.h"

namespace velmora::test {

class RecordingSink final : public TrackingSink, public DatagramTap {
 public:
  using Seen = std::pair<std::vector<std::uint8_t>, DatagramEnvelope>;
  void deliver(DecodedFrame frame) override {
    std::lock_guard lock(mutex_);
    frames_.push_back(std::move(frame));
  }
  void deliverUnknown(const std::string&) override {}
  void datagramArrived(std::span<const std::uint8_t> payload, const DatagramEnvelope& envelope) override {
    std::lock_guard lock(mutex_);
    seen_.emplace_back(std::vector<std::uint8_t>(payload.begin(), payload.end()), envelope);
  }
  std::vector<Seen> seen() const {
    std::lock_guard lock(mutex_);
    return seen_;
  }
  std::vector<DecodedFrame> frames() const {
    std::lock_guard lock(mutex_);
    return frames_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<DecodedFrame> frames_;
  std::vector<Seen> seen_;
};

}  // namespace velmora::test
