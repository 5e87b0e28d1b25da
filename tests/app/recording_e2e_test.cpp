// Session recordings end to end: velmora --record with the phone simulator
// streaming, the file read by Debian's tshark (a reader nobody here wrote)
// while the recording goes on, the recording replayed by velmora-phone-sim
// --replay into a fresh velmora, and a disk that fills up stopping the
// recording while the show goes on. What the recorder writes and how a
// failed write is cut back are session_recorder_test's and pcap_test's.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <algorithm>
#include <regex>

#include "net/PcapReader.h"
#include "support/VelmoraRun.h"

namespace velmora {
namespace {

const std::string kPhoneSim = test::builtProgram("velmora-phone-sim");

// What tshark (a reader nobody here wrote) reads from a capture file: one destination port per line.
test::Finished tshark(const std::string& file) {
  return test::shell("tshark -r \"$1\" -T fields -e udp.dstport 2>/dev/null", {file});
}
long lines(const test::Finished& f) { return f.status == 0 ? std::count(f.output.begin(), f.output.end(), '\n') : -1; }

TEST(RecordingEndToEndTest, VelmoraRecordsWhatArrivesTsharkReadsItAndAReplayBringsItBack) {
  test::TempDir dir;
  const std::string file = (dir.path() / "show.pcap").string();
  const std::uint16_t a = test::freeUdpPort(), b = test::freeUdpPort();
  test::VelmoraRun velmora({.args = {"--record", file}, .ports = {a, b}});
  ASSERT_TRUE(velmora.ready()) << velmora->output();
  const std::string recording = "[SessionRecorder] Recording tracking datagrams to " + file;
  EXPECT_TRUE(velmora->printed(recording) || velmora->waitForLine(recording, 10)) << velmora->output();

  const test::Finished sim = test::runToEnd({kPhoneSim, "--format", "osc", "--port", std::to_string(b), "--duration", "1"});
  ASSERT_EQ(sim.status, 0) << sim.output;
  std::smatch m;
  ASSERT_TRUE(std::regex_search(sim.output, m, std::regex(R"(\[phone-sim\] sent ([0-9]+) packets\n$)"))) << sim.output;
  const long sent = std::stol(m[1].str()) + 1;
  const std::string stray = "not any format at all";
  test::UdpSocket().sendTo(a, stray);  // unknown ones are recorded too
  ASSERT_TRUE(velmora->waitForLine([](const std::string& l) { return l.find("(Unknown format)") != std::string::npos; },
                                   6.0))
      << velmora->output();

  // Written as it goes: readable before velmora stops.
  EXPECT_EQ(lines(tshark(file)), sent);
  EXPECT_TRUE(velmora.stopsCleanly()) << velmora->output();
  EXPECT_EQ(velmora->printed("[SessionRecorder] Recording stopped: " + std::to_string(sent) + " datagrams in " + file), 1)
      << velmora->output();
  const test::Finished ports = tshark(file);
  EXPECT_EQ(lines(ports), sent);
  EXPECT_NE(ports.output.find(std::to_string(a) + "\n"), std::string::npos) << ports.output;
  EXPECT_NE(ports.output.find(std::to_string(b) + "\n"), std::string::npos) << ports.output;
  // Each datagram as it came, stamped when it came: the simulator's second, then the stray one.
  const auto read = PcapReader::readFile(file);
  ASSERT_EQ(read.datagrams.size(), static_cast<std::size_t>(sent)) << read.error;
  EXPECT_EQ(read.datagrams.back().payload, std::vector<std::uint8_t>(stray.begin(), stray.end()));
  EXPECT_EQ(read.datagrams.back().envelope.destinationPort, a);
  const auto at = [&](std::size_t i) { return double(read.datagrams[i].envelope.arrivalMicroseconds) * 1e-6; };
  const double span = at(read.datagrams.size() - 2) - at(0);
  EXPECT_GT(span, 0.8);
  EXPECT_LT(span, 5.0);  // a 1 s stream; room for a starved receiver thread under load

  // Replayed into a fresh velmora on the same ports, as recorded: every
  // datagram arrives. That one records to a disk full from the start: the
  // show runs without a recording.
  test::VelmoraRun again({.args = {"--record", "/dev/full"}, .ports = {a, b}});
  ASSERT_TRUE(again.ready()) << again->output();
  EXPECT_EQ(again->printed("[Velmora] Not recording: could not write /dev/full: No space left on device"), 1)
      << again->output();
  const auto started = std::chrono::steady_clock::now();
  const test::Finished replay = test::runToEnd({kPhoneSim, "--replay", file});
  EXPECT_GT(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(), span * 0.9);
  ASSERT_EQ(replay.status, 0) << replay.output;
  EXPECT_NE(replay.output.find("[phone-sim] sent " + std::to_string(sent) + " packets\n"), std::string::npos);
  const std::regex status(R"(\[Velmora\] tracking: .* ([0-9]+) received.*)");
  EXPECT_TRUE(again->waitForLine(
      [&](const std::string& l) { return std::regex_match(l, m, status) && std::stol(m[1].str()) == sent; }, 6.0))
      << again->output();
  EXPECT_TRUE(again.stopsCleanly()) << again->output();
}

TEST(RecordingEndToEndTest, AFullDiskStopsTheRecordingNeverTheShow) {
  // A disk that fills up during the show (a 64 KiB file-size limit): the
  // recording stops with a message, tracking carries on.
  test::TempDir dir;
  const std::string file = (dir.path() / "limited.pcap").string();
  test::VelmoraRun velmora({.args = {"--record", file}});
  ASSERT_TRUE(velmora.ready()) << velmora->output();
  const rlimit limit{64 * 1024, RLIM_INFINITY};
  ASSERT_EQ(::prlimit(velmora->pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
  test::ChildProcess sim({kPhoneSim, "--format", "json", "--port", std::to_string(velmora.ports[0]), "--duration", "4"}, {});
  std::string stopped;
  EXPECT_TRUE(velmora->waitForLine(
      [&](const std::string& l) {
        stopped = l;
        return l.starts_with("[SessionRecorder] Recording stopped: could not write " + file + ": File too large (");
      },
      10.0))
      << velmora->output();
  // The show goes on: packets keep arriving after the recording stopped.
  EXPECT_TRUE(velmora->waitForLine([](const std::string& l) { return l.starts_with("[Velmora] tracking: "); }, 5.0))
      << velmora->output();
  EXPECT_EQ(sim.wait(30), 0);
  EXPECT_TRUE(velmora.stopsCleanly()) << velmora->output();
  // What was kept is a whole capture.
  const auto read = PcapReader::readFile(file);
  EXPECT_TRUE(read) << read.error;
  EXPECT_GT(read.datagrams.size(), 10u);
  EXPECT_NE(stopped.find("(" + std::to_string(read.datagrams.size()) + " datagrams kept)"), std::string::npos) << stopped;
}

}  // namespace
}  // namespace velmora
