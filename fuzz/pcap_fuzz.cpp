// libFuzzer target: capture files through PcapReader (libpcap underneath,
// then our link-layer, IPv4 and UDP checks). Whatever the bytes, the reader
// returns either datagrams or one error line, never both; every datagram it
// returns survives the writer's encapsulation and decodes back unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <pcap/dlt.h>
#include <span>
#include <tuple>
#include <vector>

#include "net/PcapReader.h"
#include "net/PcapWriter.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto result = velmora::PcapReader::readBytes(std::span<const std::uint8_t>(data, size), "fuzz.pcap");
  if (!result.error.empty()) {
    if (!result.datagrams.empty()) std::abort();
    if (result.error.find('\n') != std::string::npos || result.error.rfind("fuzz.pcap: ", 0) != 0) std::abort();
    return 0;
  }
  std::vector<std::uint8_t> packet;
  for (const auto& d : result.datagrams) {
    if (d.payload.size() > velmora::PcapWriter::maxPayload || d.envelope.destinationPort == 0) std::abort();
    velmora::PcapWriter::encapsulate(d.payload, d.envelope, 1, packet);
    velmora::RecordedDatagram back;
    std::string reason;
    if (velmora::PcapReader::decodePacket(DLT_RAW, packet, d.envelope, back, reason) !=
        velmora::PcapReader::Outcome::datagram)
      std::abort();
    const auto& [b, e] = std::tie(back.envelope, d.envelope);
    if (std::tie(back.payload, b.sourceAddress, b.sourcePort, b.destinationAddress, b.destinationPort) !=
        std::tie(d.payload, e.sourceAddress, e.sourcePort, e.destinationAddress, e.destinationPort))
      std::abort();
  }
  return 0;
}
