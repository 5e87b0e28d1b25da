// Costs of answering show controllers: one reply (dispatch, the governed
// value read back, the JSON and the OSC datagram built on the main thread),
// the state reply, and an event fan-out to 32 subscribers, both the main
// thread's part (change detection and the datagrams) and the cue queue's
// part (the sends from the cue socket on loopback).
#include <benchmark/benchmark.h>

#include <asio/io_context.hpp>
#include <string>
#include <vector>

#include "animation/CharacterAnimationController.h"
#include "base/MainQueue.h"
#include "control/CommandContext.h"
#include "control/OSCCommandCatalog.h"
#include "control/RemoteReplies.h"
#include "net/UdpListener.h"
#include "osc/OSCWriter.h"
#include "support/StateFixture.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

constexpr std::uint32_t kLoopback = 0x7F000001;

// A state over a settings store in a fresh temporary folder.
struct Stage {
  test::StateFixture fixture;
  FaceTrackingState& state = fixture.state;
  CharacterAnimationController cues;
  double now = 0;
  CommandContext context{state, cues, [this] { return now; }};
  std::size_t datagrams = 0;
  RemoteReplies replies{[this](std::vector<RemoteReplies::Bytes> d, std::vector<UdpSender> targets) {
    datagrams += d.size() * targets.size();
  }};
  Stage() {
    MainQueue::shared().bindToCurrentThread();
    context.remote = &replies;
  }
  void handle(const OSCMessage& m, const UdpSender& from) {
    replies.handle(m, from, context, now, [&] { return OSCCommandCatalog::dispatch(m, context); });
  }
};

void BM_ReplyToACommand(benchmark::State& st) {
  Stage stage;
  const OSCMessage message{"/velmora/sensitivity", {2.0f}};
  for (auto _ : st) stage.handle(message, {kLoopback, 50000});
  st.counters["datagrams"] = benchmark::Counter(double(stage.datagrams), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ReplyToACommand);

void BM_ReplyToState(benchmark::State& st) {
  Stage stage;
  const OSCMessage message{"/velmora/state", {}};
  for (auto _ : st) stage.handle(message, {kLoopback, 50000});
}
BENCHMARK(BM_ReplyToState);

// One setting change per iteration, found by the tick and turned into its
// two datagrams (the setting event and the value on its own address) for
// 32 subscribers.
void BM_EventFanOutBuild32(benchmark::State& st) {
  Stage stage;
  for (std::uint16_t i = 0; i < RemotePeers::maxSubscribers; ++i) {
    stage.handle(OSCMessage{"/velmora/updates", {1.0f}}, {kLoopback, std::uint16_t(40000 + i)});
  }
  float value = 1.0f;
  for (auto _ : st) {
    value = value == 1.0f ? 2.0f : 1.0f;
    stage.state.setGlobalSensitivity(value);
    stage.replies.tick(stage.context, stage.now);
  }
  st.counters["datagrams/change"] = double(stage.datagrams) / double(st.iterations());
}
BENCHMARK(BM_EventFanOutBuild32);

// The queue's part of one change: two datagrams to each of 32 subscribers,
// sent from a bound UDP socket to 32 bound loopback sockets. Nobody reads
// them (a full receive buffer drops on the receiver's side), so this is
// the sender's cost only.
void BM_EventFanOutSend32(benchmark::State& st) {
  asio::io_context io;
  UdpListener cue(io, {});
  std::vector<std::uint8_t> buffer(4096);
  if (!cue.open(0, buffer, {}, kLoopback)) {
    st.SkipWithError("no socket");
    return;
  }
  std::vector<std::unique_ptr<UdpListener>> subscribers;
  std::vector<std::vector<std::uint8_t>> buffers(RemotePeers::maxSubscribers, std::vector<std::uint8_t>(64));
  std::vector<UdpSender> targets;
  for (std::size_t i = 0; i < RemotePeers::maxSubscribers; ++i) {
    subscribers.push_back(std::make_unique<UdpListener>(io, UdpListener::Options{}));
    subscribers.back()->open(0, buffers[i], {}, kLoopback);
    targets.push_back({kLoopback, subscribers.back()->port()});
  }
  const auto setting = OSCWriter::message("/velmora/event/setting").s("sensitivity").f(2.0f).bytes();
  const auto echo = OSCWriter::message("/velmora/sensitivity").f(2.0f).bytes();
  std::size_t refused = 0;
  for (auto _ : st) {
    for (const auto& target : targets) refused += !cue.sendTo(setting, target);
    for (const auto& target : targets) refused += !cue.sendTo(echo, target);
  }
  st.counters["refused"] = double(refused);
}
BENCHMARK(BM_EventFanOutSend32);

}  // namespace
}  // namespace velmora
