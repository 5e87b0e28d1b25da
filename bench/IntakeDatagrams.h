#pragma once
// The datagrams the intake benchmarks feed, built once per benchmark: a
// Live Link face packet, a 52-element VMC bundle, single OSC messages and
// a JSON object of 52 names with a head. Every intake and peer benchmark
// reads these same bytes, so their figures compare.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tracking/LiveLinkNames.h"

namespace intake {

using Bytes = std::vector<std::uint8_t>;
inline const std::string kSender = "192.168.1.20:50000";

inline void putU32(Bytes& b, std::uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) b.push_back(std::uint8_t(v >> s));
}
// An OSC string: the bytes, a terminating zero, padded to 4 bytes.
inline void putString(Bytes& b, const std::string& s) {
  b.insert(b.end(), s.begin(), s.end());
  b.push_back(0);
  while (b.size() % 4) b.push_back(0);
}
// The i-th value, 0.01..0.91, so no two neighbours are equal.
inline float value(std::size_t i) { return 0.013f * float(i % 70) + 0.01f; }

// A 45-byte header (subject and device names, frame time), then 61 floats.
inline Bytes liveLink() {
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

// #bundle, time tag "immediately", 52 elements of /VMC/Ext/Blend/Val ,sf name value.
inline Bytes oscBundle() {
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

// One message: `address` with one float.
inline Bytes oscMessage(const std::string& address, float v) {
  Bytes m;
  putString(m, address);
  putString(m, ",f");
  putU32(m, std::bit_cast<std::uint32_t>(v));
  return m;
}

// {"blendshapes": {52 names}, "rotation": [...], "position": [...]}.
inline Bytes json() {
  nlohmann::json shapes = nlohmann::json::object();
  for (std::size_t i = 0; i < 52; ++i) shapes[std::string(velmora::unrealARKitNames[i])] = value(i);
  const std::string t =
      nlohmann::json{{"blendshapes", shapes}, {"rotation", {0.1, 0.2, 0.3}}, {"position", {0, 0, 0.3}}}.dump();
  return Bytes(t.begin(), t.end());
}

}  // namespace intake
