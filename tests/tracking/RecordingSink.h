#pragma once
// A TrackingSink that keeps the frames it is given and counts the unknown
// datagrams, for tests that drive the receiver without the main thread.
// Thread-safe: net tests read it while the receiver's queue writes it.
#include <mutex>
#include <string>
#include <vector>

#include "tracking/TrackingSink.h"

namespace velmora::test {

class RecordingSink final : public TrackingSink {
 public:
  void deliver(DecodedFrame frame) override {
    std::lock_guard lock(mutex_);
    frames_.push_back(std::move(frame));
  }
  void deliverUnknown(const std::string&) override {
    std::lock_guard lock(mutex_);
    ++unknown_;
  }
  std::vector<DecodedFrame> frames() const {
    std::lock_guard lock(mutex_);
    return frames_;
  }
  std::size_t total() const {
    std::lock_guard lock(mutex_);
    return frames_.size() + unknown_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<DecodedFrame> frames_;
  std::size_t unknown_ = 0;
};

}  // namespace velmora::test
