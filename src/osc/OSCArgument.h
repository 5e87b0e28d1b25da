#pragma once
// One typed OSC argument as it came off the wire. The kind is kept exactly
// (an integer stays an integer); conversions happen only in OSCMessage's
// accessors.

#include <cstdint>
#include <string>
#include <variant>

namespace velmora {

struct OSCArgument {
  using Value = std::variant<float, std::int32_t, double, std::string, bool>;
  Value value;

  OSCArgument(float v) : value(v) {}
  OSCArgument(std::int32_t v) : value(v) {}
  OSCArgument(double v) : value(v) {}
  OSCArgument(std::string v) : value(std::move(v)) {}
  OSCArgument(const char* v) : value(std::string(v)) {}
  OSCArgument(bool v) : value(v) {}

  template <class T>
  bool is() const { return std::holds_alternative<T>(value); }
  template <class T>
  const T* get() const { return std::get_if<T>(&value); }

  // Readable form for logs and the dashboard: floats and doubles in their
  // shortest round-trip form, integers as integers, texts in double quotes,
  // booleans as true/false.
  std::string printed() const;

  bool operator==(const OSCArgument&) const = default;
};

}  // namespace velmora
