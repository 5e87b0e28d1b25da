#include "base/Utf8.h"

#include <cstring>

namespace velmora {

bool isValidUTF8(std::span<const std::uint8_t> bytes) {
  const std::size_t n = bytes.size();
  std::size_t i = 0;
  while (i < n) {
    // ASCII runs (nearly all of a text datagram) eight bytes at a time.
    if (n - i >= 8) {
      std::uint64_t word;
      std::memcpy(&word, bytes.data() + i, 8);
      if ((word & 0x8080808080808080ull) == 0) {
        i += 8;
        continue;
      }
    }
    const std::uint8_t b = bytes[i];
    if (b < 0x80) {
      ++i;
      continue;
    }
    std::size_t len = 0;
    std::uint8_t lo = 0x80, hi = 0xBF;  // allowed range of the second byte
    if (b >= 0xC2 && b <= 0xDF) {
      len = 2;
    } else if (b >= 0xE0 && b <= 0xEF) {
      len = 3;
      if (b == 0xE0) lo = 0xA0;       // overlong
      else if (b == 0xED) hi = 0x9F;  // surrogates
    } else if (b >= 0xF0 && b <= 0xF4) {
      len = 4;
      if (b == 0xF0) lo = 0x90;       // overlong
      else if (b == 0xF4) hi = 0x8F;  // above U+10FFFF
    } else {
      return false;
    }
    if (n - i < len) return false;
    if (bytes[i + 1] < lo || bytes[i + 1] > hi) return false;
    for (std::size_t k = 2; k < len; ++k) {
      if ((bytes[i + k] & 0xC0) != 0x80) return false;
    }
    i += len;
  }
  return true;
}

}  // namespace velmora
