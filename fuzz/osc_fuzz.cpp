// libFuzzer target: any datagram through the OSC decoder. It must never
// crash or read out of bounds, and what it returns must be self-consistent.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "base/Utf8.h"
#include "osc/OSCParser.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> bytes(data, size);
  const auto messages = velmora::OSCParser::parsePacket(bytes);
  if (size < 4 && !messages.empty()) std::abort();
  for (const auto& m : messages) {
    const auto* address = reinterpret_cast<const std::uint8_t*>(m.address.data());
    if (!velmora::isValidUTF8({address, m.address.size()})) std::abort();
    (void)m.floatValue();
    (void)m.boolValue();
    (void)m.stringValue();
    (void)m.printedArguments();
  }
  // readString from every offset up to one past the end.
  for (std::size_t start = 0; start <= size + 1 && start < 64; ++start) {
    std::size_t offset = start;
    auto s = velmora::OSCParser::readString(bytes, offset);
    if (s && offset > size) std::abort();
    if (s && start <= size && offset < start + s->size()) std::abort();
  }
  return 0;
}
