#pragma once
// OSC datagrams built byte by byte for tests: strings zero-terminated and
// padded to 4 bytes, numbers big-endian.
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <variant>
#include <vector>

namespace velmora::test {

using Bytes = std::vector<std::uint8_t>;

inline void appendBigEndian(Bytes& out, std::uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(v >> shift));
}

inline void appendOscString(Bytes& out, const std::string& s) {
  out.insert(out.end(), s.begin(), s.end());
  out.insert(out.end(), 4 - s.size() % 4, 0);  // 1..4 zero bytes: terminator plus padding
}

// A message: address, type tags, then float32 / string arguments.
inline Bytes oscMessage(const std::string& address, const std::vector<std::variant<float, std::string>>& args = {}) {
  Bytes out;
  appendOscString(out, address);
  std::string tags = ",";
  for (const auto& a : args) tags += std::holds_alternative<float>(a) ? 'f' : 's';
  appendOscString(out, tags);
  for (const auto& a : args) {
    if (const float* f = std::get_if<float>(&a)) {
      std::uint32_t bits;
      std::memcpy(&bits, f, 4);
      appendBigEndian(out, bits);
    } else {
      appendOscString(out, std::get<std::string>(a));
    }
  }
  return out;
}

// A bundle element: the body's size, then the body.
inline Bytes oscElement(const Bytes& body) {
  Bytes out;
  appendBigEndian(out, static_cast<std::uint32_t>(body.size()));
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

// "#bundle\0" (0..7), time tag "immediately" (8..15), then the pieces as given.
inline Bytes oscBundle(std::initializer_list<Bytes> pieces) {
  Bytes out{'#', 'b', 'u', 'n', 'd', 'l', 'e', 0, 0, 0, 0, 0, 0, 0, 0, 1};
  for (const auto& p : pieces) out.insert(out.end(), p.begin(), p.end());
  return out;
}

}  // namespace velmora::test
