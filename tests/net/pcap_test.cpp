// Session recording files: what PcapWriter stores (synthesised IPv4/UDP
// around each payload), what PcapReader gives back, how the reader refuses
// files that are not captures, are cut short or lie about lengths, and the
// recorder that writes them while the show runs.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <initializer_list>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "base/MainQueue.h"
#include "net/PcapReader.h"
#include "net/PcapWriter.h"
#include "net/SessionRecorder.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Capture files built byte by byte: the classic pcap layout, little-endian,
// microsecond timestamps.
//   file header (24 bytes): magic a1b2c3d4, version 2.4, zone 0, sigfigs 0,
//                           snap length, link type
//   record header (16):     seconds, microseconds, captured length, original length
struct Capture {
  // 101: raw IP (as Velmora records); 1: Ethernet.
  explicit Capture(std::uint32_t linkType = 101) { le32({0xA1B2C3D4u, 0x00040002u, 0u, 0u, 65535u, linkType}); }
  // One record of `packet`. A `captured` length other than 0 (the packet's
  // own size) lies about it; an `original` length other than 0 (the captured
  // one) says the capture snapped the packet.
  Capture& record(const Bytes& packet, std::uint32_t micros = 0, std::uint32_t captured = 0,
                  std::uint32_t original = 0) {
    captured = captured ? captured : static_cast<std::uint32_t>(packet.size());
    le32({1700000000u, micros, captured, original ? original : captured});
    bytes.insert(bytes.end(), packet.begin(), packet.end());
    return *this;
  }
  void le32(std::initializer_list<std::uint32_t> values) {
    for (std::uint32_t v : values)
      for (int shift = 0; shift < 32; shift += 8) bytes.push_back(std::uint8_t(v >> shift));
  }
  Bytes bytes;
};

// An IPv4 UDP packet: 20-byte header (no options, checksum left 0), 8-byte
// UDP header, payload. Fields a test wants to break are parameters.
Bytes udp(const Bytes& payload, std::uint16_t destinationPort = 11111, std::uint8_t protocol = 17,
          std::uint16_t flagsAndOffset = 0x4000) {
  const std::size_t total = 28 + payload.size();
  Bytes p = {
      0x45, 0x00, std::uint8_t(total >> 8), std::uint8_t(total),                      //  0: version/IHL, TOS, length
      0x00, 0x01, std::uint8_t(flagsAndOffset >> 8), std::uint8_t(flagsAndOffset),    //  4: id, flags/offset
      64,   protocol, 0x00, 0x00,                                                     //  8: TTL, protocol, checksum
      10,   0,    0,    2,                                                            // 12: source 10.0.0.2
      10,   0,    0,    1,                                                            // 16: destination 10.0.0.1
      0xC3, 0x50, std::uint8_t(destinationPort >> 8), std::uint8_t(destinationPort),  // 20: ports 50000 -> dst
      std::uint8_t((total - 20) >> 8), std::uint8_t(total - 20), 0x00, 0x00,          // 24: UDP length, checksum
  };
  p.insert(p.end(), payload.begin(), payload.end());
  return p;
}

Bytes bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

// From 192.168.1.23:50123 to 127.0.0.1.
DatagramEnvelope envelope(std::uint16_t destinationPort, std::int64_t micros) {
  return {0xC0A80117, 50123, 0x7F000001, destinationPort, micros};
}

auto fields(const RecordedDatagram& d) {
  const DatagramEnvelope& e = d.envelope;
  return std::tuple(d.payload, e.sourceAddress, e.sourcePort, e.destinationAddress, e.destinationPort,
                    e.arrivalMicroseconds);
}

TEST(PcapWriterTest, SynthesisedHeadersAroundThePayload) {
  Bytes packet;
  PcapWriter::encapsulate(bytesOf("hi"), envelope(11111, 0), 7, packet);
  const Bytes expected = {
      0x45, 0x00, 0x00, 0x1E,  //  0: IPv4, 5-word header; total length 30
      0x00, 0x07, 0x40, 0x00,  //  4: identification 7; don't fragment
      0x40, 0x11, 0xFA, 0x07,  //  8: TTL 64, UDP, header checksum
      0xC0, 0xA8, 0x01, 0x17,  // 12: source 192.168.1.23
      0x7F, 0x00, 0x00, 0x01,  // 16: destination 127.0.0.1
      0xC3, 0xCB, 0x2B, 0x67,  // 20: ports 50123 -> 11111
      0x00, 0x0A, 0x00, 0x00,  // 24: UDP length 10, no checksum
      'h',  'i',               // 28: payload
  };
  EXPECT_EQ(packet, expected);
}

