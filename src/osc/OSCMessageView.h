#pragma once
// A decoded OSC message that points into the datagram instead of owning its
// texts: for hot paths (tracking data at 60 packets/s) that read each
// message once and keep nothing. Valid only during the callback of
// OSCParser::forEachMessage that hands it out.

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <variant>

namespace velmora {

using OSCArgumentView = std::variant<float, std::int32_t, double, std::string_view, bool>;

struct OSCMessageView {
  std::string_view address;
  std::span<const OSCArgumentView> arguments;

  // As OSCMessage::floatValue: the first argument as a float (double
  // narrowed, integer converted); none for texts, booleans or no arguments.
  std::optional<float> floatValue() const {
    if (arguments.empty()) return std::nullopt;
    const OSCArgumentView& a = arguments.front();
    if (auto f = std::get_if<float>(&a)) return *f;
    if (auto d = std::get_if<double>(&a)) return static_cast<float>(*d);
    if (auto i = std::get_if<std::int32_t>(&a)) return static_cast<float>(*i);
    return std::nullopt;
  }
};

}  // namespace velmora
