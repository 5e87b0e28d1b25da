#pragma once
// Something that sees every datagram the tracking receiver accepts, before
// it is decoded: the session recorder and the relay.
//
// Threads: datagramArrived runs on the receiver's queue, once per datagram,
// in arrival order. It must not block or do I/O there: copy what is needed
// and hand it to a queue of its own, so decoding is never delayed.

#include <cstdint>
#include <span>

#include "net/DatagramEnvelope.h"

namespace velmora {

class DatagramTap {
 public:
  virtual ~DatagramTap() = default;
  // `payload` is valid only during the call.
  virtual void datagramArrived(std::span<const std::uint8_t> payload, const DatagramEnvelope& envelope) = 0;
};

}  // namespace velmora
