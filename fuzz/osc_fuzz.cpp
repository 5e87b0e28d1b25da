// libFuzzer target: any datagram through the OSC decoder. It must never
// crash or read out of bounds, and what it returns must be self-consistent:
// the in-place reader (forEachMessage) hands out exactly the messages
// parsePacket copies, and texts are read as the plain byte-by-byte reader
// reads them. Every message read is also written again with OSCWriter and
// must read back the same (zeros, empty texts and NaN bits included).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <variant>

#include "base/Utf8.h"
#include "osc/OSCParser.h"
#include "osc/OSCWriter.h"

namespace {

// OSC text reading done the plain way, one byte at a time: the reference the
// reader's word-at-a-time scan is checked against. Same contract as
// OSCParser::readString.
std::optional<std::string> plainReadString(std::span<const std::uint8_t> data, std::size_t& offset) {
  const std::size_t size = data.size();
  const std::size_t start = offset;
  if (start > size) return std::nullopt;
  while (offset < size && data[offset] != 0) ++offset;  // to the terminator or the end
  const auto bytes = data.subspan(start, offset - start);
  if (!velmora::isValidUTF8(bytes)) return std::nullopt;
  // The terminator, then the padding up to the next multiple of four.
  if (offset < size) ++offset;
  while (offset < size && (offset & 3u) != 0) ++offset;
  return std::string(bytes.begin(), bytes.end());
}

// An argument (in place, or read again) equals its owned copy: same kind,
// same value bits, so NaN payloads and the sign of zero count.
template <class Variant>
bool same(const Variant& other, const velmora::OSCArgument& owned) {
  return std::visit(
      [&](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::string_view> || std::is_same_v<T, std::string>) {
          const auto* s = owned.get<std::string>();
          return s && *s == v;
        } else {
          const auto* o = owned.get<T>();
          return o && std::memcmp(o, &v, sizeof v) == 0;
        }
      },
      other);
}

// Writes `m` with OSCWriter and reads it back. Doubles have no writer tag,
// and an address beginning "#bundle" would read as a bundle: those are
// not written.
void roundTrip(const velmora::OSCMessage& m) {
  if (m.address.starts_with("#bundle")) return;
  auto writer = velmora::OSCWriter::message(m.address);
  for (const auto& a : m.arguments) {
    if (const auto* f = a.get<float>()) writer.f(*f);
    else if (const auto* i = a.get<std::int32_t>()) writer.i(*i);
    else if (const auto* s = a.get<std::string>()) writer.s(*s);
    else if (const auto* b = a.get<bool>()) writer.boolean(*b);
    else return;
  }
  const auto back = velmora::OSCParser::parsePacket(writer.bytes());
  if (back.size() != 1 || back[0].address != m.address || back[0].arguments.size() != m.arguments.size()) std::abort();
  for (std::size_t i = 0; i < m.arguments.size(); ++i)
    if (!same(back[0].arguments[i].value, m.arguments[i])) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  const auto messages = velmora::OSCParser::parsePacket(bytes);
  if (size < 4 && !messages.empty()) std::abort();
  for (const auto& m : messages) {
    const auto* address = reinterpret_cast<const std::uint8_t*>(m.address.data());
    if (!velmora::isValidUTF8({address, m.address.size()})) std::abort();
    (void)m.printedArguments();
    roundTrip(m);
  }
  std::size_t index = 0;
  const std::size_t count = velmora::OSCParser::forEachMessage(bytes, [&](const velmora::OSCMessageView& view) {
    if (index >= messages.size()) std::abort();
    const auto& owned = messages[index++];
    if (view.address != owned.address || view.arguments.size() != owned.arguments.size()) std::abort();
    for (std::size_t i = 0; i < view.arguments.size(); ++i)
      if (!same(view.arguments[i], owned.arguments[i])) std::abort();
  });
  if (count != messages.size() || index != count) std::abort();
  // readString from every offset up to one past the end, as the plain reader.
  for (std::size_t start = 0; start <= size + 1 && start < 64; ++start) {
    std::size_t offset = start;
    auto s = velmora::OSCParser::readString(bytes, offset);
    std::size_t plainOffset = start;
    const auto plain = plainReadString(bytes, plainOffset);
    if (s != plain || offset != plainOffset) std::abort();
    if (s && offset > size) std::abort();
    if (s && start <= size && offset < start + s->size()) std::abort();
  }
  return 0;
}
