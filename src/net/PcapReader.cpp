#include "net/PcapReader.h"

#include <pcap/pcap.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace velmora {

namespace {

std::uint16_t u16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }
std::uint32_t u32(const std::uint8_t* p) { return std::uint32_t(u16(p)) << 16 | u16(p + 2); }

// libpcap's messages are one line already; a hostile file must not be able
// to smuggle control characters into ours either.
std::string oneLine(std::string text) {
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
  }
  return text;
}

constexpr std::uint16_t kEtherTypeIPv4 = 0x0800;
constexpr std::uint16_t kEtherTypeVlan = 0x8100;

}  // namespace

PcapReader::Result PcapReader::readFile(const std::string& path) {
  FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) {
    Result r;
    r.error = oneLine(path + ": cannot be opened (" + std::strerror(errno) + ")");
    return r;
  }
  return readStream(file, path);
}

PcapReader::Result PcapReader::readBytes(std::span<const std::uint8_t> bytes, const std::string& name) {
  Result r;
  if (bytes.empty()) {
    r.error = name + ": empty file, not a capture";
    return r;
  }
  FILE* file = ::fmemopen(const_cast<std::uint8_t*>(bytes.data()), bytes.size(), "rb");
  if (!file) {
    r.error = oneLine(name + ": cannot be opened (" + std::strerror(errno) + ")");
    return r;
  }
  return readStream(file, name);
}

PcapReader::Result PcapReader::readStream(FILE* file, const std::string& name) {
  char errbuf[PCAP_ERRBUF_SIZE] = {0};
  pcap_t* handle = pcap_fopen_offline(file, errbuf);
  if (!handle) {
    std::fclose(file);
    Result r;
    r.error = oneLine(name + ": not a capture file Velmora can read (" + errbuf + ")");
    return r;
  }
  return readFrom(handle, name);  // the handle owns the stream now
}

PcapReader::Result PcapReader::readFrom(pcap_t* handle, const std::string& name) {
  Result r;
  const int linkType = pcap_datalink(handle);
  if (linkType != DLT_RAW && linkType != DLT_IPV4 && linkType != DLT_EN10MB && linkType != DLT_LINUX_SLL) {
    const char* linkName = pcap_datalink_val_to_name(linkType);
    r.error = oneLine(name + ": link type " + (linkName ? linkName : std::to_string(linkType)) +
                      " is not supported (raw IP, Ethernet or Linux cooked captures are)");
    pcap_close(handle);
    return r;
  }
  std::size_t totalPayload = 0;
  std::uint64_t index = 0;
  while (true) {
    pcap_pkthdr* header = nullptr;
    const u_char* data = nullptr;
    const int rc = pcap_next_ex(handle, &header, &data);
    if (rc == PCAP_ERROR_BREAK) break;  // end of file
    if (rc != 1) {
      r.error = oneLine(name + ": damaged after " + std::to_string(index) + " good packets (" + pcap_geterr(handle) + ")");
      break;
    }
    ++index;
    if (header->caplen < header->len) {
      r.error = name + ": packet " + std::to_string(index) + " was cut short by the capture (" +
                std::to_string(header->caplen) + " of " + std::to_string(header->len) + " bytes kept)";
      break;
    }
    DatagramEnvelope envelope;
    envelope.arrivalMicroseconds =
        static_cast<std::int64_t>(header->ts.tv_sec) * 1000000 + static_cast<std::int64_t>(header->ts.tv_usec);
    RecordedDatagram datagram;
    std::string reason;
    const Outcome outcome = decodePacket(linkType, std::span<const std::uint8_t>(data, header->caplen), envelope,
                                         datagram, reason);
    if (outcome == Outcome::malformed) {
      r.error = oneLine(name + ": packet " + std::to_string(index) + " is malformed (" + reason + ")");
      break;
    }
    if (outcome == Outcome::skipped) {
      ++r.skipped;
      continue;
    }
    totalPayload += datagram.payload.size();
    if (totalPayload > maxTotalPayload) {
      r.error = name + ": more than 1 GiB of datagrams; use a shorter recording";
      break;
    }
    r.datagrams.push_back(std::move(datagram));
  }
  pcap_close(handle);
  if (!r.error.empty()) r.datagrams.clear();
  return r;
}

PcapReader::Outcome PcapReader::decodePacket(int linkType, std::span<const std::uint8_t> packet,
                                             DatagramEnvelope envelope, RecordedDatagram& out, std::string& reason) {
  auto malformed = [&](std::string why) {
    reason = std::move(why);
    return Outcome::malformed;
  };
  auto skipped = [&](std::string why) {
    reason = std::move(why);
    return Outcome::skipped;
  };
  const std::uint8_t* p = packet.data();
  std::size_t size = packet.size();

  // Link-layer header down to the IP packet.
  if (linkType == DLT_EN10MB) {
    if (size < 14) return malformed("Ethernet header cut short");
    std::size_t offset = 14;
    std::uint16_t type = u16(p + 12);
    if (type == kEtherTypeVlan) {
      if (size < 18) return malformed("VLAN tag cut short");
      type = u16(p + 16);
      offset = 18;
    }
    if (type != kEtherTypeIPv4) return skipped("not IPv4");
    p += offset;
    size -= offset;
  } else if (linkType == DLT_LINUX_SLL) {
    if (size < 16) return malformed("cooked header cut short");
    if (u16(p + 14) != kEtherTypeIPv4) return skipped("not IPv4");
    p += 16;
    size -= 16;
  }
  if (size < 1) return malformed("empty IP packet");
  const int version = p[0] >> 4;
  if (version == 6 && linkType == DLT_RAW) return skipped("IPv6");
  if (version != 4) return malformed("IP version " + std::to_string(version));

  // IPv4 header.
  if (size < 20) return malformed("IPv4 header cut short");
  const std::size_t headerLength = std::size_t(p[0] & 0x0F) * 4;
  const std::size_t totalLength = u16(p + 2);
  if (headerLength < 20) return malformed("IPv4 header length " + std::to_string(headerLength));
  if (totalLength < headerLength || totalLength > size) {
    return malformed("IPv4 total length " + std::to_string(totalLength) + " with " + std::to_string(size) +
                     " bytes captured");
  }
  if (p[9] != 17) return skipped("not UDP");
  const std::uint16_t fragment = u16(p + 6);
  if ((fragment & 0x2000) || (fragment & 0x1FFF)) return skipped("IPv4 fragment");

  // UDP header and payload.
  const std::uint8_t* udp = p + headerLength;
  const std::size_t available = totalLength - headerLength;
  if (available < 8) return malformed("UDP header cut short");
  const std::size_t udpLength = u16(udp + 4);
  if (udpLength < 8 || udpLength > available) {
    return malformed("UDP length " + std::to_string(udpLength) + " in " + std::to_string(available) + " bytes");
  }
  envelope.sourceAddress = u32(p + 12);
  envelope.destinationAddress = u32(p + 16);
  envelope.sourcePort = u16(udp);
  envelope.destinationPort = u16(udp + 2);
  if (envelope.destinationPort == 0) return malformed("UDP destination port 0");
  out.envelope = envelope;
  out.payload.assign(udp + 8, udp + udpLength);
  return Outcome::datagram;
}

}  // namespace velmora
