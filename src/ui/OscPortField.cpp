#include "ui/OscPortField.h"

#include <cctype>

namespace velmora {

OscPortCheck OscPortField::check(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front()))) text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.remove_suffix(1);
  const std::string range = "Enter a port from " + std::to_string(lowest) + " to " + std::to_string(highest);
  if (text.empty()) return {std::nullopt, range};
  long value = 0;
  for (const char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return {std::nullopt, range};
    value = value * 10 + (c - '0');
    if (value > highest) return {std::nullopt, range};
  }
  if (value < lowest) return {std::nullopt, range};
  if (value == reserved) return {std::nullopt, "OSC cues: port 53000 is QLab's own port, choose another"};
  return {static_cast<int>(value), {}};
}

}  // namespace velmora
