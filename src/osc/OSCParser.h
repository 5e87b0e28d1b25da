#pragma once
// OSC 1.0 decoder: one UDP datagram (a message, or a bundle nested to any
// depth) to an ordered list of messages. Stateless; any thread.
//
// It never fails loudly. Whatever cannot be read is dropped, message by
// message or argument by argument, and every read is checked against the
// data length first. A string's padding is its terminating zero plus the
// zero bytes up to the next multiple of 4, as OSC 1.0 defines, so a zero
// argument right after a string arrives. Unknown type tags ("b", "h", "t",
// ...) consume no bytes: their data is read by the tags that follow.
// Bundle time tags are ignored: every message is delivered at once.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "osc/OSCMessage.h"
#include "osc/OSCMessageView.h"
#include "osc/OSCPacketWalk.h"

namespace velmora {

class OSCParser {
 public:
  // Entry point: fewer than 4 bytes gives an empty list; "#bundle" (7 bytes,
  // the zero after it unchecked) goes to parseBundle, anything else is one
  // message.
  static std::vector<OSCMessage> parsePacket(std::span<const std::uint8_t> data);
  // Elements start at byte 16 (after "#bundle\0" and the time tag). A zero
  // size ends the bundle; an element overrunning the data ends it too,
  // keeping what was decoded before.
  static std::vector<OSCMessage> parseBundle(std::span<const std::uint8_t> data);
  static std::optional<OSCMessage> parseMessage(std::span<const std::uint8_t> data);
  // Reads the string starting at `offset` (an offset into `data`) and
  // advances `offset` past its terminator and its padding to the next
  // multiple of 4. None when offset lies beyond the data or the
  // bytes are not UTF-8; at exactly the end it yields the empty text.
  static std::optional<std::string> readString(std::span<const std::uint8_t> data, std::size_t& offset);

  // The messages parsePacket would return, in the same order, handed one at
  // a time as views into `data` without copying any text or allocating
  // (messages of up to 16 arguments). `onMessage` is any callable taking
  // const OSCMessageView&. Returns how many.
  template <class F>
  [[gnu::always_inline]] static std::size_t forEachMessage(std::span<const std::uint8_t> data, F&& onMessage) {
    std::size_t count = 0;
    auto forward = [&](std::string_view address, std::span<const OSCArgumentView> arguments) {
      ++count;
      onMessage(OSCMessageView{address, arguments});
    };
    oscwalk::walkPacket(data, forward);
    return count;
  }
};

}  // namespace velmora
