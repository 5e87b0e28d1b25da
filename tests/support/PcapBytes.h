#pragma once
// Builds capture files byte by byte for tests and fuzz seeds: the classic
// pcap layout, little-endian, microsecond timestamps.
//   file header (24 bytes): magic a1b2c3d4, version 2.4, zone 0, sigfigs 0,
//                           snap length, link type
//   record header (16):     seconds, microseconds, captured length, original length
#include <cstdint>
#include <vector>

namespace velmora::test {

class PcapBytes {
 public:
  // 101: raw IP (as Velmora records); 1: Ethernet.
  explicit PcapBytes(std::uint32_t linkType = 101, std::uint32_t snapLength = 65535) {
    le32(0xA1B2C3D4);
    le16(2);
    le16(4);
    le32(0);
    le32(0);
    le32(snapLength);
    le32(linkType);
  }
  // One record; `originalLength` 0 means the packet's own size.
  PcapBytes& record(const std::vector<std::uint8_t>& packet, std::uint32_t seconds = 1700000000,
                    std::uint32_t micros = 0, std::uint32_t originalLength = 0) {
    le32(seconds);
    le32(micros);
    le32(static_cast<std::uint32_t>(packet.size()));
    le32(originalLength ? originalLength : static_cast<std::uint32_t>(packet.size()));
    bytes_.insert(bytes_.end(), packet.begin(), packet.end());
    return *this;
  }
  // A record header that claims `claimed` captured bytes, followed by `packet`.
  PcapBytes& lyingRecord(std::uint32_t claimed, const std::vector<std::uint8_t>& packet) {
    le32(1700000000);
    le32(0);
    le32(claimed);
    le32(claimed);
    bytes_.insert(bytes_.end(), packet.begin(), packet.end());
    return *this;
  }
  const std::vector<std::uint8_t>& bytes() const { return bytes_; }

  // An IPv4 UDP packet: 20-byte header (no options, checksum left 0), 8-byte
  // UDP header, payload. Fields a test wants to break are parameters.
  static std::vector<std::uint8_t> udp(const std::vector<std::uint8_t>& payload, std::uint16_t destinationPort = 11111,
                                       std::uint8_t protocol = 17, std::uint16_t flagsAndOffset = 0x4000) {
    const std::size_t total = 28 + payload.size();
    std::vector<std::uint8_t> p = {
        0x45, 0x00, std::uint8_t(total >> 8), std::uint8_t(total),  //  0: version/IHL, TOS, total length
        0x00, 0x01, std::uint8_t(flagsAndOffset >> 8), std::uint8_t(flagsAndOffset),  //  4: id, flags/offset
        64,   protocol, 0x00, 0x00,                                 //  8: TTL, protocol, checksum
        10,   0,    0,    2,                                        // 12: source 10.0.0.2
        10,   0,    0,    1,                                        // 16: destination 10.0.0.1
        0xC3, 0x50, std::uint8_t(destinationPort >> 8), std::uint8_t(destinationPort),  // 20: ports 50000 -> dst
        std::uint8_t((8 + payload.size()) >> 8), std::uint8_t(8 + payload.size()), 0x00, 0x00,  // 24: UDP length, checksum
    };
    p.insert(p.end(), payload.begin(), payload.end());
    return p;
  }

 private:
  void le16(std::uint16_t v) {
    bytes_.push_back(std::uint8_t(v));
    bytes_.push_back(std::uint8_t(v >> 8));
  }
  void le32(std::uint32_t v) {
    le16(std::uint16_t(v));
    le16(std::uint16_t(v >> 16));
  }
  std::vector<std::uint8_t> bytes_;
};

}  // namespace velmora::test
