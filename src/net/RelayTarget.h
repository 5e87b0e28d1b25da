#pragma once
// One relay destination as the operator writes it: "host:port", the host a
// name or a dotted-quad IPv4 address, the port 1..65535.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmora {

struct RelayTarget {
  std::string host;
  std::uint16_t port = 0;

  // None when malformed, with the reason in `why` ("no port after the
  // host", "port must be 1 to 65535").
  static std::optional<RelayTarget> parse(std::string_view text, std::string* why = nullptr);
  // "host:port".
  std::string text() const { return host + ":" + std::to_string(port); }
};

}  // namespace velmora
