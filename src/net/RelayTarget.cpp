#include "net/RelayTarget.h"

#include <algorithm>
#include <charconv>

namespace velmora {

std::optional<RelayTarget> RelayTarget::parse(std::string_view text, std::string* why) {
  auto fail = [&](const char* reason) -> std::optional<RelayTarget> {
    if (why) *why = reason;
    return std::nullopt;
  };
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos || colon + 1 == text.size()) return fail("no port after the host (host:port)");
  const std::string_view host = text.substr(0, colon);
  const std::string_view port = text.substr(colon + 1);
  if (host.empty()) return fail("no host before the port (host:port)");
  const bool hostOk = std::all_of(host.begin(), host.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-';
  });
  if (!hostOk) return fail("the host must be a name or an IPv4 address");
  unsigned value = 0;
  auto r = std::from_chars(port.data(), port.data() + port.size(), value);
  if (r.ec != std::errc() || r.ptr != port.data() + port.size() || value < 1 || value > 65535) {
    return fail("the port must be 1 to 65535");
  }
  return RelayTarget{std::string(host), static_cast<std::uint16_t>(value)};
}

}  // namespace velmora
