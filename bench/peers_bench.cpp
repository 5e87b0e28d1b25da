// Our decoders side by side with the libraries a user of OSC and JSON would
// otherwise pick, on the same bytes and to the same result shape.
// Names are <Who>_<Work>: the same <Work> means the same input and output,
// so Ours_X / Oscpack_X is the ratio to report.
//
//   OSCBundle52Read   a bundle of 52 /VMC/Ext/Blend/Val ,sf messages, every
//                     address and argument read, nothing kept
//   OSCBundle52ToMap  the same bundle to a map of 52 names -> values
//   OSCMessageParse   one message (/velmora/sensitivity ,f 2.5) to its
//                     address and arguments, read in place (views into
//                     the datagram, as oscpack's ReceivedMessage)
//   OSCMessageToOwned the same message to an owned copy that outlives the
//                     datagram (what the cue server posts to the main
//                     thread; liblo's lo_message)
//   JSON52ToMap       {"blendshapes": {52 entries}, "rotation": [...],
//                     "position": [...]} to the map and the two vectors
//   LiveLinkToFrame   a Live Link face packet to its 52 values and head;
//                     the floor is 61 byte-swapped floats into an array
//
// Every ToMap work fills the map type our decoders fill (BlendshapeMap),
// each peer through that map's cheapest insert, so the pairs stay fair
// whatever that type is.
//
// Index of this file:
//   [SECTION] The same bytes for everyone
//   [SECTION] OSC bundle, read
//   [SECTION] OSC bundle, to a map
//   [SECTION] One OSC message
//   [SECTION] JSON
//   [SECTION] Live Link

#include <benchmark/benchmark.h>
#include <lo/lo.h>
#include <simdjson.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <nlohmann/json.hpp>
#include <oscpack/osc/OscReceivedElements.h>
#include <string>
#include <string_view>
#include <vector>

#include "IntakeDatagrams.h"
#include "osc/OSCParser.h"
#include "stage/FaceFrame.h"
#include "tracking/LiveLinkNames.h"
#include "tracking/TrackingDecoders.h"

