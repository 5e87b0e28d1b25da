#pragma once
// One tracking datagram as a session recording holds it: its payload,
// unchanged, and its envelope (sender, destination port, arrival time).

#include <cstdint>
#include <vector>

#include "net/DatagramEnvelope.h"

namespace velmora {

struct RecordedDatagram {
  DatagramEnvelope envelope;
  std::vector<std::uint8_t> payload;
};

}  // namespace velmora
