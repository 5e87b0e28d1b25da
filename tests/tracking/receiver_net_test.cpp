// The tracking receiver on real loopback sockets, on ports each test chose
// free: what the sockets add to the decoders (ports, batched reads, envelopes,
// the allow-list door; the flood bound is MainThreadTrackingSinkTest's), and the phone connection that asks
// a phone app for data from the receiver's port. The decoders themselves are
// decoders_test's and the fuzz corpus cross-check's.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <future>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "base/Clock.h"
#include "base/MainQueue.h"
#include "support/LogCapture.h"
#include "support/OscBytes.h"
#include "support/StateFixture.h"
#include "support/UdpSocket.h"
#include "tracking/MainThreadTrackingSink.h"
#include "tracking/PhoneConnection.h"
#include "tracking/RecordingSink.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {
namespace {

using test::freeUdpPort;
using test::LogCapture;
using test::UdpSocket;

// Polls pred while running the main thread's work (the test thread is the main thread).
bool waitFor(const std::function<bool()>& pred, double seconds = 5.0) {
  return MainQueue::shared().runUntil(pred, seconds);
}

// Starts the receiver on the one port; true when it listens there.
bool listen(TrackingReceiver& receiver, std::uint16_t port) {
  receiver.setPorts({port});
  receiver.startListening();
  return receiver.listeningPorts() == std::vector<std::uint16_t>{port};
}

// A port another program holds is skipped; a second receiver shares a port
// through address reuse; after stopListening the ports are free again.
TEST(TrackingReceiverNetTest, PortHeldElsewhereIsSkippedOthersListen) {
  LogCapture log;
  UdpSocket holder;  // another program holding the port, no reuse options
  ASSERT_TRUE(holder.bound());
  const std::uint16_t a = freeUdpPort(), b = freeUdpPort();
  auto sink = std::make_shared<test::RecordingSink>();
  TrackingReceiver receiver(sink), sharing(std::make_shared<test::RecordingSink>());
  receiver.setPorts({a, holder.port(), b});
  receiver.startListening();
  EXPECT_EQ(receiver.listeningPorts(), (std::vector<std::uint16_t>{std::min(a, b), std::max(a, b)}));
  for (const auto& [port, line] : {std::pair{a, "Listening for ARKit facial tracking on UDP port "},
                                   std::pair{holder.port(), "Could not bind to port "},
                                   std::pair{b, "Listening for ARKit facial tracking on UDP port "}}) {
    EXPECT_TRUE(log.has("[TrackingReceiver] " + std::string(line) + std::to_string(port))) << line << port;
  }

  UdpSocket phone;
  phone.sendTo(a, "jawOpen-50|");
  phone.sendTo(b, "jawOpen-50|");
  ASSERT_TRUE(waitFor([&] { return sink->frames().size() == 2; }));
  for (const auto& f : sink->frames()) EXPECT_EQ(f.frame.sender, "127.0.0.1:" + std::to_string(phone.port()));
  EXPECT_TRUE(listen(sharing, a));
  for (TrackingReceiver* r : {&sharing, &receiver}) {
    r->stopListening();
    EXPECT_TRUE(r->listeningPorts().empty());
  }
  EXPECT_TRUE(UdpSocket(a).bound());
}

// Several receive calls' worth of datagrams from two senders, and the
// largest datagram IPv4 can carry among them, all waiting when the queue
// wakes: everything reaches the taps and the sink whole, in arrival order,
// with its own sender, in one readiness event.
TEST(TrackingReceiverNetTest, BatchedBurstArrivesWholeAndInOrder) {
  const std::uint16_t port = freeUdpPort();
  auto sink = std::make_shared<test::RecordingSink>();
  TrackingReceiver receiver(sink);
  receiver.addTap(sink);
  ASSERT_TRUE(listen(receiver, port));

  // Hold the queue while the burst lands in the socket buffer.
  std::promise<void> release;
  auto released = release.get_future().share();
  receiver.queue().post([released] { released.wait(); });
  UdpSocket a, b;
  std::vector<std::tuple<std::string, std::uint16_t, float>> sent;  // text, sender's port, jawOpen (-1: none)
  auto send = [&](const UdpSocket& phone, const std::string& t, float jawOpen) {
    sent.emplace_back(t, phone.port(), jawOpen);
    phone.sendTo(port, t);
  };
  auto text = [&](const UdpSocket& phone, int i) { send(phone, "jawOpen-" + std::to_string(i) + "|", i / 100.0f); };
  // More than two receive calls' worth, IPv4's largest UDP payload (a long
  // iFacialMocap text without jawOpen), then five more.
  const int before = static_cast<int>(TrackingReceiver::datagramsPerRead) * 2 + 5;
  for (int i = 0; i < before; ++i) text(i % 2 ? b : a, i % 100);
  std::string large;
  for (int i = 0; large.size() < 65507; ++i) large += "mouthClose-" + std::to_string(i % 100) + "|";
  send(a, large.substr(0, 65507), -1.0f);
  for (int i = 0; i < 5; ++i) text(b, 90 + i);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const auto eventsBefore = receiver.statistics().readinessEvents;
  release.set_value();

  const std::size_t total = sent.size();
  ASSERT_TRUE(waitFor([&] { return sink->frames().size() == total; })) << sink->frames().size() << " of " << total;
  const auto stats = receiver.statistics();
  EXPECT_EQ(std::tuple(stats.readinessEvents - eventsBefore, stats.packetsReceived, stats.lastSender, stats.lastFormat),
            std::tuple(1u, total, "127.0.0.1:" + std::to_string(b.port()), TrackingFormat::iFacialMocap));
  const auto seen = sink->seen();
  const auto frames = sink->frames();
  ASSERT_EQ(seen.size(), total);
  for (std::size_t i = 0; i < total; ++i) {
    SCOPED_TRACE(i);
    const auto& [text, from, jaw] = sent[i];
    const auto& [payload, e] = seen[i];
    EXPECT_EQ(payload, std::vector<std::uint8_t>(text.begin(), text.end()));
    EXPECT_EQ(std::tuple(e.sourceAddress, e.sourcePort, e.destinationAddress, e.destinationPort),
              std::tuple(0x7F000001u, from, 0x7F000001u, port));
    EXPECT_GE(e.arrivalMicroseconds, i > 0 ? seen[i - 1].second.arrivalMicroseconds : 1);
    const BlendshapeMap& shapes = *frames[i].frame.blendshapes;
    EXPECT_EQ(std::tuple(frames[i].frame.sender, shapes.count("jawOpen") ? shapes.at("jawOpen") : -1.0f),
              std::tuple("127.0.0.1:" + std::to_string(from), jaw));
  }
}

// The allow-list is the receiver's door: a refused sender's datagrams reach
// neither the taps (relay, recorder) nor the sink, so nothing of them shows
// in the face state, while an allowed sender's do; a list edit takes effect
// from the next datagram. The test thread is the main thread.
TEST(TrackingReceiverNetTest, ARefusedSendersDataNeverReachesTheFaceState) {
  test::StateFixture f;
  auto sink = std::make_shared<MainThreadTrackingSink>(8, MainQueue::shared(), &f.state);
  TrackingReceiver receiver(sink);
  auto tap = std::make_shared<test::RecordingSink>();  // as a tap only
  receiver.addTap(tap);
  LogCapture log;
  receiver.senderFilter().setAllowList(SenderAllowList::parse({"127.0.0.2"}));
  const auto port = freeUdpPort();
  ASSERT_TRUE(listen(receiver, port));
  UdpSocket refused(0, 0x7F000003), allowed(0, 0x7F000002);
  ASSERT_TRUE(refused.bound() && allowed.bound());
  auto refusedLines = [&](const std::string& address) {
    return std::ranges::count(log.lines(), "[TrackingReceiver] Refused tracking data from " + address +
                                               " (not in the allowed senders)");
  };

  // Every way into the state: blendshapes and head, VMC, and an unknown format.
  refused.sendTo(port, "jawOpen-90|=10,20,30,1,2,3");
  refused.sendTo(port, test::oscBundle({test::oscMessage("/VMC/Ext/Blend/Val", {"jawOpen", 0.9f})}));
  refused.sendTo(port, "hello");
  ASSERT_TRUE(waitFor([&] { return receiver.statistics().refused == 3; }));
  // Every frame reaches the state through the one ingest that counts it.
  EXPECT_EQ(std::tuple(f.state.totalPacketsReceived(), receiver.statistics().packetsReceived,
                       receiver.statistics().lastSender, sink->droppedCount(), tap->seen().size(),
                       refusedLines("127.0.0.3")),
            std::tuple(0u, 0u, "", 0u, 0u, 1));

  // An allowed sender still gets through, so the above cannot pass vacuously;
  // its unknown datagram counts as received like its frame.
  allowed.sendTo(port, "hello");
  allowed.sendTo(port, "jawOpen-20|");
  // The receiver counts a batch once it has handed it on, so the state may have it first.
  ASSERT_TRUE(waitFor([&] {
    return f.state.totalPacketsReceived() == 2 && receiver.statistics().packetsReceived == 2;
  }));
  EXPECT_EQ(std::tuple(f.state.rawBlendshapes().at("jawOpen"), f.state.senderIP(), receiver.statistics().refused),
            std::tuple(0.2f, "127.0.0.2:" + std::to_string(allowed.port()), 3u));
  ASSERT_EQ(tap->seen().size(), 2u);
  EXPECT_EQ(tap->seen()[0].second.sourceAddress, 0x7F000002u);
  waitFor([] { return false; }, 0.05);
  EXPECT_EQ(f.state.totalPacketsReceived(), 2u);  // no late delivery of refused frames

  // The list edited: the other sender is the refused one from the next datagram.
  receiver.senderFilter().setAllowList(SenderAllowList::parse({"127.0.0.3"}));
  allowed.sendTo(port, "jawOpen-70|");
  refused.sendTo(port, "jawOpen-40|");
  ASSERT_TRUE(waitFor([&] { return f.state.totalPacketsReceived() == 3; }));
  EXPECT_EQ(std::tuple(f.state.rawBlendshapes().at("jawOpen"), f.state.senderIP(), receiver.statistics().refused,
                       refusedLines("127.0.0.2")),
            std::tuple(0.4f, "127.0.0.3:" + std::to_string(refused.port()), 4u, 1));
}

// A phone connection over a receiver that feeds a state.
struct Phone : test::StateFixture {
  Phone() { MainQueue::shared().bindToCurrentThread(); }
  TrackingReceiver receiver{std::make_shared<MainThreadTrackingSink>(8, MainQueue::shared(), &state)};
  PhoneConnection connection{receiver, state, MainQueue::shared()};

