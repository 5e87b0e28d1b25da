#include "osc/OSCMessage.h"

namespace velmora {

std::optional<float> OSCMessage::floatValue() const {
  if (arguments.empty()) return std::nullopt;
  const OSCArgument& a = arguments.front();
  if (auto f = a.get<float>()) return *f;
  if (auto d = a.get<double>()) return static_cast<float>(*d);
  if (auto i = a.get<std::int32_t>()) return static_cast<float>(*i);
  return std::nullopt;
}

std::optional<bool> OSCMessage::boolValue() const {
  if (arguments.empty()) return std::nullopt;
  if (auto b = arguments.front().get<bool>()) return *b;
  if (auto f = floatValue()) return *f > 0.5f;
  return std::nullopt;
}

std::optional<std::string> OSCMessage::stringValue() const {
  if (arguments.empty()) return std::nullopt;
  if (auto s = arguments.front().get<std::string>()) return *s;
  return std::nullopt;
}

std::string OSCMessage::printedArguments() const {
  std::string out = "[";
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (i) out += ", ";
    out += arguments[i].printed();
  }
  out += "]";
  return out;
}

}  // namespace velmora
