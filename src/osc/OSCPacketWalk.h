#pragma once
// The OSC datagram walk behind OSCParser, in a header so that
// OSCParser::forEachMessage inlines it into its caller: tracking datagrams
// arrive by the hundred per second, each a bundle of ~52 messages, and the
// walk reads them in place at the cost of reading the bytes. Only
// OSCParser.h and OSCParser.cpp include this; use OSCParser.

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "base/Utf8.h"
#include "osc/OSCArgumentStore.h"
#include "osc/OSCMessageView.h"

namespace velmora::oscwalk {

inline constexpr char kBundleTag[] = "#bundle";  // compared over its 7 letters only
inline constexpr std::size_t kBundleTagLength = 7;
inline constexpr std::size_t kBundleHeaderLength = 16;  // "#bundle\0" + 8-byte time tag

inline bool beginsWithBundleTag(std::span<const std::uint8_t> data) {
  return data.size() >= kBundleTagLength && std::memcmp(data.data(), kBundleTag, kBundleTagLength) == 0;
}

inline std::uint32_t readU32(const std::uint8_t* p) {
  return (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) | (std::uint32_t(p[2]) << 8) |
         std::uint32_t(p[3]);
}

inline std::uint64_t readU64(const std::uint8_t* p) {
  return (std::uint64_t(readU32(p)) << 32) | readU32(p + 4);
}

inline constexpr std::uint64_t kLowBits = 0x0101010101010101ull;
inline constexpr std::uint64_t kHighBits = 0x8080808080808080ull;

// readString without building a std::string: the view points into `data`.
// Same offset rules as OSCParser::readString; on invalid UTF-8 the offset
// stays on the terminator (the padding skip is not reached).
//
// The terminator is searched eight bytes at a time, noting on the way
// whether any byte is above 0x7F: plain ASCII (every address and nearly
// every name) needs no further UTF-8 check.
[[gnu::always_inline]] inline bool readStringView(std::span<const std::uint8_t> data, std::size_t& offset,
                                                  std::string_view& text) {
  const std::size_t size = data.size();
  const std::size_t start = offset;
  if (start > size) return false;
  const std::uint8_t* p = data.data();
  std::size_t end = start;
  std::uint64_t high = 0;  // the high bits of every byte before the terminator
  bool found = false;
#if defined(__SSE2__)
  // Sixteen bytes at a time: one compare finds the zeros, the sign bits are
  // the bytes above 0x7F.
  while (size - end >= 16) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + end));
    const auto zeros = static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_setzero_si128())));
    const auto signs = static_cast<std::uint32_t>(_mm_movemask_epi8(v));
    if (zeros != 0) {
      const int before = std::countr_zero(zeros);
      high |= (signs & ((std::uint32_t(1) << before) - 1)) != 0 ? kHighBits : 0;
      end += static_cast<std::size_t>(before);
      found = true;
      break;
    }
    high |= signs != 0 ? kHighBits : 0;
    end += 16;
  }
#endif
  if constexpr (std::endian::native == std::endian::little) {
    while (!found && size - end >= 8) {
      std::uint64_t word;
      std::memcpy(&word, p + end, 8);
      // The lowest flagged byte is the first zero byte (flags above it may
      // be false, from the borrow).
      const std::uint64_t zero = (word - kLowBits) & ~word & kHighBits;
      if (zero != 0) {
        const int bits = std::countr_zero(zero) - 7;  // 8 * (bytes before the zero)
        high |= word & ((std::uint64_t(1) << bits) - 1);
        end += static_cast<std::size_t>(bits >> 3);
        found = true;
        break;
      }
      high |= word;
      end += 8;
    }
    // A type tag string (",f", ",sf") is the last text of its message: a
    // four-byte step covers it when fewer than eight bytes are left.
    if (!found && size - end >= 4) {
      std::uint32_t word;
      std::memcpy(&word, p + end, 4);
      const std::uint32_t zero = (word - 0x01010101u) & ~word & 0x80808080u;
      if (zero != 0) {
        const int bits = std::countr_zero(zero) - 7;
        high |= word & ((std::uint32_t(1) << bits) - 1);
        end += static_cast<std::size_t>(bits >> 3);
        found = true;
      } else {
        high |= word;
        end += 4;
      }
    }
  }
  if (!found) {
    while (end < size && p[end] != 0) high |= p[end++];
  }
  text = std::string_view(reinterpret_cast<const char*>(p + start), end - start);
  if ((high & kHighBits) != 0 && !isValidUTF8(data.subspan(start, end - start))) {
    offset = end;
    return false;
  }
  // The terminator and the bytes up to the next multiple of 4, nothing
  // more: an argument that follows (integer 0, float 0.0, an empty string)
  // starts there. Without a terminator the text ends the data.
  if (end < size) end = std::min((end | 3u) + 1, size);
  offset = end;
  return true;
}

