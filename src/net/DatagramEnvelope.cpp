#include "net/DatagramEnvelope.h"

namespace velmora {

std::string DatagramEnvelope::addressText(std::uint32_t address) {
  return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xFF) + "." +
         std::to_string((address >> 8) & 0xFF) + "." + std::to_string(address & 0xFF);
}

std::string DatagramEnvelope::senderText() const {
  return addressText(sourceAddress) + ":" + std::to_string(sourcePort);
}

}  // namespace velmora
