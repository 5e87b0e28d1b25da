#pragma once
// The datagrams the intake benchmarks feed, built once per benchmark: a
// Live Link face packet, a 52-element VMC bundle, single OSC messages and
// a JSON object of 52 names with a head. Every intake and peer benchmark
// reads these same bytes, so their figures compare.

#include <array>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "osc/OSCWriter.h"
#include "tracking/LiveLinkNames.h"
#include "tracking/LiveLinkWriter.h"

namespace intake {

using Bytes = std::vector<std::uint8_t>;
inline const std::string kSender = "192.168.1.20:50000";

// The i-th value, 0.01..0.91, so no two neighbours are equal.
inline float value(std::size_t i) { return 0.013f * float(i % 70) + 0.01f; }

// A 45-byte header (subject and device names, frame time), then 61 floats.
inline Bytes liveLink() {
  std::array<float, velmora::LiveLinkWriter::kValueCount> values{};
  for (std::size_t i = 0; i < values.size(); ++i) values[i] = value(i);
  return velmora::LiveLinkWriter::packet("device", "iPhone", {1, 0.0f, 1, 1}, values);
}

// #bundle, time tag "immediately", 52 elements of /VMC/Ext/Blend/Val ,sf name value.
inline Bytes oscBundle() {
  auto bundle = velmora::OSCWriter::bundle();
  for (std::size_t i = 0; i < 52; ++i) bundle.message("/VMC/Ext/Blend/Val").s(velmora::unrealARKitNames[i]).f(value(i));
  return bundle.bytes();
}

// One message: `address` with one float.
inline Bytes oscMessage(const std::string& address, float v) { return velmora::OSCWriter::message(address).f(v).bytes(); }

// {"blendshapes": {52 names}, "rotation": [...], "position": [...]}.
inline Bytes json() {
  nlohmann::json shapes = nlohmann::json::object();
  for (std::size_t i = 0; i < 52; ++i) shapes[std::string(velmora::unrealARKitNames[i])] = value(i);
  const std::string t =
      nlohmann::json{{"blendshapes", shapes}, {"rotation", {0.1, 0.2, 0.3}}, {"position", {0, 0, 0.3}}}.dump();
  return Bytes(t.begin(), t.end());
}

}  // namespace intake
