// The session recorder on the test thread standing in for the receiver's
// queue: everything handed to it reaches the file in order, the file is
// readable while recording goes on (flushed at least every flushInterval),
// and a write failure ends the recording with a message but keeps what was
// written.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <chrono>
#include <thread>

#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "net/PcapReader.h"
#include "net/SessionRecorder.h"

namespace velmora {
namespace {

std::vector<std::uint8_t> payload(std::size_t n, std::uint8_t fill) { return std::vector<std::uint8_t>(n, fill); }

DatagramEnvelope arrival(std::uint16_t port, std::int64_t micros) {
  DatagramEnvelope e;
  e.sourceAddress = 0x7F000001;
  e.sourcePort = 40000;
  e.destinationPort = port;
  e.arrivalMicroseconds = micros;
  return e;
}

bool waitFor(const std::function<bool()>& pred, double seconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return pred();
}

TEST(SessionRecorderTest, RecordsInOrderAndTheFileIsReadableWhileRecording) {
  test::LogCapture log;
  test::TempDir dir;
  const auto path = (dir.path() / "show.pcap").string();
  auto created = SessionRecorder::create(path);
  ASSERT_TRUE(created) << created.reason;
  SessionRecorder& recorder = *created.value;
  EXPECT_TRUE(log.has("[SessionRecorder] Recording tracking datagrams to " + path));

  for (int i = 0; i < 50; ++i) {
    recorder.datagramArrived(payload(100 + i, std::uint8_t(i)), arrival(i % 2 ? 11111 : 39539, 1000000 + i * 16667));
  }
  // Without stopping: within about a second the file holds all of them.
  ASSERT_TRUE(waitFor([&] { return PcapReader::readFile(path).datagrams.size() == 50; }, 3.0))
      << PcapReader::readFile(path).error;
  EXPECT_EQ(recorder.status().datagrams, 50u);
  EXPECT_TRUE(recorder.status().recording);
  EXPECT_EQ(recorder.statusText(), "Recording: 50 datagrams to " + path);

  recorder.datagramArrived(payload(3, 0xEE), arrival(49983, 2000000));
  recorder.stop();
  EXPECT_TRUE(log.has("[SessionRecorder] Recording stopped: 51 datagrams in " + path));
  EXPECT_EQ(recorder.statusText(), "Recorded 51 datagrams to " + path);
  recorder.datagramArrived(payload(3, 0xEE), arrival(49983, 3000000));  // after stop: ignored
  recorder.stop();                                                       // idempotent

  const auto read = PcapReader::readFile(path);
  ASSERT_TRUE(read) << read.error;
  ASSERT_EQ(read.datagrams.size(), 51u);
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(read.datagrams[i].payload, payload(100 + i, std::uint8_t(i))) << i;
    EXPECT_EQ(read.datagrams[i].envelope.destinationPort, i % 2 ? 11111 : 39539) << i;
    EXPECT_EQ(read.datagrams[i].envelope.arrivalMicroseconds, 1000000 + i * 16667) << i;
  }
  EXPECT_EQ(read.datagrams[50].envelope.destinationPort, 49983);
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
  rlimit small = old;
  small.rlim_cur = 64 * 1024;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);

  auto created = SessionRecorder::create(path);
  ASSERT_TRUE(created) << created.reason;
  SessionRecorder& recorder = *created.value;
  for (int i = 0; i < 10; ++i) recorder.datagramArrived(payload(1000, 1), arrival(11111, i));
  ASSERT_TRUE(waitFor([&] { return PcapReader::readFile(path).datagrams.size() == 10; }, 3.0));
  for (int i = 0; i < 200 && recorder.status().recording; ++i) {
    recorder.datagramArrived(payload(1000, 2), arrival(11111, 100 + i));
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  ASSERT_TRUE(waitFor([&] { return !recorder.status().recording; }, 3.0));
  ::setrlimit(RLIMIT_FSIZE, &old);
  ::signal(SIGXFSZ, oldHandler);

  const auto status = recorder.status();
  EXPECT_EQ(status.error, "could not write " + path + ": File too large");
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
