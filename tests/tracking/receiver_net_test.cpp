// The tracking receiver on real loopback sockets, on ports each test chose
// free. Also driven by oscsend (liblo-tools), an OSC client nobody here wrote.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "base/MainQueue.h"
#include "osc/OSCWriter.h"
#include "support/LogCapture.h"
#include "support/OscBytes.h"
#include "support/StateFixture.h"
#include "support/UdpSocket.h"
#include "tracking/MainThreadTrackingSink.h"
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
  phone.sendTo(b, "jawOpen-50|mouthClose-10");
  ASSERT_TRUE(waitFor([&] { return sink->total() == 2; }));
  ASSERT_EQ(sink->frames().size(), 2u);
  for (const auto& f : sink->frames()) {
    EXPECT_EQ(f.frame.sender, "127.0.0.1:" + std::to_string(phone.port()));
    EXPECT_EQ(f.frame.blendshapes->at("jawOpen"), 0.5f);
  }
  EXPECT_TRUE(listen(sharing, a));
  for (TrackingReceiver* r : {&sharing, &receiver}) {
    r->stopListening();
    EXPECT_TRUE(r->listeningPorts().empty());
  }
  EXPECT_TRUE(UdpSocket(a).bound());
}

// A tap that keeps a copy of everything it is shown.
class CopyingTap final : public DatagramTap {
 public:
  struct Seen {
    std::vector<std::uint8_t> payload;
    DatagramEnvelope envelope;
  };
  void datagramArrived(std::span<const std::uint8_t> payload, const DatagramEnvelope& envelope) override {
    std::lock_guard lock(mutex_);
    seen_.push_back({{payload.begin(), payload.end()}, envelope});
  }
  std::vector<Seen> seen() const {
    std::lock_guard lock(mutex_);
    return seen_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Seen> seen_;
};

// Several receive calls' worth of datagrams from two senders, and the
// largest datagram IPv4 can carry among them, all waiting when the queue
// wakes: everything reaches the taps and the sink whole, in arrival order,
// with its own sender, in one readiness event.
TEST(TrackingReceiverNetTest, BatchedBurstArrivesWholeAndInOrder) {
  const std::uint16_t port = freeUdpPort();
  auto sink = std::make_shared<test::RecordingSink>();
  auto tap = std::make_shared<CopyingTap>();
  TrackingReceiver receiver(sink);
  receiver.addTap(tap);
  ASSERT_TRUE(listen(receiver, port));

  // Hold the queue while the burst lands in the socket buffer.
  std::promise<void> release;
  auto released = release.get_future().share();
  receiver.queue().post([released] { released.wait(); });
  UdpSocket a, b;
  std::vector<std::vector<std::uint8_t>> sent;
  std::vector<std::uint16_t> from;
  std::vector<std::pair<float, std::uint16_t>> jaw;  // the text frames: value, sender
  auto send = [&](const UdpSocket& phone, const std::string& t) {
    sent.emplace_back(t.begin(), t.end());
    phone.sendTo(port, sent.back());
    from.push_back(phone.port());
  };
  auto text = [&](const UdpSocket& phone, int i) {
    send(phone, "jawOpen-" + std::to_string(i) + "|");
    jaw.emplace_back(float(i) / 100.0f, phone.port());
  };
  // More than two receive calls' worth before the large one.
  const int before = static_cast<int>(TrackingReceiver::datagramsPerRead) * 2 + 5;
  for (int i = 0; i < before; ++i) text(i % 2 ? b : a, i % 100);
  // IPv4's largest UDP payload: a long iFacialMocap text without jawOpen.
  std::string large;
  for (int i = 0; large.size() < 65507; ++i) large += "mouthClose-" + std::to_string(i % 100) + "|";
  send(a, large.substr(0, 65507));
  for (int i = 0; i < 5; ++i) text(b, 90 + i);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const auto eventsBefore = receiver.statistics().readinessEvents;
  release.set_value();

  const std::size_t total = sent.size();
  ASSERT_TRUE(waitFor([&] { return sink->total() == total; })) << sink->total() << " of " << total;
  EXPECT_EQ(receiver.statistics().readinessEvents - eventsBefore, 1u);
  EXPECT_EQ(receiver.statistics().packetsReceived, total);
  EXPECT_EQ(receiver.statistics().lastSender, "127.0.0.1:" + std::to_string(b.port()));

  const auto seen = tap->seen();
  ASSERT_EQ(seen.size(), total);
  for (std::size_t i = 0; i < total; ++i) {
    SCOPED_TRACE(i);
    const DatagramEnvelope& e = seen[i].envelope;
    EXPECT_EQ(seen[i].payload, sent[i]);
    EXPECT_EQ(std::tuple(e.sourceAddress, e.sourcePort, e.destinationAddress, e.destinationPort),
              std::tuple(0x7F000001u, from[i], 0x7F000001u, port));
    EXPECT_GT(seen[i].envelope.arrivalMicroseconds, 0);
    if (i > 0) {
      EXPECT_GE(seen[i].envelope.arrivalMicroseconds, seen[i - 1].envelope.arrivalMicroseconds);
    }
  }
  // The text frames, in order, each with its own sender.
  const auto frames = sink->frames();
  std::vector<std::pair<float, std::uint16_t>> got;
  for (const auto& f : frames) {
    if (!f.frame.blendshapes || !f.frame.blendshapes->count("jawOpen")) continue;
    const std::string& s = f.frame.sender;
    EXPECT_EQ(s.rfind("127.0.0.1:", 0), 0u) << s;
    got.emplace_back(f.frame.blendshapes->at("jawOpen"), std::stoi(s.substr(s.find(':') + 1)));
  }
  EXPECT_EQ(got, jaw);
}

TEST(TrackingReceiverNetTest, FloodStaysBounded) {
  // A main queue that nobody drains: the worst case for a flood.
  MainQueue stalledMain;
  constexpr std::size_t kMaxSenders = 8;
  auto sink = std::make_shared<MainThreadTrackingSink>(kMaxSenders, stalledMain, nullptr);
  const std::uint16_t port = freeUdpPort();
  TrackingReceiver receiver(sink);
  ASSERT_TRUE(listen(receiver, port));

  // More senders than may wait; each sends frames and unknown datagrams
  // (an odd count of phones, so every phone gets both kinds).
  std::vector<std::unique_ptr<UdpSocket>> phones;
  for (int i = 0; i < 21; ++i) phones.push_back(std::make_unique<UdpSocket>());
  constexpr int kFlood = 3000;
  for (int i = 0; i < kFlood; ++i) {
    phones[i % phones.size()]->sendTo(port, i % 2 ? "jawOpen-50|" : "unknown");
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
  ASSERT_GT(stats.packetsReceived, 100u);
  // One entry per admitted sender, holding its newest frame and its newest
  // unknown datagram; everything else was counted as dropped.
  EXPECT_EQ(sink->waitingSenders(), kMaxSenders);
  EXPECT_EQ(stats.dropped, stats.packetsReceived - 2 * kMaxSenders);
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
}

// The allow-list is the receiver's door: a refused sender's datagrams reach
// neither the taps (relay, recorder) nor the sink, so nothing of them shows
// in the face state, while an allowed sender's do; a list edit takes effect
// from the next datagram. The test thread is the main thread.
TEST(TrackingReceiverNetTest, ARefusedSendersDataNeverReachesTheFaceState) {
  test::StateFixture f;
  auto sink = std::make_shared<MainThreadTrackingSink>(8, MainQueue::shared(), &f.state);
  TrackingReceiver receiver(sink);
  auto tap = std::make_shared<CopyingTap>();
  receiver.addTap(tap);
  LogCapture log;
  receiver.senderFilter().setAllowList(SenderAllowList::parse({"127.0.0.2"}));
  const auto port = freeUdpPort();
  ASSERT_TRUE(listen(receiver, port));
  UdpSocket refused(0, 0x7F000003), allowed(0, 0x7F000002);
  ASSERT_TRUE(refused.bound() && allowed.bound());
  auto refusedLines = [&](const std::string& address) {
    const auto lines = log.lines();
    return std::count(lines.begin(), lines.end(),
                      "[TrackingReceiver] Refused tracking data from " + address + " (not in the allowed senders)");
  };

  // Every way into the state: blendshapes and head, VMC, and an unknown format.
  refused.sendTo(port, "jawOpen-90|=10,20,30,1,2,3");
  refused.sendTo(port, test::oscBundle({test::oscMessage("/VMC/Ext/Blend/Val", {"jawOpen", 0.9f})}));
  refused.sendTo(port, "hello");
  ASSERT_TRUE(waitFor([&] { return receiver.statistics().refused == 3; }));
  // Every frame reaches the state through the one ingest that counts it.
  EXPECT_EQ(f.state.totalPacketsReceived(), 0u);
  EXPECT_EQ(receiver.statistics().packetsReceived, 0u);
  EXPECT_TRUE(receiver.statistics().lastSender.empty());
  EXPECT_EQ(sink->droppedCount(), 0u);
  EXPECT_TRUE(tap->seen().empty());
  EXPECT_EQ(refusedLines("127.0.0.3"), 1);

  // An allowed sender still gets through, so the above cannot pass vacuously.
  allowed.sendTo(port, "jawOpen-20|");
  // The receiver counts a batch once it has handed it on, so the state may have it first.
  ASSERT_TRUE(waitFor([&] {
    return f.state.totalPacketsReceived() == 1 && receiver.statistics().packetsReceived == 1;
  }));
  EXPECT_EQ(f.state.rawBlendshapes().at("jawOpen"), 0.2f);
  EXPECT_EQ(f.state.senderIP(), "127.0.0.2:" + std::to_string(allowed.port()));
  ASSERT_EQ(tap->seen().size(), 1u);
  EXPECT_EQ(tap->seen()[0].envelope.sourceAddress, 0x7F000002u);
  EXPECT_EQ(receiver.statistics().refused, 3u);
  waitFor([] { return false; }, 0.05);
  EXPECT_EQ(f.state.totalPacketsReceived(), 1u);  // no late delivery of refused frames

  // The list edited: the other sender is the refused one from the next datagram.
  receiver.senderFilter().setAllowList(SenderAllowList::parse({"127.0.0.3"}));
  allowed.sendTo(port, "jawOpen-70|");
  refused.sendTo(port, "jawOpen-40|");
  ASSERT_TRUE(waitFor([&] { return f.state.totalPacketsReceived() == 2; }));
  EXPECT_EQ(f.state.rawBlendshapes().at("jawOpen"), 0.4f);
  EXPECT_EQ(f.state.senderIP(), "127.0.0.3:" + std::to_string(refused.port()));
  EXPECT_EQ(receiver.statistics().refused, 4u);
  EXPECT_EQ(refusedLines("127.0.0.2"), 1);
}

TEST(TrackingReceiverNetTest, VmcStreamOfExactZerosRelaxesTheJaw) {
  // The whole road into the state: socket, decoder, main-thread sink, filters.
  test::StateFixture fixture;
  FaceTrackingState& state = fixture.state;
  auto sink = std::make_shared<MainThreadTrackingSink>(8, MainQueue::shared(), &state);
  TrackingReceiver receiver(sink);
  const std::uint16_t port = freeUdpPort();
  ASSERT_TRUE(listen(receiver, port));
  UdpSocket sender;
  // A VMC sender's frames at 60 Hz: "/VMC/Ext/Blend/Val ,sf jawOpen <value>".
  auto stream = [&](float value, int frames) {
    for (int i = 0; i < frames; ++i) {
      sender.sendTo(port, OSCWriter::message("/VMC/Ext/Blend/Val").s("jawOpen").f(value).bytes());
      std::this_thread::sleep_for(std::chrono::milliseconds(16));
      MainQueue::shared().drain();
    }
    MainQueue::shared().runUntil([&] { return sink->waitingSenders() == 0; }, 2.0);
  };
  stream(0.8f, 30);
  ASSERT_GT(state.blendshapes().at("jawOpen"), 0.5f);
  stream(0.0f, 240);
  EXPECT_LT(state.blendshapes().at("jawOpen"), 1e-3f);  // at rest, not held at the last non-zero value
  receiver.stopListening();
}

}  // namespace
}  // namespace velmora
