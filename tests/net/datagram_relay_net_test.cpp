// The relay on loopback: every datagram reaches the target byte for byte,
// targets that would loop back into Velmora are refused, and a target
// nobody listens on shows its error, is retried and comes back, with one
// log line each way however many datagrams flow.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "support/LogCapture.h"
#include "support/UdpSocket.h"
#include "net/LocalAddress.h"
#include "net/DatagramRelay.h"

namespace velmora {
namespace {

using test::freeUdpPort;
using test::UdpSocket;
using Bytes = std::vector<std::uint8_t>;

TEST(DatagramRelayNetTest, DeliversEveryDatagramUnchanged) {
  UdpSocket first, second;
  DatagramRelay relay;
  relay.setTargets({"127.0.0.1:" + std::to_string(first.port()), "localhost:" + std::to_string(second.port())},
                   {freeUdpPort()});
  // Datagrams arriving at once, while the relay's queue may still be
  // resolving the targets (the phone is already sending at start-up), are kept.
  std::vector<Bytes> sent = {
      {'j', 'a', 'w', 'O', 'p', 'e', 'n', '-', '5', '0', '|'},
      {0x00, 0xFF, 0x00, 0x80, 0x7F},  // binary with zeros
      Bytes(60000, 0x5A),                       // large
      {},                                       // empty datagrams are datagrams too
  };
  for (const auto& p : sent) relay.datagramArrived(p, {});
  for (UdpSocket* target : {&first, &second}) {
    for (const auto& p : sent) EXPECT_EQ(target->receive(3.0), p) << "target " << target->port();
  }
  relay.waitForQueue();
  const auto status = relay.status();
  EXPECT_EQ(status[0].target, "127.0.0.1:" + std::to_string(first.port()));
  EXPECT_EQ(status[0].text, "relaying (4 sent)");
  EXPECT_TRUE(status[1].ok);
}

TEST(DatagramRelayNetTest, RefusesLoopsAndMalformedTargets) {
  test::LogCapture log;
  const std::uint16_t tracking = freeUdpPort(), cues = freeUdpPort();
  const std::string lan = detectLocalIP();
  DatagramRelay relay;
  std::vector<std::string> targets = {"127.0.0.1:" + std::to_string(tracking), "localhost:" + std::to_string(cues),
                                      "0.0.0.0:" + std::to_string(tracking), "127.0.0.2:" + std::to_string(tracking),
                                      lan + ":" + std::to_string(cues),
                                      "no-port", "host:0", "ho st:9000", ":9000"};
  relay.setTargets(targets, {tracking, cues});
  relay.waitForQueue();
  const auto status = relay.status();
  ASSERT_EQ(status.size(), targets.size());
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(status[i].text, "refused: this machine's port " + std::to_string(i == 1 || i == 4 ? cues : tracking) +
                                  " is one of Velmora's own listening ports (it would loop)")
        << targets[i];
    EXPECT_FALSE(status[i].ok);
    EXPECT_TRUE(log.has("[TrackingRelay] Refused relay target " + targets[i] + ": " + status[i].text.substr(9)));
  }
  EXPECT_EQ(status[5].text, "malformed: no port after the host (host:port)");
  EXPECT_EQ(status[6].text, "malformed: the port must be 1 to 65535");
  EXPECT_EQ(status[7].text, "malformed: the host must be a name or an IPv4 address");
  EXPECT_EQ(status[8].text, "malformed: no host before the port (host:port)");

  // Nothing is sent to a refused target: our own port stays quiet.
  UdpSocket own(tracking);
  ASSERT_TRUE(own.bound());
  relay.datagramArrived(Bytes{1, 2, 3}, {});
  relay.waitForQueue();
  EXPECT_FALSE(own.receive(0.2));
}

TEST(DatagramRelayNetTest, AFailingTargetShowsItsErrorAndIsRetried) {
  test::LogCapture log;
  const std::uint16_t port = freeUdpPort();  // nobody listens here yet
  const std::string target = "127.0.0.1:" + std::to_string(port);
  DatagramRelay relay(0.3);
  relay.setTargets({target}, {freeUdpPort()});
  // The phone keeps streaming at 100 datagrams/s.
  auto stream = [&](double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
      relay.datagramArrived(Bytes{'x'}, {});
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    relay.waitForQueue();
  };
  stream(1.0);
  EXPECT_EQ(relay.status()[0].text, "error: Connection refused (retrying every 0.3 s)");
  EXPECT_FALSE(relay.status()[0].ok);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"[TrackingRelay] Relay target " + target +
                                                  ": Connection refused (retrying every 0.3 s)"});

  // The other application starts: the relay reaches it and says so once.
  UdpSocket application(port);
  ASSERT_TRUE(application.bound());
  stream(1.5);
  EXPECT_TRUE(relay.status()[0].ok) << relay.status()[0].text;
  EXPECT_EQ(relay.status()[0].text.rfind("relaying (", 0), 0u) << relay.status()[0].text;
  EXPECT_TRUE(application.receive(1.0));
  EXPECT_EQ(log.lines().size(), 2u);
  EXPECT_TRUE(log.has("[TrackingRelay] Relay target " + target + ": relaying again"));
}

}  // namespace
}  // namespace velmora
