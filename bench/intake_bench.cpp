// Tracking intake speed: one datagram of each format through the receiver's
// detection and decoder to a face frame (budget 5 us), and the OSC decoder
// on single messages (budget 200 ns per message).
#include <benchmark/benchmark.h>

#include <bit>
#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "IntakeDatagrams.h"
#include "osc/OSCParser.h"
#include "tracking/LiveLinkNames.h"
#include "tracking/TrackingDecoders.h"
#include "tracking/TrackingReceiver.h"

namespace {

using intake::Bytes;
using intake::json;
using intake::kSender;
using intake::liveLink;
using intake::oscBundle;
using intake::oscMessage;

// Keeps the last frame alive long enough that the decoder's work is not
// optimised away, and nothing more.
class DiscardingSink final : public velmora::TrackingSink {
 public:
  void deliver(velmora::DecodedFrame frame) override {
    benchmark::DoNotOptimize(frame.frame.blendshapes->size());
  }
  void deliverUnknown(const std::string&) override {}
};

Bytes iFacialMocap() {
  std::string t;
  for (std::size_t i = 0; i < 52; ++i) {
    if (i) t += '|';
    t += std::string(velmora::unrealARKitNames[i]) + "-" + std::to_string(i * 13 % 100);
  }
  t += "=-12.5,20.25,3.5,1.2,-0.4,31.0";
  return Bytes(t.begin(), t.end());
}

void decodeDatagram(benchmark::State& state, const Bytes& datagram, velmora::TrackingFormat expected) {
  velmora::TrackingReceiver receiver(std::make_shared<DiscardingSink>());
  receiver.processData(datagram, kSender);
  if (receiver.statistics().lastFormat != expected) {
    state.SkipWithError("datagram detected as another format");
    return;
  }
  for (auto _ : state) receiver.processData(datagram, kSender);
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * datagram.size()));
  state.counters["bytes"] = static_cast<double>(datagram.size());
}

void BM_DatagramLiveLink(benchmark::State& s) { decodeDatagram(s, liveLink(), velmora::TrackingFormat::liveLink); }
void BM_DatagramIFacialMocap52(benchmark::State& s) {
  decodeDatagram(s, iFacialMocap(), velmora::TrackingFormat::iFacialMocap);
}
void BM_DatagramOSCBundle52(benchmark::State& s) { decodeDatagram(s, oscBundle(), velmora::TrackingFormat::osc); }
void BM_DatagramJSON52(benchmark::State& s) { decodeDatagram(s, json(), velmora::TrackingFormat::json); }
// The apps' own spellings: every name through the spelling table.
void BM_DatagramIFacialMocapApp52(benchmark::State& s) {
  decodeDatagram(s, intake::iFacialMocapApp(), velmora::TrackingFormat::iFacialMocap);
}
void BM_DatagramVTubeStudio52(benchmark::State& s) {
  decodeDatagram(s, intake::vtubeStudio(), velmora::TrackingFormat::json);
}

void BM_ParsePacketOneMessage(benchmark::State& state) {
  const Bytes m = oscMessage("/velmora/sensitivity", 2.5f);
  for (auto _ : state) {
    auto messages = velmora::OSCParser::parsePacket(m);
    benchmark::DoNotOptimize(messages.data());
  }
}

void BM_ParsePacketBundle52PerMessage(benchmark::State& state) {
  const Bytes b = oscBundle();
  for (auto _ : state) {
    auto messages = velmora::OSCParser::parsePacket(b);
    benchmark::DoNotOptimize(messages.data());
  }
  state.SetItemsProcessed(state.iterations() * 52);  // items/s = messages/s
}

BENCHMARK(BM_DatagramLiveLink);
BENCHMARK(BM_DatagramIFacialMocap52);
BENCHMARK(BM_DatagramOSCBundle52);
BENCHMARK(BM_DatagramJSON52);
BENCHMARK(BM_DatagramIFacialMocapApp52);
BENCHMARK(BM_DatagramVTubeStudio52);
BENCHMARK(BM_ParsePacketOneMessage);
BENCHMARK(BM_ParsePacketBundle52PerMessage);

}  // namespace
