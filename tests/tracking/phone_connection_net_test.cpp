// Asking a phone for data over loopback: the request each app needs, sent
// from the receiver's own port, the answer shown with its app, and the two
// ways asking fails.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <nlohmann/json.hpp>

#include "base/Clock.h"
#include "base/MainQueue.h"
#include "base/SettingsStore.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "support/UdpSocket.h"
#include "tracking/FaceTrackingState.h"
#include "tracking/MainThreadTrackingSink.h"
#include "tracking/PhoneConnection.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {
namespace {

struct Phone {
  test::TempDir dir;
  SettingsStore store{dir.path()};
  FaceTrackingState state{store};
  TrackingReceiver receiver{std::make_shared<MainThreadTrackingSink>(8, MainQueue::shared(), &state)};
  PhoneConnection connection{receiver, state, MainQueue::shared()};

  // Ticks until the status is `want` (or starts with it, for `prefix`).
  bool statusBecomes(const std::string& want, bool prefix = false) {
    return MainQueue::shared().runUntil(
        [&] {
          connection.tick(uptime());
          return prefix ? state.phoneStatus().starts_with(want) : state.phoneStatus() == want;
        },
        10.0);
  }
};

TEST(PhoneConnectionTest, AsksTheAppAndShowsWhichAnswered) {
  MainQueue::shared().bindToCurrentThread();
  Phone p;
  const std::uint16_t port = test::freeUdpPort();
  p.receiver.setPorts({port});
  p.receiver.startListening();
  ASSERT_EQ(p.receiver.listeningPorts(), std::vector<std::uint16_t>{port});
  test::UdpSocket phone;  // VTube Studio on the phone, on the port its screen shows
  test::LogCapture log;
  p.state.setPhoneApp("VTube Studio");
  p.state.setPhoneAddress("127.0.0.1:" + std::to_string(phone.port()));
  ASSERT_TRUE(p.statusBecomes("Phone: asking 127.0.0.1 (VTube Studio) from UDP port " + std::to_string(port)))
      << p.state.phoneStatus();
  EXPECT_TRUE(log.has("[PhoneConnection] asking 127.0.0.1 (VTube Studio) from UDP port " + std::to_string(port)));

  std::uint8_t buffer[512];
  sockaddr_in from{};
  socklen_t length = sizeof from;
  const ssize_t n = ::recvfrom(phone.descriptor(), buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from), &length);
  ASSERT_GT(n, 0);
  EXPECT_EQ(ntohs(from.sin_port), port);  // from the port that listens for the answer
  const auto request = nlohmann::json::parse(buffer, buffer + n);
  EXPECT_EQ(request["messageType"], "iOSTrackingDataRequest");
  EXPECT_EQ(request["ports"], nlohmann::json::array({port}));

  phone.sendTo(port, R"({"FaceFound":true,"BlendShapes":[{"k":"JawOpen","v":0.5}]})");
  ASSERT_TRUE(p.statusBecomes("Phone: 127.0.0.1 answered (VTube Studio)")) << p.state.phoneStatus();
  EXPECT_EQ(p.state.rawBlendshapes().at("jawOpen"), 0.5f);
  EXPECT_EQ(PhoneConnection::request(PhoneConnection::App::iFacialMocap, port),
            "iFacialMocap_sahuasouryya9218sauhuiayeta91555dy3719");
  p.receiver.stopListening();
}

TEST(PhoneConnectionTest, FailuresShowInTheStatusAndTheLog) {
  MainQueue::shared().bindToCurrentThread();
  Phone p;  // listening on no port: nothing to send from
  test::LogCapture log;
  p.state.setPhoneAddress("127.0.0.1");
  ASSERT_TRUE(p.statusBecomes("Phone: could not send the request to 127.0.0.1: not listening on any tracking port"))
      << p.state.phoneStatus();
  EXPECT_TRUE(log.has("[PhoneConnection] could not send the request to 127.0.0.1: not listening on any tracking port"));
  p.state.setPhoneAddress("no-such-phone.invalid");
  ASSERT_TRUE(p.statusBecomes("Phone: cannot resolve \"no-such-phone.invalid\": ", true)) << p.state.phoneStatus();
  p.state.setPhoneApp("Phone Tracker 3000");
  ASSERT_TRUE(p.statusBecomes("Phone: unknown app \"Phone Tracker 3000\" (iFacialMocap or VTube Studio)"));
}

}  // namespace
}  // namespace velmora
