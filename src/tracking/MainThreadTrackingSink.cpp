#include "tracking/MainThreadTrackingSink.h"

#include "base/MainQueue.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

MainThreadTrackingSink::MainThreadTrackingSink(std::size_t capacity) : mailbox_(capacity) {}

MainThreadTrackingSink::MainThreadTrackingSink(std::size_t capacity, MainQueue& queue, FaceTrackingState* state)
    : mailbox_(capacity, queue), state_(state) {}

namespace {

// Resolved on the main thread, when the work runs: the shared state is
// created there on first use.
FaceTrackingState& target(FaceTrackingState* state) { return state ? *state : FaceTrackingState::shared(); }

}  // namespace

void MainThreadTrackingSink::deliver(DecodedFrame frame) {
  // The posted work runs on the main thread, where the state's raw pose may
  // be read: partial OSC head updates are completed there.
  mailbox_.post([state = state_, frame = std::move(frame)]() mutable {
    FaceTrackingState& s = target(state);
    FaceFrame f = std::move(frame).completed(s.rawRotation(), s.rawPosition());
    s.ingestPacket(f.blendshapes, f.rotation, f.position, f.sender);
    s.noteArrival(f.arrivalTime);
  });
}

void MainThreadTrackingSink::deliverUnknown(const std::string& sender) {
  mailbox_.post([state = state_, sender] {
    FaceTrackingState& s = target(state);
    s.setIsConnected(true);
    s.setSenderIP(sender + " (Unknown format)");
    s.setTotalPacketsReceived(s.totalPacketsReceived() + 1);
  });
}

}  // namespace velmora