namespace {

// ---------------------------------------------------------------------------
// [SECTION] The same bytes for everyone
// ---------------------------------------------------------------------------

using Bytes = intake::Bytes;
using Map = velmora::BlendshapeMap;

// name -> v by a view where the map takes one (no string built), else by a
// std::string.
template <class M>
void put(M& map, std::string_view name, float v) {
  if constexpr (requires { map.insert_or_assign(name, v); }) {
    map.insert_or_assign(name, v);
  } else {
    map.insert_or_assign(std::string(name), v);
  }
}

// Room for n names where the map has a reserve (a hash map); a no-op else.
template <class M>
void reserveFor(M& map, std::size_t n) {
  if constexpr (requires { map.reserve(n); }) map.reserve(n);
}
using intake::kSender;
using intake::liveLink;
using intake::oscBundle;

Bytes oscMessage() { return intake::oscMessage("/velmora/sensitivity", 2.5f); }
Bytes jsonText() { return intake::json(); }

void countBytes(benchmark::State& state, const Bytes& bytes) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

// ---------------------------------------------------------------------------
// [SECTION] OSC bundle, read
// ---------------------------------------------------------------------------

void Ours_OSCBundle52Read(benchmark::State& state) {
  const Bytes b = oscBundle();
  for (auto _ : state) {
    float sum = 0;
    const std::size_t n = velmora::OSCParser::forEachMessage(b, [&](const velmora::OSCMessageView& m) {
      benchmark::DoNotOptimize(m.address.data());
      if (m.arguments.size() < 2) return;
      benchmark::DoNotOptimize(std::get<std::string_view>(m.arguments[0]).data());
      sum += std::get<float>(m.arguments[1]);
    });
    benchmark::DoNotOptimize(n);
    benchmark::DoNotOptimize(sum);
  }
  countBytes(state, b);
}

void Oscpack_OSCBundle52Read(benchmark::State& state) {
  const Bytes b = oscBundle();
  for (auto _ : state) {
    float sum = 0;
    osc::ReceivedPacket packet(reinterpret_cast<const char*>(b.data()), static_cast<osc::osc_bundle_element_size_t>(b.size()));
    osc::ReceivedBundle bundle(packet);
    for (auto e = bundle.ElementsBegin(); e != bundle.ElementsEnd(); ++e) {
      osc::ReceivedMessage m(*e);
      benchmark::DoNotOptimize(m.AddressPattern());
      auto args = m.ArgumentsBegin();
      benchmark::DoNotOptimize(args->AsString());
      ++args;
      sum += args->AsFloat();
    }
    benchmark::DoNotOptimize(sum);
  }
  countBytes(state, b);
}

// liblo reads bundles only by dispatching them to a server's methods; the
// server's socket is never used.
struct LibloServer {
  LibloServer() { server = lo_server_new_with_proto(nullptr, LO_UDP, nullptr); }
  ~LibloServer() { lo_server_free(server); }
  lo_server server;
};

int libloSum(const char*, const char*, lo_arg** argv, int, lo_message, void* user) {
  benchmark::DoNotOptimize(&argv[0]->s);
  *static_cast<float*>(user) += argv[1]->f;
  return 0;
}

int libloToMap(const char*, const char*, lo_arg** argv, int, lo_message, void* user) {
  put(*static_cast<Map*>(user), &argv[0]->s, argv[1]->f);
  return 0;
}

void Liblo_OSCBundle52Read(benchmark::State& state) {
  Bytes b = oscBundle();
  LibloServer lo;
  float sum = 0;
  lo_server_add_method(lo.server, "/VMC/Ext/Blend/Val", "sf", libloSum, &sum);
  for (auto _ : state) {
    lo_server_dispatch_data(lo.server, b.data(), b.size());
    benchmark::DoNotOptimize(sum);
  }
  countBytes(state, b);
}

// ---------------------------------------------------------------------------
// [SECTION] OSC bundle, to a map
// ---------------------------------------------------------------------------

void Ours_OSCBundle52ToMap(benchmark::State& state) {
  const Bytes b = oscBundle();
  for (auto _ : state) {
    auto frame = velmora::decodeOSCPacket(b, kSender);
    benchmark::DoNotOptimize(frame->frame.blendshapes->size());
  }
  countBytes(state, b);
}

void Oscpack_OSCBundle52ToMap(benchmark::State& state) {
  const Bytes b = oscBundle();
  for (auto _ : state) {
    Map map;
    reserveFor(map, 64);
    osc::ReceivedPacket packet(reinterpret_cast<const char*>(b.data()), static_cast<osc::osc_bundle_element_size_t>(b.size()));
    osc::ReceivedBundle bundle(packet);
    for (auto e = bundle.ElementsBegin(); e != bundle.ElementsEnd(); ++e) {
      osc::ReceivedMessage m(*e);
      if (std::strcmp(m.AddressPattern(), "/VMC/Ext/Blend/Val") != 0) continue;
      auto args = m.ArgumentsBegin();
      const char* name = args->AsString();
      ++args;
      put(map, name, args->AsFloat());
    }
    benchmark::DoNotOptimize(map.size());
  }
  countBytes(state, b);
}

void Liblo_OSCBundle52ToMap(benchmark::State& state) {
  Bytes b = oscBundle();
  LibloServer lo;
  Map map;
  lo_server_add_method(lo.server, "/VMC/Ext/Blend/Val", "sf", libloToMap, &map);
  for (auto _ : state) {
    map = Map();
    reserveFor(map, 64);
    lo_server_dispatch_data(lo.server, b.data(), b.size());
    benchmark::DoNotOptimize(map.size());
  }
  countBytes(state, b);
}

// ---------------------------------------------------------------------------
// [SECTION] One OSC message
// ---------------------------------------------------------------------------

void Ours_OSCMessageParse(benchmark::State& state) {
  const Bytes m = oscMessage();
  for (auto _ : state) {
    const std::size_t n = velmora::OSCParser::forEachMessage(m, [](const velmora::OSCMessageView& message) {
      benchmark::DoNotOptimize(message.address.data());
      benchmark::DoNotOptimize(std::get<float>(message.arguments[0]));
    });
    benchmark::DoNotOptimize(n);
  }
}

void Oscpack_OSCMessageParse(benchmark::State& state) {
  const Bytes m = oscMessage();
  for (auto _ : state) {
    osc::ReceivedPacket packet(reinterpret_cast<const char*>(m.data()), static_cast<osc::osc_bundle_element_size_t>(m.size()));
    osc::ReceivedMessage message(packet);
    benchmark::DoNotOptimize(message.AddressPattern());
    benchmark::DoNotOptimize(message.ArgumentsBegin()->AsFloat());
  }
}

void Ours_OSCMessageToOwned(benchmark::State& state) {
  const Bytes m = oscMessage();
  for (auto _ : state) {
    auto messages = velmora::OSCParser::parsePacket(m);
    benchmark::DoNotOptimize(messages.front().address.data());
    benchmark::DoNotOptimize(*messages.front().arguments[0].get<float>());
  }
}

void Liblo_OSCMessageToOwned(benchmark::State& state) {
  Bytes m = oscMessage();
  for (auto _ : state) {
    int result = 0;
    lo_message message = lo_message_deserialise(m.data(), m.size(), &result);
    benchmark::DoNotOptimize(lo_message_get_argv(message)[0]->f);
    lo_message_free(message);
  }
}

// ---------------------------------------------------------------------------
// [SECTION] JSON
// ---------------------------------------------------------------------------

void Ours_JSON52ToMap(benchmark::State& state) {
  const Bytes j = jsonText();
  for (auto _ : state) {
    auto frame = velmora::decodeJSONText(j, kSender);
    benchmark::DoNotOptimize(frame->frame.blendshapes->size());
  }
  countBytes(state, j);
}

// simdjson as its documentation shows it: a reused parser, the DOM walked
// into the same map and vectors. simdjson reads SIMDJSON_PADDING bytes past
// the text, so each datagram, like ours, is first copied into a reused
// padded buffer (what any receiver of fresh datagrams does).
void Simdjson_JSON52ToMap(benchmark::State& state) {
  const Bytes j = jsonText();
  simdjson::dom::parser parser;
  std::vector<char> padded(j.size() + simdjson::SIMDJSON_PADDING);
  for (auto _ : state) {
    std::memcpy(padded.data(), j.data(), j.size());
    simdjson::dom::element root;
    if (parser.parse(padded.data(), j.size(), false).get(root)) state.SkipWithError("not JSON");
    Map map;
    std::array<float, 3> rotation{}, position{};
    simdjson::dom::object object;
    if (root.get_object().get(object)) state.SkipWithError("not an object");
    for (const auto field : object) {
      if (field.key == "blendshapes") {
        simdjson::dom::object shapes;
        if (field.value.get_object().get(shapes)) continue;
        reserveFor(map, shapes.size());
        for (const auto shape : shapes) {
          double v = 0;
          if (!shape.value.get_double().get(v)) put(map, shape.key, float(v));
        }
      } else if (field.key == "rotation" || field.key == "position") {
        auto& out = field.key == "rotation" ? rotation : position;
        simdjson::dom::array array;
        if (field.value.get_array().get(array)) continue;
        std::size_t i = 0;
        for (const auto e : array) {
          double v = 0;
          if (i < 3 && !e.get_double().get(v)) out[i] = float(v);
          ++i;
        }
      }
    }
    benchmark::DoNotOptimize(map.size());
    benchmark::DoNotOptimize(rotation.data());
    benchmark::DoNotOptimize(position.data());
  }
  countBytes(state, j);
}

void Nlohmann_JSON52ToMap(benchmark::State& state) {
  const Bytes j = jsonText();
  for (auto _ : state) {
    const auto document = nlohmann::json::parse(j.begin(), j.end());
    Map map;
    const auto& shapes = document["blendshapes"];
    reserveFor(map, shapes.size());
    for (auto it = shapes.begin(); it != shapes.end(); ++it) put(map, it.key(), it->get<float>());
    std::array<float, 3> rotation{}, position{};
    for (std::size_t i = 0; i < 3; ++i) {
      rotation[i] = document["rotation"][i].get<float>();
      position[i] = document["position"][i].get<float>();
    }
    benchmark::DoNotOptimize(map.size());
    benchmark::DoNotOptimize(rotation.data());
    benchmark::DoNotOptimize(position.data());
  }
  countBytes(state, j);
}

// ---------------------------------------------------------------------------
// [SECTION] Live Link
// ---------------------------------------------------------------------------

void Ours_LiveLinkToFrame(benchmark::State& state) {
  const Bytes b = liveLink();
  for (auto _ : state) {
    auto frame = velmora::decodeUnrealLiveLinkBinary(b, kSender);
    benchmark::DoNotOptimize(frame->frame.blendshapes->size());
  }
  countBytes(state, b);
}

// The least any decoder must do: 61 big-endian floats into a fixed array.
void Floor_LiveLinkToFrame(benchmark::State& state) {
  const Bytes b = liveLink();
  for (auto _ : state) {
    std::array<float, 61> values;
    const std::uint8_t* tail = b.data() + b.size() - 244;
    for (std::size_t i = 0; i < 61; ++i) {
      std::uint32_t bits;
      std::memcpy(&bits, tail + 4 * i, 4);
      values[i] = std::bit_cast<float>(__builtin_bswap32(bits));
    }
    benchmark::DoNotOptimize(values.data());
  }
  countBytes(state, b);
}

BENCHMARK(Ours_OSCBundle52Read);
BENCHMARK(Oscpack_OSCBundle52Read);
BENCHMARK(Liblo_OSCBundle52Read);
BENCHMARK(Ours_OSCBundle52ToMap);
BENCHMARK(Oscpack_OSCBundle52ToMap);
BENCHMARK(Liblo_OSCBundle52ToMap);
BENCHMARK(Ours_OSCMessageParse);
BENCHMARK(Oscpack_OSCMessageParse);
BENCHMARK(Ours_OSCMessageToOwned);
BENCHMARK(Liblo_OSCMessageToOwned);
BENCHMARK(Ours_JSON52ToMap);
BENCHMARK(Simdjson_JSON52ToMap);
BENCHMARK(Nlohmann_JSON52ToMap);
BENCHMARK(Ours_LiveLinkToFrame);
BENCHMARK(Floor_LiveLinkToFrame);

}  // namespace
