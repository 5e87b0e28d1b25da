#include "tracking/LiveLinkWriter.h"

#include <bit>

namespace velmora {

namespace {

void putU32(std::vector<std::uint8_t>& out, std::uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(v >> shift));
}

void putText(std::vector<std::uint8_t>& out, std::string_view text) {
  putU32(out, static_cast<std::uint32_t>(text.size()));
  out.insert(out.end(), text.begin(), text.end());
}

}  // namespace

std::vector<std::uint8_t> LiveLinkWriter::packet(std::string_view device, std::string_view subject,
                                                 const FrameTime& time, const std::array<float, kValueCount>& values) {
  std::vector<std::uint8_t> out;
  out.reserve(26 + device.size() + subject.size() + 4 * kValueCount);
  out.push_back(6);
  putText(out, device);
  putText(out, subject);
  putU32(out, time.frame);
  putU32(out, std::bit_cast<std::uint32_t>(time.subframe));
  putU32(out, time.rateNumerator);
  putU32(out, time.rateDenominator);
  out.push_back(static_cast<std::uint8_t>(kValueCount));
  for (float v : values) putU32(out, std::bit_cast<std::uint32_t>(v));
  return out;
}

}  // namespace velmora
