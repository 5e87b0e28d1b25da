#pragma once
// OSC text reading done the plain way, one byte at a time: the reference the
// OSC reader's word-at-a-time scan is checked against (the OSC fuzzer and
// the OSC unit tests). Same contract as OSCParser::readString.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "base/Utf8.h"

namespace velmora::reference {

inline std::optional<std::string> readOSCString(std::span<const std::uint8_t> data, std::size_t& offset) {
  const std::size_t size = data.size();
  const std::size_t start = offset;
  if (start > size) return std::nullopt;
  while (offset < size && data[offset] != 0) ++offset;  // to the terminator or the end
  const auto bytes = data.subspan(start, offset - start);
  if (!isValidUTF8(bytes)) return std::nullopt;
  // The terminator, then the padding up to the next multiple of four.
  if (offset < size) ++offset;
  while (offset < size && (offset & 3u) != 0) ++offset;
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace velmora::reference
