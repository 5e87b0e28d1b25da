#pragma once
// Writes tracking datagrams to a pcap capture file through libpcap, so that
// Wireshark and tshark open a session recording like any network capture.
// Each datagram becomes one raw-IP packet (link type "raw IPv4") with
// synthesised IPv4 and UDP headers carrying its sender, destination port and
// arrival time; the payload is stored unchanged.
//
// Whole records only: the file is written in large blocks that always end
// at a record boundary (the stream's buffer is larger than what is written
// between two flushes), and a failed flush cuts the file back to the last
// complete record. So a crash or a full disk leaves a file every reader
// accepts, holding every datagram flushed before.
//
// Threads: one thread at a time (the session recorder's queue).

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "base/CreateResult.h"
#include "net/DatagramEnvelope.h"

struct pcap;
struct pcap_dumper;

namespace velmora {

class PcapWriter {
 public:
  // Bytes of the synthesised IPv4 (20) and UDP (8) headers before each payload.
  static constexpr std::size_t headerSize = 28;
  // The largest UDP payload an IPv4 packet can carry; longer payloads are cut.
  static constexpr std::size_t maxPayload = 65535 - headerSize;
  // Bytes buffered before the file sees them, at most.
  static constexpr std::size_t bufferSize = 4 << 20;

  // Creates (or empties) the file and writes the capture header. Fails with
  // "could not create FILE: reason".
  static CreateResult<PcapWriter> create(const std::string& path);
  // Flushes and closes the file.
  ~PcapWriter();
  PcapWriter(const PcapWriter&) = delete;
  PcapWriter& operator=(const PcapWriter&) = delete;

  // Appends one datagram (buffered; a full buffer is flushed first). False
  // once the file can no longer be written; error() then says why, and
  // later calls do nothing.
  bool write(std::span<const std::uint8_t> payload, const DatagramEnvelope& envelope);
  // Hands everything buffered to the system, so a crash after it loses
  // nothing written before. False on a write error (a full disk): the file
  // is cut back to the datagrams flushed before.
  bool flush();

  const std::string& path() const { return path_; }
  // Empty until a write failed: "could not write FILE: reason".
  const std::string& error() const { return error_; }
  // Datagrams accepted by write() / in the file for sure (flushed).
  std::uint64_t datagramsWritten() const { return written_; }
  std::uint64_t datagramsFlushed() const { return flushed_; }

  // The packet stored for one datagram: IPv4 header (checksummed, "don't
  // fragment", TTL 64, protocol UDP), UDP header (checksum 0: none), payload.
  // Replaces `out` with it.
  static void encapsulate(std::span<const std::uint8_t> payload, const DatagramEnvelope& envelope,
                          std::uint16_t identification, std::vector<std::uint8_t>& out);

 private:
  PcapWriter(std::string path, pcap* handle, pcap_dumper* dumper);
  // Records the error, drops what is buffered and cuts the file back to
  // its last complete record.
  void fail(int errorNumber);

  std::string path_;
  pcap* handle_ = nullptr;
  pcap_dumper* dumper_ = nullptr;
  std::string error_;
  std::uint64_t written_ = 0;
  std::uint64_t flushed_ = 0;
  std::size_t pendingBytes_ = 0;  // buffered since the last flush
  long goodLength_ = 0;           // file length after the last successful flush
  std::vector<std::uint8_t> packet_;  // reused for every datagram
};

}  // namespace velmora