  // Ticks until the status is `want` (or starts with it, for `prefix`).
  bool statusBecomes(const std::string& want, bool prefix = false) {
    return waitFor(
        [&] {
          connection.tick(uptime());
          return prefix ? state.phoneStatus().starts_with(want) : state.phoneStatus() == want;
        },
        10.0);
  }
};

// Each failure in the status and the log; then the request each app needs,
// sent from the receiver's own port, and the answer shown with its app.
TEST(PhoneConnectionTest, ShowsEachFailureThenAsksTheAppAndShowsWhichAnswered) {
  Phone p;  // listening on no port yet: nothing to send from
  LogCapture log;
  p.state.setPhoneAddress("127.0.0.1");
  ASSERT_TRUE(p.statusBecomes("Phone: could not send the request to 127.0.0.1: not listening on any tracking port"))
      << p.state.phoneStatus();
  EXPECT_TRUE(log.has("[PhoneConnection] could not send the request to 127.0.0.1: not listening on any tracking port"));
  p.state.setPhoneAddress("no-such-phone.invalid");
  ASSERT_TRUE(p.statusBecomes("Phone: cannot resolve \"no-such-phone.invalid\": ", true)) << p.state.phoneStatus();
  p.state.setPhoneApp("Phone Tracker 3000");
  ASSERT_TRUE(p.statusBecomes("Phone: unknown app \"Phone Tracker 3000\" (iFacialMocap or VTube Studio)"));

  const std::uint16_t port = freeUdpPort();
  ASSERT_TRUE(listen(p.receiver, port));
  UdpSocket phone;  // VTube Studio on the phone, on the port its screen shows
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
  EXPECT_EQ(nlohmann::json::parse(buffer, buffer + n),
            (nlohmann::json{{"messageType", "iOSTrackingDataRequest"}, {"time", 10.0}, {"sentBy", "Velmora"},
                            {"ports", nlohmann::json::array({port})}}));

  phone.sendTo(port, R"({"FaceFound":true,"BlendShapes":[{"k":"JawOpen","v":0.5}]})");
  // Shown once the answer reached the state, with the app its decoder named.
  ASSERT_TRUE(p.statusBecomes("Phone: 127.0.0.1 answered (VTube Studio)")) << p.state.phoneStatus();
  EXPECT_EQ(PhoneConnection::request(PhoneConnection::App::iFacialMocap, port),
            "iFacialMocap_sahuasouryya9218sauhuiayeta91555dy3719");
  p.receiver.stopListening();
}

}  // namespace
}  // namespace velmora
