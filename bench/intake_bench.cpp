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

#include "osc/OSCParser.h"
#include "tracking/LiveLinkNames.h"
#include "tracking/TrackingDecoders.h"
#include "tracking/TrackingReceiver.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
const std::string kSender = "192.168.1.20:50000";

// Keeps the last frame alive long enough that the decoder's work is not
// optimised away, and nothing more.
class DiscardingSink final : public velmora::TrackingSink {
 public:
  void deliver(velmora::DecodedFrame frame) override {
    benchmark::DoNotOptimize(frame.frame.blendshapes->size());
  }
  void deliverUnknown(const std::string&) override {}
};

void putU32(Bytes& b, std::uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) b.push_back(std::uint8_t(v >> s));
}
void putString(Bytes& b, const std::string& s) {
  b.insert(b.end(), s.begin(), s.end());
  b.push_back(0);
  while (b.size() % 4) b.push_back(0);
}
float value(std::size_t i) { return 0.013f * float(i % 70) + 0.01f; }

Bytes liveLink() {
  Bytes b{6};
  putU32(b, 6);
  for (char c : std::string("device")) b.push_back(std::uint8_t(c));
  putU32(b, 6);
  for (char c : std::string("iPhone")) b.push_back(std::uint8_t(c));
  for (int i = 0; i < 4; ++i) putU32(b, 1);
  b.push_back(61);
  for (std::size_t i = 0; i < 61; ++i) putU32(b, std::bit_cast<std::uint32_t>(value(i)));
  return b;
}

Bytes iFacialMocap() {
  std::string t;
  for (std::size_t i = 0; i < 52; ++i) {
    if (i) t += '|';
    t += std::string(velmora::unrealARKitNames[i]) + "-" + std::to_string(i * 13 % 100);
  }
  t += "=-12.5,20.25,3.5,1.2,-0.4,31.0";
  return Bytes(t.begin(), t.end());
}

Bytes oscMessage(const std::string& address, float v) {
  Bytes m;
  putString(m, address);
  putString(m, ",f");
  putU32(m, std::bit_cast<std::uint32_t>(v));
  return m;
}

Bytes oscBundle() {
  Bytes b{'#', 'b', 'u', 'n', 'd', 'l', 'e', 0, 0, 0, 0, 0, 0, 0, 0, 1};
  for (std::size_t i = 0; i < 52; ++i) {
    Bytes m;
    putString(m, "/VMC/Ext/Blend/Val");
    putString(m, ",sf");
    putString(m, std::string(velmora::unrealARKitNames[i]));
    putU32(m, std::bit_cast<std::uint32_t>(value(i)));
    putU32(b, static_cast<std::uint32_t>(m.size()));
    b.insert(b.end(), m.begin(), m.end());
  }
  return b;
}

Bytes json() {
  nlohmann::json shapes = nlohmann::json::object();
  for (std::size_t i = 0; i < 52; ++i) shapes[std::string(velmora::unrealARKitNames[i])] = value(i);
  const std::string t = nlohmann::json{{"blendshapes", shapes}, {"rotation", {0.1, 0.2, 0.3}}, {"position", {0, 0, 0.3}}}.dump();
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
BENCHMARK(BM_ParsePacketOneMessage);
BENCHMARK(BM_ParsePacketBundle52PerMessage);

}  // namespace
