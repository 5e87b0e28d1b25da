#include "net/PcapWriter.h"

#include <pcap/pcap.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace velmora {

namespace {

void putU16(std::uint8_t* at, std::uint16_t v) {
  at[0] = static_cast<std::uint8_t>(v >> 8);
  at[1] = static_cast<std::uint8_t>(v);
}

void putU32(std::uint8_t* at, std::uint32_t v) {
  putU16(at, static_cast<std::uint16_t>(v >> 16));
  putU16(at + 2, static_cast<std::uint16_t>(v));
}

// The IPv4 header checksum: one's complement of the one's-complement sum of
// the header's 16-bit words (with the checksum field zero).
std::uint16_t ipv4Checksum(const std::uint8_t* header, std::size_t length) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i + 1 < length; i += 2) sum += static_cast<std::uint32_t>(header[i] << 8 | header[i + 1]);
  while (sum >> 16) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum);
}

}  // namespace

PcapWriter::PcapWriter(std::string path, pcap* handle, pcap_dumper* dumper)
    : path_(std::move(path)), handle_(handle), dumper_(dumper) {
  packet_.reserve(2048);
}

CreateResult<PcapWriter> PcapWriter::create(const std::string& path) {
  // A "dead" handle only describes the capture: raw IPv4 packets of up to
  // 64 KiB, microsecond timestamps (what every reader understands).
  pcap_t* handle = pcap_open_dead(DLT_RAW, 65535);
  if (!handle) return CreateResult<PcapWriter>::failure("could not create " + path + ": libpcap is out of memory");
  FILE* file = std::fopen(path.c_str(), "wb");
  if (!file) {
    const int error = errno;
    pcap_close(handle);
    return CreateResult<PcapWriter>::failure("could not create " + path + ": " + std::strerror(error));
  }
  // Our own buffer, larger than anything written between two flushes, so
  // the stream never writes part of a record on its own.
  std::setvbuf(file, nullptr, _IOFBF, bufferSize);
  pcap_dumper_t* dumper = pcap_dump_fopen(handle, file);
  if (!dumper) {
    std::string reason = pcap_geterr(handle);
    std::fclose(file);
    pcap_close(handle);
    return CreateResult<PcapWriter>::failure("could not create " + path + ": " + reason);
  }
  auto writer = std::unique_ptr<PcapWriter>(new PcapWriter(path, handle, dumper));
  // The capture header is only buffered so far: a full disk shows here.
  writer->pendingBytes_ = 24;
  if (!writer->flush()) return CreateResult<PcapWriter>::failure(writer->error());
  return CreateResult<PcapWriter>::success(std::move(writer));
}

PcapWriter::~PcapWriter() {
  if (dumper_) pcap_dump_close(dumper_);  // flushes; a failure here has nowhere to go
  if (handle_) pcap_close(handle_);
}

void PcapWriter::encapsulate(std::span<const std::uint8_t> payload, const DatagramEnvelope& envelope,
                             std::uint16_t identification, std::vector<std::uint8_t>& packet) {
  const std::size_t n = std::min(payload.size(), maxPayload);
  packet.assign(headerSize + n, 0);
  std::uint8_t* ip = packet.data();
  ip[0] = 0x45;  // version 4, header of 5 words
  putU16(ip + 2, static_cast<std::uint16_t>(headerSize + n));
  putU16(ip + 4, identification);
  putU16(ip + 6, 0x4000);  // don't fragment, offset 0
  ip[8] = 64;              // time to live
  ip[9] = 17;              // UDP
  putU32(ip + 12, envelope.sourceAddress);
  putU32(ip + 16, envelope.destinationAddress);
  putU16(ip + 10, ipv4Checksum(ip, 20));
  std::uint8_t* udp = ip + 20;
  putU16(udp, envelope.sourcePort);
  putU16(udp + 2, envelope.destinationPort);
  putU16(udp + 4, static_cast<std::uint16_t>(8 + n));
  if (n) std::memcpy(udp + 8, payload.data(), n);
}

bool PcapWriter::write(std::span<const std::uint8_t> payload, const DatagramEnvelope& envelope) {
  if (!error_.empty()) return false;
  encapsulate(payload, envelope, static_cast<std::uint16_t>(written_), packet_);
  const std::size_t recordBytes = 16 + packet_.size();  // record header + packet
  if (pendingBytes_ + recordBytes > bufferSize && !flush()) return false;
  pcap_pkthdr header{};
  std::int64_t micros = envelope.arrivalMicroseconds;
  if (micros < 0) micros = 0;
  header.ts.tv_sec = static_cast<time_t>(micros / 1000000);
  header.ts.tv_usec = static_cast<suseconds_t>(micros % 1000000);
  header.caplen = header.len = static_cast<bpf_u_int32>(packet_.size());
  errno = 0;
  pcap_dump(reinterpret_cast<u_char*>(dumper_), &header, packet_.data());
  // pcap_dump reports nothing itself; the stream remembers a failed write.
  if (std::ferror(pcap_dump_file(dumper_))) {
    fail(errno);
    return false;
  }
  pendingBytes_ += recordBytes;
  ++written_;
  return true;
}

bool PcapWriter::flush() {
  if (!error_.empty()) return false;
  errno = 0;
  if (pcap_dump_flush(dumper_) != 0 || std::ferror(pcap_dump_file(dumper_))) {
    fail(errno);
    return false;
  }
  goodLength_ += static_cast<long>(pendingBytes_);
  pendingBytes_ = 0;
  flushed_ = written_;
  return true;
}

void PcapWriter::fail(int errorNumber) {
  error_ = "could not write " + path_ + ": " + (errorNumber ? std::strerror(errorNumber) : "write error");
  FILE* file = pcap_dump_file(dumper_);
  // Nothing buffered may reach the file later (closing would try again),
  // and a record the disk took only part of is cut off.
  __fpurge(file);
  if (::ftruncate(::fileno(file), goodLength_) != 0) {
    // The file keeps a partial record at its end; readers say so.
  }
  written_ = flushed_;
}

}  // namespace velmora