TEST(PcapWriterTest, FullDiskIsAClearError) {
  // /dev/full accepts the open and refuses every write. A writer that was
  // made has no reason.
  EXPECT_EQ(PcapWriter::create("/dev/full").reason, "could not write /dev/full: No space left on device");
  auto missing = PcapWriter::create("/nonexistent-folder/session.pcap");
  EXPECT_EQ(missing.reason.rfind("could not create /nonexistent-folder/session.pcap: ", 0), 0u) << missing.reason;
}

TEST(PcapReaderTest, OtherTrafficIsSkippedAndLinkLayersAreUnwrapped) {
  const auto payload = bytesOf("/Head/Yaw");
  Capture raw;
  raw.record(udp(payload, 11111))
      .record(udp(payload, 11111, 6))          // TCP
      .record(udp(payload, 11111, 17, 0x2000))  // first fragment
      .record({0x60, 0, 0, 0, 0, 0, 17, 64})   // IPv6
      .record(udp(payload, 49983, 17, 0x0000), 500000);
  auto r = PcapReader::readBytes(raw.bytes);
  ASSERT_TRUE(r) << r.error;
  EXPECT_EQ(r.skipped, 3u);
  ASSERT_EQ(r.datagrams.size(), 2u);
  // From 10.0.0.2:50000 to 10.0.0.1, at the record's time in microseconds.
  EXPECT_EQ(fields(r.datagrams[0]), std::tuple(payload, 0x0A000002u, 50000, 0x0A000001u, 11111, 1700000000000000));
  EXPECT_EQ(fields(r.datagrams[1]), std::tuple(payload, 0x0A000002u, 50000, 0x0A000001u, 49983, 1700000000500000));
  EXPECT_EQ(r.datagrams[0].envelope.senderText(), "10.0.0.2:50000");

  // Ethernet, with and without a VLAN tag; ARP is skipped; padding after the IP packet is ignored.
  const auto packet = udp(payload, 39539);
  auto ethernet = [](Bytes frame, const Bytes& body, std::size_t padding) {
    frame.insert(frame.begin(), 12, 0x02);  // destination and source MAC before the type
    frame.insert(frame.end(), body.begin(), body.end());
    frame.resize(frame.size() + padding, 0);
    return frame;
  };
  Capture eth(1);
  eth.record(ethernet({0x08, 0x00}, packet, 6))
      .record(ethernet({0x81, 0x00, 0x00, 0x05, 0x08, 0x00}, packet, 0))
      .record(ethernet({0x08, 0x06, 0, 1}, {}, 0));
  r = PcapReader::readBytes(eth.bytes);
  EXPECT_EQ(std::tuple(r.error, r.skipped, r.datagrams.size()), std::tuple("", 1u, 2u));
  for (const auto& d : r.datagrams)
    EXPECT_EQ(std::tuple(d.payload, d.envelope.destinationPort), std::tuple(payload, 39539));
}

TEST(PcapReaderTest, HostileFilesGetOneLineAndNoDatagrams) {
  const auto good = udp(bytesOf("jawOpen-50|"));
  const auto whole = Capture().record(good).record(good).bytes;
  auto withByte = [&](std::size_t at, std::uint8_t value) {
    auto p = good;
    p[at] = value;
    return Capture().record(good).record(p).bytes;
  };
  struct Case {
    const char* what;
    Bytes bytes;
    const char* expected;  // a part of the error line
  };
  const std::vector<Case> cases = {
      {"empty", {}, "empty file"},
      {"text", bytesOf("this is a text file, not a capture at all"), "not a capture file"},
      {"header cut short", Bytes(whole.begin(), whole.begin() + 10), "not a capture file"},
      {"last record cut short", Bytes(whole.begin(), whole.end() - 5), "damaged after 1 good packets"},
      {"record claims 4 GiB", Capture().record(good).record(good, 0, 0xFFFFFFFFu).bytes, "damaged after 1 good"},
      {"record claims more than the file", Capture().record(good, 0, 5000).bytes, "damaged after 0 good"},
      {"packet snapped", Capture().record(good, 0, 0, 2000).bytes, "cut short by the capture"},
      {"IP total length beyond the packet", withByte(3, 0xFF), "IPv4 total length"},
      {"IP header length 4 bytes", withByte(0, 0x41), "IPv4 header length 4"},
      {"IP header longer than the packet", withByte(0, 0x4F), "IPv4 total length"},
      {"UDP length beyond the packet", withByte(25, 0xFF), "UDP length"},
      {"UDP length below its header", withByte(25, 0x03), "UDP length 3"},
      {"IP version 5", withByte(0, 0x55), "IP version 5"},
      {"destination port 0", Capture().record(udp(bytesOf("x"), 0)).bytes, "destination port 0"},
      {"unsupported link type", Capture(147).record(good).bytes, "link type"},
  };
  // That an error is one line naming the file, with no datagrams, is the
  // capture fuzzer's check on every file it makes up.
  for (const auto& c : cases) {
    const auto r = PcapReader::readBytes(c.bytes, "f.pcap");
    EXPECT_NE(r.error.find(c.expected), std::string::npos) << c.what << ": " << r.error;
  }
  EXPECT_EQ(PcapReader::readFile("/nonexistent/f.pcap").error,
            "/nonexistent/f.pcap: cannot be opened (No such file or directory)");
}

