#include "osc/OSCParser.h"

#include <bit>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "base/Utf8.h"

namespace velmora {

namespace {

constexpr char kBundleTag[] = "#bundle";  // compared over its 7 letters only
constexpr std::size_t kBundleTagLength = 7;
constexpr std::size_t kBundleHeaderLength = 16;  // "#bundle\0" + 8-byte time tag

bool beginsWithBundleTag(std::span<const std::uint8_t> data) {
  return data.size() >= kBundleTagLength && std::memcmp(data.data(), kBundleTag, kBundleTagLength) == 0;
}

std::uint32_t readU32(const std::uint8_t* p) {
  return (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) | (std::uint32_t(p[2]) << 8) |
         std::uint32_t(p[3]);
}

std::uint64_t readU64(const std::uint8_t* p) {
  return (std::uint64_t(readU32(p)) << 32) | readU32(p + 4);
}

// readString without building a std::string: the view points into `data`.
// Same offset rules as OSCParser::readString; on invalid UTF-8 the offset
// stays on the terminator (the padding skip is not reached).
std::optional<std::string_view> readStringView(std::span<const std::uint8_t> data, std::size_t& offset) {
  const std::size_t size = data.size();
  const std::size_t start = offset;
  if (start > size) return std::nullopt;
  while (offset < size && data[offset] != 0) ++offset;
  const auto bytes = data.subspan(start, offset - start);
  if (!isValidUTF8(bytes)) return std::nullopt;
  // Terminator and padding, then (kept deliberately) every further 4-byte
  // group that begins with a zero byte.
  while (offset < size && ((offset & 3u) != 0 || data[offset] == 0)) ++offset;
  return std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// Decodes one message into `address` and `arguments` (reused storage).
// False when there is no message (the address cannot be read).
bool parseMessageView(std::span<const std::uint8_t> data, std::string_view& address,
                      std::vector<OSCArgumentView>& arguments) {
  arguments.clear();
  const std::size_t size = data.size();
  std::size_t offset = 0;
  auto a = readStringView(data, offset);
  if (!a) return false;
  address = *a;
  if (offset >= size) return true;

  auto tags = readStringView(data, offset);
  if (!tags || tags->size() < 2 || tags->front() != ',') return true;

  for (char tag : tags->substr(1)) {
    switch (tag) {
      case 'f':
        if (size - offset >= 4) {
          arguments.emplace_back(std::bit_cast<float>(readU32(data.data() + offset)));
          offset += 4;
        }
        break;
      case 'i':
        if (size - offset >= 4) {
          arguments.emplace_back(static_cast<std::int32_t>(readU32(data.data() + offset)));
          offset += 4;
        }
        break;
      case 'd':
        if (size - offset >= 8) {
          arguments.emplace_back(std::bit_cast<double>(readU64(data.data() + offset)));
          offset += 8;
        }
        break;
      case 's':
        if (auto text = readStringView(data, offset)) arguments.emplace_back(*text);
        break;
      case 'T':
        arguments.emplace_back(true);
        break;
      case 'F':
        arguments.emplace_back(false);
        break;
      default:
        // Unknown tags (blobs, 64-bit ints, time tags, nil, ...) consume
        // nothing: their bytes are read by the tags that follow.
        break;
    }
  }
  return true;
}

OSCMessage ownedMessage(std::string_view address, const std::vector<OSCArgumentView>& arguments) {
  OSCMessage message;
  message.address.assign(address.data(), address.size());
  message.arguments.reserve(arguments.size());
  for (const auto& a : arguments) {
    std::visit(
        [&](const auto& v) {
          using T = std::decay_t<decltype(v)>;
          if constexpr (std::is_same_v<T, std::string_view>) {
            message.arguments.emplace_back(std::string(v));
          } else {
            message.arguments.emplace_back(v);
          }
        },
        a);
  }
  return message;
}

// Walks a bundle's elements from byte 16, calling onMessage(address,
// arguments) for each message, nested bundles in place.
template <class F>
void walkBundle(std::span<const std::uint8_t> data, std::vector<OSCArgumentView>& arguments, F& onMessage) {
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
        walkBundle(element, arguments, onMessage);
      } else {
        std::string_view address;
        if (parseMessageView(element, address, arguments)) onMessage(address, arguments);
      }
    }
    p = static_cast<std::size_t>(end);
  }
}

template <class F>
void walkPacket(std::span<const std::uint8_t> data, F& onMessage) {
  if (data.size() < 4) return;
  std::vector<OSCArgumentView> arguments;
  if (beginsWithBundleTag(data)) {
    walkBundle(data, arguments, onMessage);
    return;
  }
  std::string_view address;
  if (parseMessageView(data, address, arguments)) onMessage(address, arguments);
}

}  // namespace

std::vector<OSCMessage> OSCParser::parsePacket(std::span<const std::uint8_t> data) {
  std::vector<OSCMessage> out;
  auto collect = [&](std::string_view address, const std::vector<OSCArgumentView>& arguments) {
    out.push_back(ownedMessage(address, arguments));
  };
  walkPacket(data, collect);
  return out;
}

std::vector<OSCMessage> OSCParser::parseBundle(std::span<const std::uint8_t> data) {
  std::vector<OSCMessage> out;
  std::vector<OSCArgumentView> arguments;
  auto collect = [&](std::string_view address, const std::vector<OSCArgumentView>& args) {
    out.push_back(ownedMessage(address, args));
  };
  walkBundle(data, arguments, collect);
  return out;
}

std::optional<OSCMessage> OSCParser::parseMessage(std::span<const std::uint8_t> data) {
  std::vector<OSCArgumentView> arguments;
  std::string_view address;
  if (!parseMessageView(data, address, arguments)) return std::nullopt;
  return ownedMessage(address, arguments);
}

std::optional<std::string> OSCParser::readString(std::span<const std::uint8_t> data, std::size_t& offset) {
  auto view = readStringView(data, offset);
  if (!view) return std::nullopt;
  return std::string(*view);
}

std::size_t OSCParser::forEachMessage(std::span<const std::uint8_t> data,
                                      const std::function<void(const OSCMessageView&)>& onMessage) {
  std::size_t count = 0;
  auto forward = [&](std::string_view address, const std::vector<OSCArgumentView>& arguments) {
    ++count;
    onMessage(OSCMessageView{address, arguments});
  };
  walkPacket(data, forward);
  return count;
}

}  // namespace velmora
