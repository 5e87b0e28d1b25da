#pragma once
// Where a tracking datagram came from and where it arrived: everything a
// session recording keeps besides the payload itself.

#include <cstdint>
#include <string>

namespace velmora {

struct DatagramEnvelope {
  std::uint32_t sourceAddress = 0;       // IPv4, host byte order
  std::uint16_t sourcePort = 0;
  std::uint32_t destinationAddress = 0;  // IPv4, host byte order; 0 when unknown
  std::uint16_t destinationPort = 0;     // the listening port it reached
  std::int64_t arrivalMicroseconds = 0;  // wall clock, microseconds since the Unix epoch

  // "a.b.c.d" for an address in host byte order.
  static std::string addressText(std::uint32_t address);
  // "a.b.c.d:port" of the sender, as the receiver shows it.
  std::string senderText() const;
};

}  // namespace velmora