// The session recorder on the test thread standing in for the receiver's
// queue: everything handed to it reaches the file in order, the file is
// readable while recording goes on (flushed at least every flushInterval),
// and a write failure ends the recording with a message but keeps what was
// written.
TEST(SessionRecorderTest, RecordsInOrderAndTheFileIsReadableWhileRecording) {
  test::LogCapture log;
  test::TempDir dir;
  const auto path = (dir.path() / "show.pcap").string();
  auto created = SessionRecorder::create(path);
  ASSERT_TRUE(created) << created.reason;
  SessionRecorder& recorder = *created.value;
  EXPECT_TRUE(log.has("[SessionRecorder] Recording tracking datagrams to " + path));

  // Written as they arrive, from empty to the largest payload a record holds.
  std::vector<RecordedDatagram> sent;
  for (int i = 0; i < 50; ++i)
    sent.push_back({envelope(i % 2 ? 11111 : 39539, 1700000000123456 + i * 16667), Bytes(i * 3, std::uint8_t(i))});
  sent[7].payload.assign(PcapWriter::maxPayload, 0xAB);
  for (const auto& d : sent) recorder.datagramArrived(d.payload, d.envelope);
  // Without stopping: within about a second the file holds all of them.
  ASSERT_TRUE(MainQueue::shared().runUntil([&] { return PcapReader::readFile(path).datagrams.size() == 50; }, 3.0))
      << PcapReader::readFile(path).error;
  EXPECT_EQ(recorder.statusText(), "Recording: 50 datagrams to " + path);

  sent.push_back({envelope(49983, 1700000002000000), Bytes(3, 0xEE)});
  recorder.datagramArrived(sent.back().payload, sent.back().envelope);
  recorder.stop();
  EXPECT_TRUE(log.has("[SessionRecorder] Recording stopped: 51 datagrams in " + path));
  EXPECT_EQ(recorder.statusText(), "Recorded 51 datagrams to " + path);
  recorder.datagramArrived(Bytes(3, 0xEE), envelope(49983, 3000000));  // after stop: ignored
  recorder.stop();                                                       // idempotent

  // What was written reads back unchanged (the writer's round trip).
  const auto read = PcapReader::readFile(path);
  ASSERT_TRUE(read) << read.error;
  ASSERT_EQ(read.datagrams.size(), sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(fields(read.datagrams[i]), fields(sent[i])) << i;
}

TEST(SessionRecorderTest, WriteFailureEndsTheRecordingButKeepsWhatWasWritten) {
  // A file size limit fails writes the way a full disk does (the process
  // ignores SIGXFSZ, as velmora does, so the write reports an error).
  test::LogCapture log;
  test::TempDir dir;
  const auto path = (dir.path() / "limited.pcap").string();
  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  auto oldHandler = ::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{64 * 1024, old.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);

  auto created = SessionRecorder::create(path);
  ASSERT_TRUE(created) << created.reason;
  SessionRecorder& recorder = *created.value;
  for (int i = 0; i < 10; ++i) recorder.datagramArrived(Bytes(1000, 1), envelope(11111, i));
  ASSERT_TRUE(MainQueue::shared().runUntil([&] { return PcapReader::readFile(path).datagrams.size() == 10; }, 3.0));
  for (int i = 0; i < 200 && recorder.status().recording; ++i) {
    recorder.datagramArrived(Bytes(1000, 2), envelope(11111, 100 + i));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  ASSERT_TRUE(MainQueue::shared().runUntil([&] { return !recorder.status().recording; }, 3.0));
  ::setrlimit(RLIMIT_FSIZE, &old);
  ::signal(SIGXFSZ, oldHandler);

  const auto status = recorder.status();
  const std::string expected = "Recording stopped: could not write " + path + ": File too large (" +
                               std::to_string(status.datagrams) + " datagrams kept)";
  EXPECT_EQ(recorder.statusText(), expected);
  EXPECT_TRUE(log.has("[SessionRecorder] " + expected));
  recorder.stop();  // nothing more to say
  EXPECT_EQ(log.lines().size(), 2u);

  // The file was cut back to whole records: every datagram kept reads back.
  const auto read = PcapReader::readFile(path);
  ASSERT_TRUE(read) << read.error;
  EXPECT_GE(read.datagrams.size(), 10u);
  EXPECT_EQ(read.datagrams.size(), status.datagrams);
}

}  // namespace
}  // namespace velmora
