#pragma once
// A second, deliberately plain decoder of the four tracking wire formats,
// kept to check the receiver's decoder against: it reads each format the
// slow, literal way (owned OSC messages from OSCParser::parsePacket, a whole
// nlohmann::json document, std::strtof for text numbers, its own UTF-8
// check) and builds a std::unordered_map with std::string names, whatever
// map type the receiver's frames use. The tracking fuzzer and a unit test
// run every datagram through both and require the same result bit for bit.
// Pure functions, any thread.

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>

#include "base/Math.h"
#include "tracking/TrackingDecoders.h"
#include "tracking/TrackingFormat.h"

namespace velmora::reference {

using ReferenceMap = std::unordered_map<std::string, float>;

// One datagram as the reference reads it. For TrackingFormat::unknown every
// optional is empty. Every member has an initializer, so a designated
// initializer may leave any of them out.
struct ReferenceFrame {
  TrackingFormat format = TrackingFormat::unknown;
  std::optional<ReferenceMap> blendshapes{};
  std::optional<float3> rotation{};  // (pitch, yaw, roll), radians
  std::optional<float3> position{};
  // As DecodedFrame: which head components the datagram set (OSC may send
  // single ones; unset components hold 0).
  std::array<bool, 3> rotationSet{true, true, true};
  std::array<bool, 3> positionSet{true, true, true};
  TrackingApp app = TrackingApp::none;
  std::optional<float3> leftEye{}, rightEye{};  // radians
  bool faceFound = true;
};

ReferenceFrame decodeReference(std::span<const std::uint8_t> data);

// Where `decoded` (decodeDatagram's answer for the same bytes, decoded for
// `sender`) differs from `expected`: an empty string when they agree. Floats
// agree when their bits are equal, or when both are NaN.
std::string differences(const ReferenceFrame& expected, const DecodedDatagram& decoded, const std::string& sender);

// Every field of a decoded frame as text, names in byte order, floats as
// their shortest exact text (NaN as "nan"): two frames with the same text
// agree bit for bit.
std::string shown(const DecodedFrame& frame);

// decodeDatagram and decodeReference over the same bytes; the differences
// (empty when none).
std::string crossCheck(std::span<const std::uint8_t> data);

}  // namespace velmora::reference
