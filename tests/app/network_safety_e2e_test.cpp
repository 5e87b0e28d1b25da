// Trusted senders and the relay, end to end with the built velmora and
// settings written as an operator would: oscsend (liblo-tools) from a
// refused address changes nothing while an allowed one works, tracking from
// outside the allow-list is dropped, a bind address narrows a listener, and
// relay targets receive the phone's datagrams byte for byte while a target
// on Velmora's own port is refused.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "support/ChildProcess.h"
#include "support/OscBytes.h"
#include "support/TempDir.h"
#include "support/UdpSocket.h"

namespace velmora {
namespace {

const std::string kVelmora = test::builtProgram("velmora");
const std::string kPhoneSim = test::builtProgram("velmora-phone-sim");

int oscsend(const std::vector<std::string>& args) {
  std::vector<std::string> full = {"/usr/bin/oscsend"};
  full.insert(full.end(), args.begin(), args.end());
  return test::runToEnd(full, {}, 10).status;
}

// A velmora over a settings file holding `settings`, tracking on `trackingPort`.
std::unique_ptr<test::ChildProcess> startVelmora(const test::TempDir& config, const nlohmann::json& settings,
                                                 std::uint16_t trackingPort) {
  std::ofstream(config.path() / "settings.json") << settings.dump();
  return std::make_unique<test::ChildProcess>(
      std::vector<std::string>{kVelmora}, std::vector<std::string>{"VELMORA_CONFIG_DIR=" + config.path().string(),
                                                                   "VELMORA_TRACKING_PORTS=" + std::to_string(trackingPort)});
}

bool hasLine(const test::ChildProcess& p, const std::string& prefix) {
  for (const auto& l : p.lines())
    if (l.rfind(prefix, 0) == 0) return true;
  return false;
}

TEST(NetworkSafetyEndToEndTest, OscFromARefusedSenderChangesNothing) {
  ASSERT_EQ(::access("/usr/bin/oscsend", X_OK), 0) << "oscsend (liblo-tools) is not installed; run scripts/setup";
  test::TempDir config;
  const std::uint16_t port = test::freeUdpPort();
  const std::string p = std::to_string(port);
  auto velmora = startVelmora(config, {{"oscCuePort", port}, {"oscAllowedSenders", {"127.0.0.2", "10.0.0.300"}}},
                              test::freeUdpPort());
  ASSERT_TRUE(velmora->waitForLine("[QLabOSCServer] QLab Remote Cue listener active on UDP port " + p, 20))
      << velmora->output();
  EXPECT_TRUE(hasLine(*velmora,
                      "[Velmora] Allowed senders for OSC cues: \"10.0.0.300\": not an IPv4 address; skipped"))
      << velmora->output();

  // oscsend sends from 127.0.0.1, which is not in the list.
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/sensitivity", "f", "2.5"}), 0);
  EXPECT_TRUE(velmora->waitForLine("[QLabOSCServer] Refused OSC from 127.0.0.1 (not in the allowed senders)", 10))
      << velmora->output();
  ASSERT_EQ(oscsend({"127.0.0.1", p, "/velmora/sensitivity", "f", "3.0"}), 0);  // counted, not logged again
  // The allowed sender (a socket on 127.0.0.2) works, and is the first command handled.
  const test::UdpSocket allowed(0, 0x7F000002);
  ASSERT_TRUE(allowed.bound());
  allowed.sendTo(port, test::oscMessage("/velmora/recentre"));
  EXPECT_TRUE(velmora->waitForLine("[OSC] /velmora/recentre []", 10)) << velmora->output();
  EXPECT_EQ(velmora->stop(SIGINT, 15.0), 0);
  EXPECT_FALSE(hasLine(*velmora, "[OSC] /velmora/sensitivity")) << velmora->output();
  int refusedLines = 0;
  for (const auto& l : velmora->lines()) refusedLines += l.rfind("[QLabOSCServer] Refused OSC", 0) == 0;
  EXPECT_EQ(refusedLines, 1) << velmora->output();
}

TEST(NetworkSafetyEndToEndTest, TrackingOnlyFromAllowedSendersAndOnTheBoundAddress) {
  test::TempDir config;
  const std::uint16_t port = test::freeUdpPort();
  auto velmora = startVelmora(config, {{"trackingAllowedSenders", {"127.0.0.1/32"}}, {"trackingBindAddress", "127.0.0.2"}},
                              port);
  ASSERT_TRUE(velmora->waitForLine("[TrackingReceiver] Listening for ARKit facial tracking on UDP port " +
                                       std::to_string(port), 20))
      << velmora->output();
  EXPECT_TRUE(hasLine(*velmora, "[Velmora] Tracking listens on 127.0.0.2 only")) << velmora->output();
  EXPECT_TRUE(hasLine(*velmora, "[Velmora] Accepting tracking only from: 127.0.0.1/32")) << velmora->output();

  // To 127.0.0.1: nobody listens there (the socket is bound to 127.0.0.2).
  test::ChildProcess wrongAddress({kPhoneSim, "--host", "127.0.0.1", "--port", std::to_string(port), "--duration", "1"}, {});
  EXPECT_EQ(wrongAddress.wait(20), 0);
  EXPECT_FALSE(velmora->waitForLine([](const std::string& l) { return l.rfind("[Velmora] tracking: ", 0) == 0; }, 2.0))
      << velmora->output();
  // To 127.0.0.2 (sent from 127.0.0.1, which is allowed): received.
  test::ChildProcess allowed({kPhoneSim, "--host", "127.0.0.2", "--port", std::to_string(port), "--duration", "1.5"}, {});
  EXPECT_TRUE(velmora->waitForLine([](const std::string& l) { return l.rfind("[Velmora] tracking: ", 0) == 0; }, 10.0))
      << velmora->output();
  EXPECT_EQ(allowed.wait(20), 0);
  EXPECT_EQ(velmora->stop(SIGINT, 15.0), 0);
  EXPECT_FALSE(hasLine(*velmora, "[TrackingReceiver] Refused")) << velmora->output();

  // A list without 127.0.0.1 and no bind address: the phone is refused, once in the log.
  test::TempDir config2;
  auto open = startVelmora(config2, {{"trackingAllowedSenders", {"127.0.0.2"}}}, port);
  ASSERT_TRUE(open->waitForLine("[TrackingReceiver] Listening for ARKit facial tracking on UDP port " +
                                    std::to_string(port), 20));
  test::ChildProcess refused({kPhoneSim, "--port", std::to_string(port), "--duration", "1.5"}, {});
  EXPECT_TRUE(open->waitForLine("[TrackingReceiver] Refused tracking data from 127.0.0.1 (not in the allowed senders)", 10))
      << open->output();
  EXPECT_EQ(refused.wait(20), 0);
  EXPECT_EQ(open->stop(SIGINT, 15.0), 0);
  EXPECT_FALSE(hasLine(*open, "[Velmora] tracking: ")) << open->output();
  int refusedLines = 0;
  for (const auto& l : open->lines()) refusedLines += l.rfind("[TrackingReceiver] Refused", 0) == 0;
  EXPECT_EQ(refusedLines, 1) << open->output();
}

TEST(NetworkSafetyEndToEndTest, RelayTargetsGetTheStreamUnchangedAndLoopsAreRefused) {
  test::TempDir config;
  const std::uint16_t port = test::freeUdpPort();
  test::UdpSocket otherApplication;
  const std::string target = "127.0.0.1:" + std::to_string(otherApplication.port());
  const std::string loop = "localhost:" + std::to_string(port);
  // Its own cue port too, so that another run holding the default one changes nothing here.
  auto velmora = startVelmora(config, {{"relayTargets", {target, loop}}, {"oscCuePort", test::freeUdpPort()}}, port);
  ASSERT_TRUE(velmora->waitForLine("[TrackingReceiver] Listening for ARKit facial tracking on UDP port " +
                                       std::to_string(port), 20))
      << velmora->output();
  // The relay resolves its targets on its own thread: the line may follow the listener's.
  const std::string refused = "[TrackingRelay] Refused relay target " + loop + ": this machine's port " +
                              std::to_string(port) + " is one of Velmora's own listening ports (it would loop)";
  EXPECT_TRUE(hasLine(*velmora, refused) || velmora->waitForLine(refused, 10)) << velmora->output();

  const test::UdpSocket phone;
  const std::vector<std::vector<std::uint8_t>> sent = {
      {'j', 'a', 'w', 'O', 'p', 'e', 'n', '-', '4', '0', '|', '=', '1', ',', '2', ',', '3'},
      {0x00, 0x01, 0xFE, 0xFF, 0x00},  // unknown format: relayed all the same
      std::vector<std::uint8_t>(300, 0x3F),
  };
  for (const auto& d : sent) phone.sendTo(port, d);
  for (const auto& d : sent) {
    const auto got = otherApplication.receive(5.0);
    ASSERT_TRUE(got) << velmora->output();
    EXPECT_EQ(*got, d);
  }
  EXPECT_EQ(velmora->stop(SIGINT, 15.0), 0);
}

}  // namespace
}  // namespace velmora
