#pragma once
// Where the tracking receiver hands what it decoded. Production posts to the
// face tracking state on the main thread (MainThreadTrackingSink); tests and
// fuzzers record or check the frames instead.
//
// Threads: called on the thread that runs TrackingReceiver::processData
// (the receiver's queue in production), one call at a time.

#include <cstdint>
#include <string>

#include "tracking/DecodedFrame.h"

namespace velmora {

class TrackingSink {
 public:
  virtual ~TrackingSink() = default;
  // A datagram in one of the four formats.
  virtual void deliver(DecodedFrame frame) = 0;
  // A datagram in no known format, from `sender` ("a.b.c.d:port").
  virtual void deliverUnknown(const std::string& sender) = 0;
  // Deliveries dropped on the way (flood protection: replaced by a newer one
  // before the main thread took them, or refused); any thread.
  virtual std::uint64_t droppedCount() const { return 0; }
};

}  // namespace velmora
