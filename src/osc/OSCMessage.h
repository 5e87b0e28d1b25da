#pragma once
// One decoded OSC message: the address pattern exactly as received and the
// arguments in type-tag order. A plain value, copied freely, any thread.

#include <optional>
#include <string>
#include <vector>

#include "osc/OSCArgument.h"

namespace velmora {

struct OSCMessage {
  std::string address;
  std::vector<OSCArgument> arguments;

  // These look only at the first argument; no arguments gives none.
  // A float as it is, a double narrowed, an integer converted; texts and
  // booleans give none (a text "1" is not parsed).
  std::optional<float> floatValue() const;
  // A boolean as it is; otherwise floatValue() > 0.5.
  std::optional<bool> boolValue() const;
  // A text argument only.
  std::optional<std::string> stringValue() const;

  // "[" + each argument's printed form joined by ", " + "]"; "[]" without
  // arguments. Used in log lines such as "[OSC] /velmora/sensitivity [2.5]".
  std::string printedArguments() const;

  bool operator==(const OSCMessage&) const = default;
};

}  // namespace velmora
