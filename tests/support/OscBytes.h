#pragma once
// OSC datagrams for tests in one line each, written by OSCWriter:
//   oscMessage("/VMC/Ext/Blend/Val", {"jawOpen", 0.7f})
//   oscBundle({oscMessage(...), oscBundle({...})})   time tag "immediately"
// The codec's own tests do not use these: they read literal bytes.
#include <cstdint>
#include <initializer_list>
#include <string>
#include <variant>
#include <vector>

#include "osc/OSCWriter.h"

namespace velmora::test {

using Bytes = std::vector<std::uint8_t>;

using OscArgument = std::variant<float, std::int32_t, std::string>;

inline Bytes oscMessage(const std::string& address, const std::vector<OscArgument>& args = {}) {
  auto m = OSCWriter::message(address);
  for (const auto& a : args) {
    if (const float* f = std::get_if<float>(&a)) m.f(*f);
    else if (const std::int32_t* i = std::get_if<std::int32_t>(&a)) m.i(*i);
    else m.s(std::get<std::string>(a));
  }
  return m.bytes();
}

// Each piece a whole message or bundle; its size prefix is added here.
inline Bytes oscBundle(std::initializer_list<Bytes> elements) {
  auto b = OSCWriter::bundle();
  for (const auto& e : elements) b.add(e);
  return b.bytes();
}

}  // namespace velmora::test
