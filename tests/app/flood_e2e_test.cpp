// The built velmora under a flood: all three tracking ports hammered for ten
// seconds with Live Link datagrams and OSC tracking bundles (52 VMC
// blendshapes, the intake benchmarks' bytes) from several
// senders, as fast as this machine sends them, while a numbered series of
// remote cue commands goes to the cue port. Every command must be handled
// while the flood runs, resident memory must stay flat, and the program
// must still stop cleanly.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "IntakeDatagrams.h"
#include "support/OscBytes.h"
#include "support/VelmoraRun.h"

namespace velmora {
namespace {

using Clock = std::chrono::steady_clock;
using test::Bytes;

constexpr double kFloodSeconds = 10.0;
constexpr auto kCueInterval = std::chrono::milliseconds(100);
// Resident memory may grow this much between the sample at 2 s and the end
// of the flood. What the flood touches is in place by 2 s (the receiver's
// batch slots, one frame waiting per sender, the filters for the 52 names,
// malloc's per-thread arenas); a little more may still settle (arena
// trimming, late pages of the log). A leak of one small allocation per
// datagram, or a queue of frames without a bound, adds tens to hundreds of
// megabytes in the 8 s between the samples at these rates (tens of
// thousands of datagrams a second reach the program).
constexpr long kRssMarginKiB = 8 * 1024;

// VmRSS of a process in KiB; -1 when it cannot be read.
long residentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("VmRSS:")) return std::stol(line.substr(6));
  return -1;
}

TEST(FloodEndToEndTest, EveryCueIsHandledAndMemoryStaysFlatWhileAllTrackingPortsAreFlooded) {
  test::VelmoraRun velmora({.ports = {test::freeUdpPort(), test::freeUdpPort(), test::freeUdpPort()}});
  ASSERT_TRUE(velmora.ready()) << velmora->output();

  // Every line goes through here while the test waits, so velmora never
  // blocks on a full pipe: the cue lines by value, and the last status line.
  std::map<std::string, int> cueIndex;
  const int cues = static_cast<int>(kFloodSeconds * 1000 / kCueInterval.count());
  // Cue i's value is i + 1.5: exact in binary and in decimal.
  for (int i = 0; i < cues; ++i) cueIndex["[OSC] /velmora/sensitivity [" + std::to_string(i + 1) + ".5]"] = i;
  std::vector<Clock::time_point> handled(cues);
  std::vector<int> handledOrder;
  std::string lastStatus;
  auto readUntil = [&](Clock::time_point until) {
    velmora->waitForLine(
        [&](const std::string& l) {
          if (const auto it = cueIndex.find(l); it != cueIndex.end()) {
            handled[it->second] = Clock::now();
            handledOrder.push_back(it->second);
          } else if (l.rfind("[Velmora] tracking: ", 0) == 0) {
            lastStatus = l;
          }
          return false;
        },
        std::chrono::duration<double>(until - Clock::now()).count());
  };

  // Ready for commands before the flood: one cue outside the series.
  const test::UdpSocket cueSender;
  cueSender.sendTo(velmora.cuePort, test::oscMessage("/velmora/sensitivity", {0.5f}));
  ASSERT_TRUE(velmora->waitForLine("[OSC] /velmora/sensitivity [0.5]", 20.0)) << velmora->output();

  // One thread per tracking port, each sending from two sockets of its own
  // (64 datagrams from each in turn), alternating Live Link and OSC, until stopped.
  const std::vector<Bytes> datagrams{intake::liveLink(), intake::oscBundle()};  // the intake benchmarks' bytes
  std::vector<std::jthread> flood;
  for (std::uint16_t port : velmora.ports)
    flood.emplace_back([&, port](const std::stop_token& stop) {
      const test::UdpSocket a, b;
      for (std::uint64_t n = 0; !stop.stop_requested(); ++n) (n / 64 % 2 ? a : b).sendTo(port, datagrams[n % 2]);
    });
  long rssAt2s = -1;
  const auto start = Clock::now();
  for (int i = 0; i < cues; ++i) {
    readUntil(start + i * kCueInterval);
    cueSender.sendTo(velmora.cuePort, test::oscMessage("/velmora/sensitivity", {static_cast<float>(i) + 1.5f}));
    if (rssAt2s < 0 && Clock::now() - start >= std::chrono::seconds(2)) rssAt2s = residentKiB(velmora->pid());
  }
  readUntil(start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(kFloodSeconds)));
  const long rssAtEnd = residentKiB(velmora->pid());
  const auto floodEnd = Clock::now();
  flood.clear();  // stops and joins the senders

  // The rest of the cue lines, then a status line counting what came.
  const auto grace = Clock::now() + std::chrono::seconds(10);
  while (handledOrder.size() < static_cast<std::size_t>(cues) && Clock::now() < grace)
    readUntil(std::min(grace, Clock::now() + std::chrono::milliseconds(200)));
  readUntil(Clock::now() + std::chrono::milliseconds(2500));

  // Every command, once each, in the order sent; each one sent before the
  // last second of the flood was handled while the flood still ran.
  ASSERT_EQ(handledOrder.size(), static_cast<std::size_t>(cues)) << velmora->output();
  for (int i = 0; i < cues; ++i) EXPECT_EQ(handledOrder[i], i);
  for (int i = 0; i < cues - 10; ++i) EXPECT_LT(handled[i], floodEnd) << "cue " << i;

  // The flood reached the tracking state, and it was a flood.
  const std::regex status(R"(\[Velmora\] tracking: [0-9.]+ packets/s from .*, ([0-9]+) received, (?:head [^,]*, )?([0-9]+) dropped under load.*)");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(lastStatus, m, status)) << lastStatus;
  EXPECT_GT(std::stoull(m[1].str()), 10000u) << lastStatus;
  EXPECT_GT(std::stoull(m[2].str()), 0u) << lastStatus;

  ASSERT_GT(std::min(rssAt2s, rssAtEnd), 0);  // both read
  EXPECT_LE(rssAtEnd - rssAt2s, kRssMarginKiB) << "resident memory grew from " << rssAt2s << " to " << rssAtEnd << " KiB";
  EXPECT_TRUE(velmora.stopsCleanly()) << velmora->output();
}

}  // namespace
}  // namespace velmora
