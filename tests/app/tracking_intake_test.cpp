// The headless tracking status line and the port list override.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "app/TrackingIntake.h"
#include "tracking/TrackingLossEase.h"
#include "support/LogCapture.h"
#include "support/StateFixture.h"
#include "tracking/FaceTrackingState.h"
#include "tracking/RecordingSink.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {
namespace {

TEST(TrackingIntakeTest, ParsePorts) {
  using P = std::vector<std::uint16_t>;
  EXPECT_EQ(TrackingIntake::parsePorts("11111,49983,39539"), (P{11111, 49983, 39539}));
  EXPECT_EQ(TrackingIntake::parsePorts("1"), (P{1}));
  EXPECT_EQ(TrackingIntake::parsePorts("65535"), (P{65535}));
  for (const char* bad : {"", "0", "65536", "1,,2", "1,", ",1", " 1", "1 ", "a", "-5", "1;2", "99999999999"})
    EXPECT_EQ(TrackingIntake::parsePorts(bad), std::nullopt) << bad;
}

TEST(TrackingIntakeTest, StatusLineAtMostEveryTwoSecondsWhilePacketsArrive) {
  test::StateFixture f;
  TrackingReceiver receiver(std::make_shared<test::RecordingSink>());
  TrackingIntake intake(receiver, f.state);
  test::LogCapture log;  // the status lines: nothing else is said here

  intake.tick(10.0);  // nothing arrived: silent
  f.state.ingestPacket(BlendshapeMap{{"jawOpen", 0.5f}}, std::nullopt, std::nullopt, "127.0.0.1:50000");
  intake.tick(10.1);  // first packets: the rate needs a second first
  intake.tick(10.5);
  EXPECT_TRUE(log.lines().empty());
  intake.tick(11.1);
  EXPECT_EQ(log.lines(), std::vector<std::string>{"[Velmora] tracking: 0.0 packets/s from 127.0.0.1:50000, 1 received"});

  intake.tick(14.0);  // nothing new: silent
  f.state.setSenderIP("10.1.2.3:7 (Unknown format)");
  f.state.setTotalPacketsReceived(5);
  intake.tick(14.5);  // 3.4 s since the last line, something new
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_EQ(log.lines()[1], "[Velmora] tracking: 0.0 packets/s from 10.1.2.3:7 (Unknown format), 5 received");
  f.state.setTotalPacketsReceived(6);
  intake.tick(16.0);  // only 1.5 s later
  EXPECT_EQ(log.lines().size(), 2u);
  intake.tick(16.6);
  EXPECT_EQ(log.lines().size(), 3u);

  // Frames reaching the outputs: the line goes on with their latency, and
  // with its split once the application says where that comes from.
  f.state.setOutputLatencyP50(12.5);
  f.state.setOutputLatencyP99(20.1);
  EXPECT_EQ(intake.statusLine(),
            "tracking: 0.0 packets/s from 10.1.2.3:7 (Unknown format), 6 received, "
            "output latency p50 12.5 ms, p99 20.1 ms");
  intake.setLatencySplit([] { return std::make_pair(0.008, 0.0045); });
  EXPECT_EQ(intake.statusLine(),
            "tracking: 0.0 packets/s from 10.1.2.3:7 (Unknown format), 6 received, "
            "output latency p50 12.5 ms, p99 20.1 ms (tick wait 8.0 ms + render 4.5 ms)");
  // A known app: named after the sender, with the published head.
  FaceFrame frame;
  frame.sender = "10.1.2.3:49983";
  frame.rotation = float3(0.2f, -0.1f, 0.0f);  // published with the signs turned round
  f.state.ingestFrame(frame, TrackingApp::iFacialMocap);
  EXPECT_EQ(intake.statusLine(),
            "tracking: 0.0 packets/s from 10.1.2.3:49983 (iFacialMocap), 7 received, head pitch -11.5 yaw 5.7 "
            "roll 0.0 deg, output latency p50 12.5 ms, p99 20.1 ms (tick wait 8.0 ms + render 4.5 ms)");
}

TEST(TrackingIntakeTest, TrackingLostLineWhileThePhoneIsGone) {
  test::StateFixture f(true);
  TrackingReceiver receiver(std::make_shared<test::RecordingSink>());
  TrackingIntake intake(receiver, f.state);
  test::LogCapture log;
  const auto lost = [&] {
    return std::ranges::count_if(log.lines(), [](auto& l) { return l.starts_with("[Velmora] Tracking lost"); });
  };
  EXPECT_EQ(TrackingLossEase::lostText(1.04), "Tracking lost (no data for 1.0 s)");
  EXPECT_EQ(TrackingLossEase::lostText(12.35), "Tracking lost (no data for 12.3 s)");

  f.state.ingestPacket(BlendshapeMap{{"jawOpen", 0.5f}}, std::nullopt, std::nullopt, "127.0.0.1:50000");
  f.now = 100.4;
  f.state.updateTrackingLoss();
  intake.tick(100.4);
  EXPECT_EQ(lost(), 0);
  f.now = 100.6;  // past the default half second
  f.state.updateTrackingLoss();
  // Lost since the last packet came (both set).
  EXPECT_EQ(f.state.trackingLostSince().value_or(WallTime::min()), f.state.lastPacketTimestamp().value_or(WallTime::max()));
  intake.tick(100.6);
  ASSERT_EQ(lost(), 1);
  EXPECT_TRUE(log.hasPrefix("[Velmora] Tracking lost (no data for 0.")) << log.lines().back();
  intake.tick(101.6);  // not again within two seconds
  intake.tick(102.7);
  EXPECT_EQ(lost(), 2);
  // Back: no more lost lines.
  f.state.ingestPacket(BlendshapeMap{{"jawOpen", 0.5f}}, std::nullopt, std::nullopt, "127.0.0.1:50000");
  f.state.updateTrackingLoss();
  EXPECT_FALSE(f.state.trackingLostSince());
  intake.tick(105.0);
  EXPECT_EQ(lost(), 2);
}

}  // namespace
}  // namespace velmora
