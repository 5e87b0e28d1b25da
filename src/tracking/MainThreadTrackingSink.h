#pragma once
// The production TrackingSink: every decoded frame becomes one
// FaceTrackingState::ingestPacket on the main thread.
//
// Posting goes through a bounded MainThreadMailbox: at normal rates every
// frame is ingested in order; under a flood the oldest waiting frames are
// dropped and counted, so memory and main-thread latency stay bounded.

#include <cstddef>
#include <cstdint>

#include "base/MainThreadMailbox.h"
#include "tracking/TrackingSink.h"

namespace velmora {

class FaceTrackingState;
class MainQueue;

class MainThreadTrackingSink final : public TrackingSink {
 public:
  // Frames go to FaceTrackingState::shared() through MainQueue::shared().
  explicit MainThreadTrackingSink(std::size_t capacity);
  // Tests: another main queue and state (`state` must outlive the posted work).
  MainThreadTrackingSink(std::size_t capacity, MainQueue& queue, FaceTrackingState* state);

  // Any thread.
  void deliver(DecodedFrame frame) override;
  // Main thread, later: isConnected = true, senderIP = sender +
  // " (Unknown format)", totalPacketsReceived + 1.
  void deliverUnknown(const std::string& sender) override;
  std::uint64_t droppedCount() const override { return mailbox_.droppedCount(); }

  const MainThreadMailbox& mailbox() const { return mailbox_; }

 private:
  MainThreadMailbox mailbox_;
  FaceTrackingState* state_ = nullptr;  // nullptr: FaceTrackingState::shared()
};

}  // namespace velmora
