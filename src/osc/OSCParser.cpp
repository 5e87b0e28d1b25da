#include "osc/OSCParser.h"

#include <string_view>
#include <type_traits>

#include "osc/OSCPacketWalk.h"

namespace velmora {

namespace {

using oscwalk::ArgumentStore;
using oscwalk::parseMessageView;
using oscwalk::readStringView;
using oscwalk::walkBundle;
using oscwalk::walkPacket;

OSCMessage ownedMessage(std::string_view address, std::span<const OSCArgumentView> arguments) {
  OSCMessage message;
  message.address.assign(address.data(), address.size());
  message.arguments.reserve(arguments.size());
  for (const auto& a : arguments) {
    std::visit(
        [&](const auto& v) {
          using T = std::decay_t<decltype(v)>;
          if constexpr (std::is_same_v<T, std::string_view>) {
            message.arguments.emplace_back(std::string(v));
          } else {
            message.arguments.emplace_back(v);
          }
        },
        a);
  }
  return message;
}

}  // namespace

std::vector<OSCMessage> OSCParser::parsePacket(std::span<const std::uint8_t> data) {
  std::vector<OSCMessage> out;
  auto collect = [&](std::string_view address, std::span<const OSCArgumentView> arguments) {
    out.push_back(ownedMessage(address, arguments));
  };
  walkPacket(data, collect);
  return out;
}

std::vector<OSCMessage> OSCParser::parseBundle(std::span<const std::uint8_t> data) {
  std::vector<OSCMessage> out;
  ArgumentStore store;
  auto collect = [&](std::string_view address, std::span<const OSCArgumentView> arguments) {
    out.push_back(ownedMessage(address, arguments));
  };
  walkBundle(data, store, collect);
  return out;
}

std::optional<OSCMessage> OSCParser::parseMessage(std::span<const std::uint8_t> data) {
  ArgumentStore store;
  std::string_view address;
  std::span<const OSCArgumentView> arguments;
  if (!parseMessageView(data, address, arguments, store)) return std::nullopt;
  return ownedMessage(address, arguments);
}

std::optional<std::string> OSCParser::readString(std::span<const std::uint8_t> data, std::size_t& offset) {
  auto view = readStringView(data, offset);
  if (!view) return std::nullopt;
  return std::string(*view);
}

}  // namespace velmora
