#pragma once
// Reads a capture file (pcap, or pcapng as Wireshark saves it) through
// libpcap and returns the IPv4 UDP datagrams in it: a session recording
// written by PcapWriter, or a capture of a phone's traffic (raw IP, Ethernet
// or Linux "any" captures). Packets that are not IPv4 UDP are skipped and
// counted; fragments likewise. A file that is not a capture, is cut short,
// or holds a packet whose headers contradict each other is refused with one
// line saying why: a replay never sends half a file.
//
// Threads: any; no shared state.

#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

#include "net/RecordedDatagram.h"

struct pcap;

namespace velmora {

class PcapReader {
 public:
  // Payload bytes a file may hold at most (the whole file is read into memory).
  static constexpr std::size_t maxTotalPayload = std::size_t(1) << 30;

  struct Result {
    std::vector<RecordedDatagram> datagrams;  // in file order
    std::size_t skipped = 0;                  // packets that were not IPv4 UDP, or fragments
    std::string error;                        // empty when the file was read; else one line
    explicit operator bool() const { return error.empty(); }
  };

  // What one captured packet holds.
  enum class Outcome { datagram, skipped, malformed };

  static Result readFile(const std::string& path);
  // The same from bytes in memory (tests, fuzzing); `name` prefixes errors.
  static Result readBytes(std::span<const std::uint8_t> bytes, const std::string& name = "capture");

  // One packet of a capture with the given DLT_ link type: fills `out` for
  // an IPv4 UDP datagram; `reason` says why a packet is skipped or malformed.
  static Outcome decodePacket(int linkType, std::span<const std::uint8_t> packet, DatagramEnvelope envelope,
                              RecordedDatagram& out, std::string& reason);

 private:
  // Both take ownership of what they are given.
  static Result readStream(std::FILE* file, const std::string& name);
  static Result readFrom(pcap* handle, const std::string& name);
};

}  // namespace velmora
