#pragma once
// The four tracking wire formats, decoded without sockets or threads: bytes
// (or already parsed OSC messages / JSON) in, a DecodedFrame out, and
// decodeDatagram, which detects a datagram's format and decodes it. Pure
// functions, any thread. TrackingReceiver calls decodeDatagram for every
// datagram; tests, fuzzers and benchmarks call these directly.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "osc/OSCMessage.h"
#include "tracking/DecodedFrame.h"
#include "tracking/TrackingFormat.h"

namespace velmora {

// What one datagram decoded to: its format and, in the four known formats,
// its frame (none for TrackingFormat::unknown).
struct DecodedDatagram {
  TrackingFormat format = TrackingFormat::unknown;
  std::optional<DecodedFrame> frame;
};

// Detects the datagram's format, first match wins, and decodes it:
//  1. OSC: begins with "#bundle" or "/", and the OSC parser finds at least
//     one message (otherwise detection goes on);
//  2. iFacialMocap text: valid UTF-8 holding "=" or "|";
//  3. JSON: valid UTF-8 that parses as JSON with an object at the top;
//  4. Live Link binary: 244 bytes or more (the header is not checked, which
//     is why the other formats are tried first);
//  5. otherwise unknown.
DecodedDatagram decodeDatagram(std::span<const std::uint8_t> data, const std::string& sender);

// Degrees to radians as the senders' formats define it (single precision).
inline constexpr float trackingDegreesToRadians = 0.017453292f;

// Unreal Live Link face packet. Only the last 244 bytes are read: 61
// big-endian floats, the 52 blendshapes in unrealARKitNames order, then yaw,
// pitch, roll (radians) and six values not used. The header before them is
// not interpreted. None when shorter than 244 bytes. Non-finite blendshapes
// are left out, the rest clamped to [0, 1]; any non-finite head value drops
// the rotation.
std::optional<DecodedFrame> decodeUnrealLiveLinkBinary(std::span<const std::uint8_t> data, std::string sender);

// iFacialMocap text: "name-percent|name-percent|...=pitch,yaw,roll,x,y,z"
// (degrees, centimetres). Always yields a frame with a (possibly empty) map.
DecodedFrame decodeIFacialMocap(std::string_view text, std::string sender);

// An OSC datagram (message or bundle) of OSC / VMC tracking messages, read
// in place; head components a packet does not send are marked unset (see
// DecodedFrame). None when the datagram holds no message.
std::optional<DecodedFrame> decodeOSCPacket(std::span<const std::uint8_t> data, std::string sender);

// A JSON object {"blendshapes": {name: number}, "rotation": [p, y, r],
// "position": [x, y, z]}; absent or malformed parts are left out.
DecodedFrame decodeJSON(const nlohmann::json& object, std::string sender);

// A JSON datagram, parsed with simdjson, giving the frame that
// json::parse followed by decodeJSON gives (repeated keys: the last wins).
// Accepts what a strict JSON parser accepts: a UTF-8 byte-order mark is
// skipped, and a zero byte ends the text (senders that send C strings).
// None when the text is not JSON or its top level is not an object.
std::optional<DecodedFrame> decodeJSONText(std::span<const std::uint8_t> data, std::string sender);

// A whole string as a decimal number the way the text senders write them:
// optional sign, digits, fraction, exponent, "inf"/"nan", hex with "0x"; no
// surrounding spaces. Out-of-range values become infinity or zero.
std::optional<float> parseTrackingNumber(std::string_view text);

}  // namespace velmora