inline std::optional<std::string_view> readStringView(std::span<const std::uint8_t> data, std::size_t& offset) {
  std::string_view text;
  if (!readStringView(data, offset, text)) return std::nullopt;
  return text;
}

// Decodes one message into `address` and `arguments` (pointing into
// `store`). False when there is no message (the address cannot be read).
[[gnu::always_inline]] inline bool parseMessageView(std::span<const std::uint8_t> data, std::string_view& address,
                                                    std::span<const OSCArgumentView>& arguments,
                                                    ArgumentStore& store) {
  arguments = {};
  const std::size_t size = data.size();
  std::size_t offset = 0;
  if (!readStringView(data, offset, address)) return false;
  if (offset >= size) return true;

  std::string_view tags;
  if (!readStringView(data, offset, tags) || tags.size() < 2 || tags.front() != ',') return true;

  OSCArgumentView* out = store.reserve(tags.size() - 1);
  std::size_t count = 0;
  const std::uint8_t* p = data.data();
  for (char tag : tags.substr(1)) {
    switch (tag) {
      case 'f':
        if (size - offset >= 4) {
          new (out + count++) OSCArgumentView(std::bit_cast<float>(readU32(p + offset)));
          offset += 4;
        }
        break;
      case 'i':
        if (size - offset >= 4) {
          new (out + count++) OSCArgumentView(static_cast<std::int32_t>(readU32(p + offset)));
          offset += 4;
        }
        break;
      case 'd':
        if (size - offset >= 8) {
          new (out + count++) OSCArgumentView(std::bit_cast<double>(readU64(p + offset)));
          offset += 8;
        }
        break;
      case 's': {
        std::string_view text;
        if (readStringView(data, offset, text)) new (out + count++) OSCArgumentView(text);
        break;
      }
      case 'T':
        new (out + count++) OSCArgumentView(true);
        break;
      case 'F':
        new (out + count++) OSCArgumentView(false);
        break;
      default:
        // Unknown tags (blobs, 64-bit ints, time tags, nil, ...) consume
        // nothing: their bytes are read by the tags that follow.
        break;
    }
  }
  arguments = std::span<const OSCArgumentView>(out, count);
  return true;
}

// Walks a bundle's elements from byte 16, calling onMessage(address,
// arguments) for each message, nested bundles in place.
template <class F>
void walkBundle(std::span<const std::uint8_t> data, ArgumentStore& store, F& onMessage) {
  const std::size_t size = data.size();
  std::size_t p = kBundleHeaderLength;
  while (p + 4 <= size) {
    const std::uint64_t elementSize = readU32(data.data() + p);
    if (elementSize == 0) return;  // a zero-size element ends the whole bundle
    const std::uint64_t end = p + 4 + elementSize;
    if (end > size) return;  // truncated: drop it and everything after it
    const auto element = data.subspan(p + 4, static_cast<std::size_t>(elementSize));
    if (element.size() >= 4) {
      if (beginsWithBundleTag(element)) {
        walkBundle(element, store, onMessage);
      } else {
        std::string_view address;
        std::span<const OSCArgumentView> arguments;
        if (parseMessageView(element, address, arguments, store)) onMessage(address, arguments);
      }
    }
    p = static_cast<std::size_t>(end);
  }
}

template <class F>
[[gnu::always_inline]] inline void walkPacket(std::span<const std::uint8_t> data, F& onMessage) {
  if (data.size() < 4) return;
  ArgumentStore store;
  if (beginsWithBundleTag(data)) {
    walkBundle(data, store, onMessage);
    return;
  }
  std::string_view address;
  std::span<const OSCArgumentView> arguments;
  if (parseMessageView(data, address, arguments, store)) onMessage(address, arguments);
}

}  // namespace velmora::oscwalk
