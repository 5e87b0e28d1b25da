// The tracking receiver on real loopback sockets, on ports each test chose
// free. Also driven by oscsend (liblo-tools), an OSC client nobody here wrote.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "base/MainQueue.h"
#include "support/LogCapture.h"
#include "support/UdpSocket.h"
#include "tracking/MainThreadTrackingSink.h"
#include "tracking/RecordingSink.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {
namespace {

using test::freeUdpPort;
using test::LogCapture;
using test::UdpSocket;

bool waitFor(const std::function<bool()>& pred, double seconds = 5.0) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return pred();
}

// Starts the receiver on the one port; true when it listens there.
bool listen(TrackingReceiver& receiver, std::uint16_t port) {
  receiver.setPorts({port});
  receiver.startListening();
  return receiver.listeningPorts() == std::vector<std::uint16_t>{port};
}

TEST(TrackingReceiverNetTest, PortHeldElsewhereIsSkippedOthersListen) {
  LogCapture log;
  UdpSocket holder;  // another program holding the port, no reuse options
  ASSERT_TRUE(holder.bound());
  const std::uint16_t a = freeUdpPort(), b = freeUdpPort();
  auto sink = std::make_shared<test::RecordingSink>();
  TrackingReceiver receiver(sink);
  receiver.setPorts({a, holder.port(), b});
  receiver.startListening();
  auto listening = receiver.listeningPorts();
  std::vector<std::uint16_t> expected{a, b};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(listening, expected);

  EXPECT_TRUE(log.has("[TrackingReceiver] Listening for ARKit facial tracking on UDP port " + std::to_string(a)));
  EXPECT_TRUE(log.has("[TrackingReceiver] Could not bind to port " + std::to_string(holder.port())));
  EXPECT_TRUE(log.has("[TrackingReceiver] Listening for ARKit facial tracking on UDP port " + std::to_string(b)));

  UdpSocket phone;
  phone.sendTo(a, "jawOpen-50|");
  phone.sendTo(b, "jawOpen-50|mouthClose-10");
  ASSERT_TRUE(waitFor([&] { return sink->total() == 2; }));
  ASSERT_EQ(sink->frames().size(), 2u);
  for (const auto& f : sink->frames()) {
    EXPECT_EQ(f.frame.sender, "127.0.0.1:" + std::to_string(phone.port()));
    EXPECT_EQ(f.frame.blendshapes->at("jawOpen"), 0.5f);
  }

  // After stopListening the ports are free again for a plain socket.
  receiver.stopListening();
  EXPECT_TRUE(receiver.listeningPorts().empty());
  EXPECT_TRUE(UdpSocket(a).bound());
}

TEST(TrackingReceiverNetTest, TwoReceiversShareAPortThroughReuse) {
  const std::uint16_t port = freeUdpPort();
  auto s1 = std::make_shared<test::RecordingSink>();
  auto s2 = std::make_shared<test::RecordingSink>();
  TrackingReceiver r1(s1), r2(s2);
  r1.setPorts({port});
  r2.setPorts({port});
  r1.startListening();
  r2.startListening();
  EXPECT_EQ(r1.listeningPorts().size(), 1u);
  EXPECT_EQ(r2.listeningPorts().size(), 1u);
}

TEST(TrackingReceiverNetTest, BurstIsDrainedInOneReadinessEvent) {
  const std::uint16_t port = freeUdpPort();
  auto sink = std::make_shared<test::RecordingSink>();
  TrackingReceiver receiver(sink);
  ASSERT_TRUE(listen(receiver, port));

  // Hold the queue while the burst lands in the socket buffer.
  std::promise<void> release;
  auto released = release.get_future().share();
  receiver.queue().post([released] { released.wait(); });
  UdpSocket phone;
  constexpr int kBurst = 50;
  for (int i = 0; i < kBurst; ++i) phone.sendTo(port, "jawOpen-" + std::to_string(i) + "|");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const auto before = receiver.statistics().readinessEvents;
  release.set_value();

  ASSERT_TRUE(waitFor([&] { return sink->total() == kBurst; }));
  EXPECT_EQ(receiver.statistics().readinessEvents - before, 1u);
  const auto frames = sink->frames();
  ASSERT_EQ(frames.size(), std::size_t(kBurst));
  for (int i = 0; i < kBurst; ++i) EXPECT_EQ(frames[i].frame.blendshapes->at("jawOpen"), float(i) / 100.0f);
  EXPECT_EQ(receiver.statistics().packetsReceived, std::uint64_t(kBurst));
  EXPECT_EQ(receiver.statistics().lastFormat, TrackingFormat::iFacialMocap);
}

TEST(TrackingReceiverNetTest, FloodStaysBounded) {
  // A main queue that nobody drains: the worst case for a flood.
  MainQueue stalledMain;
  constexpr std::size_t kCapacity = 16;
  auto sink = std::make_shared<MainThreadTrackingSink>(kCapacity, stalledMain, nullptr);
  const std::uint16_t port = freeUdpPort();
  TrackingReceiver receiver(sink);
  ASSERT_TRUE(listen(receiver, port));

  UdpSocket phone;
  constexpr int kFlood = 3000;
  for (int i = 0; i < kFlood; ++i) {
    phone.sendTo(port, i % 2 ? "jawOpen-50" : "unknown");
    if (i % 200 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  // Wait until the receiver has read everything the kernel kept.
  std::uint64_t last = 0;
  waitFor([&] {
    const auto now = receiver.statistics().packetsReceived;
    const bool stable = now == last && now > 0;
    last = now;
    return stable;
  });
  receiver.listeningPorts();  // the queue is idle
  const auto stats = receiver.statistics();
  ASSERT_GT(stats.packetsReceived, kCapacity);
  EXPECT_EQ(sink->mailbox().pendingCount(), kCapacity);
  EXPECT_EQ(stats.dropped, stats.packetsReceived - kCapacity);
  EXPECT_LE(stalledMain.pendingCount(), 1u);  // one drain request, never one per frame
}

TEST(TrackingReceiverNetTest, OscsendVmcBlendshape) {
  if (std::system("command -v oscsend >/dev/null 2>&1") != 0) GTEST_SKIP() << "oscsend (liblo-tools) not installed";
  const std::uint16_t port = freeUdpPort();
  auto sink = std::make_shared<test::RecordingSink>();
  TrackingReceiver receiver(sink);
  ASSERT_TRUE(listen(receiver, port));

  const std::string cmd = "oscsend 127.0.0.1 " + std::to_string(port) + " /VMC/Ext/Blend/Val sf jawOpen 0.7";
  ASSERT_EQ(std::system(cmd.c_str()), 0);
  ASSERT_TRUE(waitFor([&] { return sink->total() == 1; }));
  const auto frames = sink->frames();
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0].frame.blendshapes->at("jawOpen"), 0.7f);
  EXPECT_EQ(frames[0].frame.sender.rfind("127.0.0.1:", 0), 0u);
  EXPECT_EQ(receiver.statistics().lastFormat, TrackingFormat::osc);

  // A head yaw from the same client.
  const std::string yaw = "oscsend 127.0.0.1 " + std::to_string(port) + " /Head/Yaw f 90";
  ASSERT_EQ(std::system(yaw.c_str()), 0);
  ASSERT_TRUE(waitFor([&] { return sink->total() == 2; }));
  ASSERT_EQ(sink->frames().size(), 2u);
  EXPECT_EQ(sink->frames()[1].rotationSet, (std::array<bool, 3>{false, true, false}));
}

}  // namespace
}  // namespace velmora
