// The production sink between the receiver's queue and the main thread:
// newest wins per sender while the main thread is busy (merging what partial
// senders sent), and memory bounded under a flood, also as the receiver
// counts it. Frames come from the real decoders, on the bytes a sender would
// send; the test thread is the main thread.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/MainQueue.h"
#include "support/OscBytes.h"
#include "support/StateFixture.h"
#include "tracking/MainThreadTrackingSink.h"
#include "tracking/TrackingDecoders.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {
namespace {

using test::oscBundle;
using test::oscMessage;

const std::string kSender = "192.168.1.20:50000";
constexpr float kDeg = 0.017453292f;

// Throws (and so fails the test) when the bytes decode to no frame.
DecodedFrame decoded(const test::Bytes& bytes, const std::string& sender = kSender) {
  return decodeDatagram(bytes, sender).frame.value();
}

DecodedFrame text(const std::string& t, const std::string& sender = kSender) {
  return decoded(test::Bytes(t.begin(), t.end()), sender);
}

test::Bytes blend(const std::string& name, float value) {
  return oscMessage("/VMC/Ext/Blend/Val", {name, value});
}

// A face tracking state of its own, with the sink that feeds it.
struct Target : test::StateFixture {
  std::shared_ptr<MainThreadTrackingSink> sink;
  explicit Target(std::size_t maxSenders = 8)
      : sink(std::make_shared<MainThreadTrackingSink>(maxSenders, MainQueue::shared(), &state)) {}
};

TEST(MainThreadTrackingSinkTest, NewerFrameReplacesTheWaitingOneKeepingWhatOnlyTheOlderCarried) {
  // The same packets: one by one into `reference`, all at once (the main
  // thread busy meanwhile) into `coalesced`.
  const std::vector<test::Bytes> packets = {
      // Full head and three names.
      oscBundle({blend("jawOpen", 0.2f), blend("mouthClose", 0.3f), blend("customTwitch", 0.4f),
                 oscMessage("/Head/Pitch", {10.0f}), oscMessage("/Head/Yaw", {20.0f}),
                 oscMessage("/Head/Roll", {30.0f})}),
      // Yaw alone and a newer jawOpen.
      oscBundle({oscMessage("/Head/Yaw", {-45.0f}), blend("jawOpen", 0.6f)}),
      // A position component and a name nobody sent before.
      oscBundle({oscMessage("/Head/Z", {7.0f}), blend("eyeBlinkLeft", 0.9f)}),
      // Roll alone.
      oscMessage("/Head/Roll", {-5.0f}),
  };
  Target reference, coalesced;
  // Both start from the same earlier pose, which fills what nobody set.
  DecodedFrame start;
  start.frame.rotation = float3(0.5f, 0.5f, 0.5f);
  start.frame.position = float3(1.0f, 1.0f, 1.0f);
  start.frame.sender = kSender;
  for (Target* t : {&reference, &coalesced}) t->sink->deliver(start);
  MainQueue::shared().drain();

  for (const auto& p : packets) {
    reference.sink->deliver(decoded(p));
    MainQueue::shared().drain();
  }
  for (const auto& p : packets) coalesced.sink->deliver(decoded(p));
  EXPECT_EQ(std::tuple(coalesced.sink->waitingSenders(), coalesced.sink->droppedCount()),
            std::tuple(1u, packets.size() - 1));
  MainQueue::shared().drain();

  // What the packets published, as ingesting them one by one does (the
  // newest jawOpen, customTwitch only the first packet carried); every
  // packet counts as received, merged or not.
  const FaceTrackingState& c = coalesced.state;
  EXPECT_EQ(c.rawBlendshapes(), reference.state.rawBlendshapes());
  EXPECT_EQ(std::tuple(c.rawBlendshapes().size(), c.senderIP(), c.rawRotation(), c.rawPosition(),
                       c.totalPacketsReceived(), reference.sink->droppedCount()),
            std::tuple(4u, kSender, float3(10.0f * kDeg, -45.0f * kDeg, -5.0f * kDeg), float3(1.0f, 1.0f, 0.07f),
                       1 + packets.size(), 0u));
}

TEST(MainThreadTrackingSinkTest, UnknownFormatWaitsOncePerSenderAndSendersKeepArrivalOrder) {
  Target t;
  MainQueue& main = MainQueue::shared();
  for (int i = 0; i < 100; ++i) t.sink->deliverUnknown(kSender);
  EXPECT_EQ(std::tuple(t.sink->waitingSenders(), t.sink->droppedCount()), std::tuple(1u, 99u));
  main.drain();
  EXPECT_EQ(std::tuple(t.state.totalPacketsReceived(), t.state.senderIP()),
            std::tuple(100u, kSender + " (Unknown format)"));

  // A frame after an unknown datagram shows the sender plainly; an unknown
  // one after a frame shows the note, as ingesting them in order would.
  t.sink->deliverUnknown(kSender);
  t.sink->deliver(text("jawOpen-50|"));
  main.drain();
  EXPECT_EQ(std::tuple(t.state.senderIP(), t.state.rawBlendshapes().at("jawOpen")), std::tuple(kSender, 0.5f));
  t.sink->deliver(text("jawOpen-70|"));
  t.sink->deliverUnknown(kSender);
  main.drain();
  EXPECT_EQ(std::tuple(t.state.senderIP(), t.state.rawBlendshapes().at("jawOpen"), t.state.totalPacketsReceived(),
                       t.sink->droppedCount()),
            std::tuple(kSender + " (Unknown format)", 0.7f, 104u, 99u));

  // Senders are ingested in the order of their newest packet.
  const std::string a = "10.0.0.1:1000", b = "10.0.0.2:2000";
  t.sink->deliver(text("jawOpen-10|", a));
  t.sink->deliver(text("jawOpen-20|", b));
  t.sink->deliver(text("jawOpen-30|", a));  // a's newest came last: a is ingested last
  main.drain();
  EXPECT_EQ(std::tuple(t.state.senderIP(), t.state.rawBlendshapes().at("jawOpen"), t.sink->droppedCount()),
            std::tuple(a, 0.3f, 100u));
}

TEST(MainThreadTrackingSinkTest, FloodStaysBoundedInSendersAndNames) {
  Target t(4);
  TrackingReceiver receiver(t.sink);
  // Ten senders, each sending frames and unknown datagrams, while the main
  // thread is busy: four wait, each with its newest frame and its newest
  // unknown datagram; the rest are dropped and counted in the receiver's
  // statistics, and one drain request waits, never one per datagram.
  for (int i = 0; i < 40; ++i) {
    const std::string datagram = i % 20 < 10 ? "jawOpen-40|" : "unknown";
    receiver.processData(test::Bytes(datagram.begin(), datagram.end()), "10.0.0." + std::to_string(i % 10) + ":5000");
  }
  const auto stats = receiver.statistics();
  EXPECT_EQ(std::tuple(t.sink->waitingSenders(), stats.dropped, MainQueue::shared().pendingCount(),
                       stats.packetsReceived, stats.lastFormat, stats.lastSender),
            std::tuple(4u, 40u - 8u, 1u, 40u, TrackingFormat::unknown, "10.0.0.9:5000"));
  MainQueue::shared().drain();
  EXPECT_EQ(t.state.totalPacketsReceived(), 4u * 4u);  // what the four waiting senders sent
  // Room again once the main thread took them.
  t.sink->deliver(text("jawOpen-40|", "10.0.0.9:5000"));
  EXPECT_EQ(t.sink->waitingSenders(), 1u);
  MainQueue::shared().drain();

  // One sender naming a new blendshape in every packet cannot grow the
  // waiting frame without bound; the newest packet's names always stay.
  const std::size_t cap = MainThreadTrackingSink::maxMergedNames;
  for (std::size_t i = 0; i < 3 * cap; ++i) t.sink->deliver(text("custom" + std::to_string(i) + "-50|"));
  MainQueue::shared().drain();
  const auto& raw = t.state.rawBlendshapes();
  EXPECT_LE(raw.size(), cap + 1);  // + jawOpen from before
  EXPECT_TRUE(raw.count("custom" + std::to_string(3 * cap - 1)));
}

}  // namespace
}  // namespace velmora
