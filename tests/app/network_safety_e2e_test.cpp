// Trusted senders and the relay, end to end with the built velmora and
// settings written as an operator would: oscsend (liblo-tools) from a
// refused address changes nothing while an allowed one works, tracking from
// outside the allow-list is dropped, a bind address narrows a listener, and
// relay targets receive the phone's datagrams byte for byte while a target
// on Velmora's own port is refused. What each list admits is
// sender_allow_list_test's; that a refused sender never reaches the face
// state, receiver_net_test's.
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/OscBytes.h"
#include "support/VelmoraRun.h"

namespace velmora {
namespace {

const std::string kTracking = "[Velmora] tracking: ";

TEST(NetworkSafetyEndToEndTest, RefusedSendersChangeNothingAndTrackingListensOnItsAddressOnly) {
  ASSERT_EQ(::access("/usr/bin/oscsend", X_OK), 0) << "oscsend (liblo-tools) is not installed; run scripts/setup";
  test::VelmoraRun velmora({.settings = {{"oscAllowedSenders", {"127.0.0.2", "10.0.0.300"}},
                                         {"trackingAllowedSenders", {"127.0.0.1/32"}},
                                         {"trackingBindAddress", "127.0.0.2"}}});
  ASSERT_TRUE(velmora.ready()) << velmora->output();
  for (const char* line : {"[Velmora] Allowed senders for OSC cues: \"10.0.0.300\": not an IPv4 address; skipped",
                           "[Velmora] Tracking listens on 127.0.0.2 only",
                           "[Velmora] Accepting tracking only from: 127.0.0.1/32"})
    EXPECT_EQ(velmora->printed(line), 1) << line << "\n" << velmora->output();

  // oscsend sends from 127.0.0.1, which is not in the list.
  const std::string p = std::to_string(velmora.cuePort);
  ASSERT_EQ(test::oscsend({"127.0.0.1", p, "/velmora/sensitivity", "f", "2.5"}), 0);
  EXPECT_TRUE(velmora->waitForLine("[QLabOSCServer] Refused OSC from 127.0.0.1 (not in the allowed senders)", 10))
      << velmora->output();
  ASSERT_EQ(test::oscsend({"127.0.0.1", p, "/velmora/sensitivity", "f", "3.0"}), 0);  // counted, not logged again
  // The allowed sender (a socket on 127.0.0.2) works, and is the first command handled.
  const test::UdpSocket allowed(0, 0x7F000002);
  ASSERT_TRUE(allowed.bound());
  allowed.sendTo(velmora.cuePort, test::oscMessage("/velmora/recentre"));
  EXPECT_TRUE(velmora->waitForLine("[OSC] /velmora/recentre []", 10)) << velmora->output();

  // Tracking to 127.0.0.1 finds nobody (the socket is bound to 127.0.0.2);
  // to 127.0.0.2 from 127.0.0.1 (allowed) it is received; from 127.0.0.3, refused.
  const test::UdpSocket phone, stranger(0, 0x7F000003);
  const std::string face = "jawOpen-100|";
  for (int i = 0; i < 5; ++i) phone.sendTo(velmora.ports[0], face);
  // The status line follows a burst within about a second; 4 s leaves room under load.
  EXPECT_FALSE(velmora->waitForLine([](const std::string& l) { return l.starts_with(kTracking); }, 4.0));
  for (int i = 0; i < 5; ++i) phone.sendTo(0x7F000002, velmora.ports[0], face.data(), face.size());
  EXPECT_TRUE(velmora->waitForLine([](const std::string& l) { return l.starts_with(kTracking); }, 10.0))
      << velmora->output();
  for (int i = 0; i < 5; ++i) stranger.sendTo(0x7F000002, velmora.ports[0], face.data(), face.size());
  EXPECT_TRUE(velmora->waitForLine("[TrackingReceiver] Refused tracking data from 127.0.0.3 (not in the allowed senders)",
                                   10))
      << velmora->output();
  EXPECT_TRUE(velmora.stopsCleanly()) << velmora->output();
  EXPECT_EQ(velmora->printedStarting("[OSC] /velmora/sensitivity"), 0) << velmora->output();
  EXPECT_EQ(velmora->printedStarting("[QLabOSCServer] Refused OSC"), 1) << velmora->output();
}

TEST(NetworkSafetyEndToEndTest, RelayTargetsGetTheStreamUnchangedAndLoopsAreRefused) {
  test::UdpSocket otherApplication;
  const std::uint16_t port = test::freeUdpPort();
  const std::string loop = "localhost:" + std::to_string(port);
  test::VelmoraRun velmora({.settings = {{"relayTargets", {"127.0.0.1:" + std::to_string(otherApplication.port()), loop}}},
                            .ports = {port}});
  ASSERT_TRUE(velmora->waitForLine(test::listeningLine(port), 20)) << velmora->output();
  // The relay resolves its targets on its own thread: the line may follow the listener's.
  const std::string refused = "[TrackingRelay] Refused relay target " + loop + ": this machine's port " +
                              std::to_string(port) + " is one of Velmora's own listening ports (it would loop)";
  EXPECT_TRUE(velmora->printed(refused) || velmora->waitForLine(refused, 10)) << velmora->output();

  const test::UdpSocket phone;
  const std::vector<std::vector<std::uint8_t>> sent = {
      {'j', 'a', 'w', 'O', 'p', 'e', 'n', '-', '4', '0', '|', '=', '1', ',', '2', ',', '3'},
      {0x00, 0x01, 0xFE, 0xFF, 0x00},  // unknown format: relayed all the same
  };
  for (const auto& d : sent) phone.sendTo(port, d);
  for (const auto& d : sent) EXPECT_EQ(otherApplication.receive(5.0), d) << velmora->output();
  EXPECT_TRUE(velmora.stopsCleanly()) << velmora->output();
}

}  // namespace
}  // namespace velmora
