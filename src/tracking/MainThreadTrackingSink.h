#pragma once
// The production TrackingSink: decoded frames become
// FaceTrackingState::ingestPacket calls on the main thread.
//
// Newest wins, per sender. Each sender has at most one delivery waiting for
// the main thread. While it waits, a newer frame from the same sender is
// merged into it: the newer values win per blendshape name and per head
// component, and what only the older frame carried (a name, a head
// component a partial OSC packet did not set) is kept, so the ingested
// result equals ingesting both in order as far as the published values go.
// Each merge counts one frame as dropped; the state's totalPacketsReceived
// still counts every packet merged into the frame it ingests (so "N
// received" is what arrived, and "M dropped under load" how many of those
// were not ingested one by one). Unknown-format datagrams wait the same way
// (shown once per sender, repeats counted as dropped and as received). At
// normal rates the main thread takes each frame before the next arrives, so
// every packet is ingested one by one, in order; senders are ingested in
// the order of their newest deliveries.
//
// Memory stays bounded under any flood: one waiting entry per sender, at
// most `maxSenders` senders waiting at once (a delivery from one more
// sender is dropped and counted), and a merged frame keeps at most
// maxMergedNames blendshape names.
//
// Threads: deliver() and deliverUnknown() come from the receiver's queue
// (one thread at a time); droppedCount() and waitingSenders() from any
// thread. The ingesting runs on the thread that runs the given MainQueue,
// one posted drain at a time, which takes everything waiting at that
// moment: at most one frame per sender per wake-up.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "tracking/TrackingSink.h"

namespace velmora {

class FaceTrackingState;
class MainQueue;

class MainThreadTrackingSink final : public TrackingSink {
 public:
  // Blendshape names a merged frame keeps at most: the newer frame's own
  // names always, then the older frame's until this many.
  static constexpr std::size_t maxMergedNames = 256;

  // Frames go to FaceTrackingState::shared() through MainQueue::shared().
  explicit MainThreadTrackingSink(std::size_t maxSenders);
  // Tests: another main queue and state (`state` must outlive the posted
  // work; nullptr means FaceTrackingState::shared()).
  MainThreadTrackingSink(std::size_t maxSenders, MainQueue& queue, FaceTrackingState* state);

  // Receiver's queue.
  void deliver(DecodedFrame frame) override;
  // Receiver's queue. Main thread, later: isConnected = true, senderIP =
  // sender + " (Unknown format)", totalPacketsReceived + 1.
  void deliverUnknown(const std::string& sender) override;
  // Any thread: frames merged into a newer one, repeated unknown-format
  // deliveries, and deliveries from senders beyond maxSenders.
  std::uint64_t droppedCount() const override;

  // Any thread: senders with a delivery waiting for the main thread now.
  std::size_t waitingSenders() const;
  std::size_t maxSenders() const;

 private:
  struct State;
  std::shared_ptr<State> state_;  // shared with the posted drains, which hold it weakly
};

}  // namespace velmora
