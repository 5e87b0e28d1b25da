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

// Blendshape names, in every format: a name spelled another way than the
// 52 ("JawOpen", "eyeBlink_L", "mouth_smile_right") is stored under the
// blendshape it spells (blendShapeFromSpelling); a name that spells none is
// kept as it stands. Several spellings of one blendshape in one datagram:
// the exact name wins, else the spelling first in byte order; the same
// spelling repeated: its last value.

// iFacialMocap text: "name-percent|name-percent|...=pitch,yaw,roll,x,y,z"
// (degrees, centimetres). An item without a "-" written "name&percent"
// (the app's newer versions) reads as "name-percent". The app itself labels the head and
// adds the eyes, each field ended by "|":
//   "...|=head#pitch,yaw,roll,x,y,z|rightEye#pitch,yaw,roll|leftEye#pitch,yaw,roll|"
// The "head#" label is skipped and the head's sixth field ends at the "|";
// "rightEye#"/"leftEye#" give the eye rotations (degrees, at least three
// fields, one that does not parse counts as 0). Any other label joined to a
// head field makes that field count as 0. Always yields a frame with a
// (possibly empty) map.
DecodedFrame decodeIFacialMocap(std::string_view text, std::string sender);

// A VMC bone rotation as Velmora's (pitch, yaw, roll) in radians, and a VMC
// position as Velmora's (x, y, z).
//
// VMC senders are Unity programs: left-handed axes, x right, y up, z forward,
// with the avatar facing +z, so its own right hand is at +x. Velmora's axes
// are right-handed, x right, y up, z towards the camera, with the character
// facing the camera, so its own right hand is at -x. The one change of
// basis between them is the mirror x -> -x (y and z stay). A mirror turns a
// rotation about an axis a by angle t into the rotation about (a.x, -a.y,
// -a.z) by the same angle, so the quaternion (x, y, z, w) becomes
// (x, -y, -z, w), and a position (x, y, z) becomes (-x, y, z).
//
// The angles are then read as yaw about y, pitch about the turned x, roll
// about the turned z (R = Ry(yaw) Rx(pitch) Rz(roll)), the order a head
// moves in. In these axes a positive pitch turns the face (+z) towards -y:
// the head tilts down, as Velmora's pitch does. So, for example, a Head
// bone turned +30 degrees about Unity's x (nodding down) gives pitch +30
// degrees, +30 about Unity's y (turning to its own right) gives yaw -30,
// and +30 about Unity's z (tilting to its own left) gives roll -30. The
// quaternion need not be normalised; a zero or non-finite one gives
// non-finite angles (the frame then carries no rotation).
float3 unityHeadRotation(float qx, float qy, float qz, float qw);
float3 unityPosition(float x, float y, float z);

// An OSC datagram (message or bundle) of OSC / VMC tracking messages, read
// in place. Head components a packet does not send are marked unset (see
// DecodedFrame). A VMC sender's head is the bone "Head" of
// "/VMC/Ext/Bone/Pos" (a text, then seven float32: position x, y, z in
// metres, rotation quaternion x, y, z, w, Unity's axes; see
// unityHeadRotation); the root and other bones are ignored, and so is
// "/VMC/Ext/Blend/Apply", which only ends a set of blendshapes. The app is
// VMC when an address begins with "/VMC/", OSC otherwise. None when the
// datagram holds no message.
std::optional<DecodedFrame> decodeOSCPacket(std::span<const std::uint8_t> data, std::string sender);

// A JSON object {"blendshapes": {name: number}, "rotation": [p, y, r],
// "position": [x, y, z]}; absent or malformed parts are left out.
//
// VTube Studio's phone app (and the Android apps that copy it) sends
//   {"Timestamp": ms, "Hotkey": n, "FaceFound": bool,
//    "Rotation": {"x": pitch, "y": yaw, "z": roll},   degrees
//    "Position": {"x": .., "y": .., "z": ..},
//    "EyeLeft": {"x", "y", "z"}, "EyeRight": {...},   degrees
//    "BlendShapes": [{"k": "EyeBlinkLeft", "v": 0.25}, ...]}
// Where the lower-case keys give nothing, these give the blendshapes (each
// element an object with a text "k" and a number "v"; others skipped),
// the rotation in radians and the position as sent; the eyes give the eye
// rotations in radians, and "FaceFound" false marks the frame faceless.
// Each of the three objects needs all of x, y and z as numbers. The app is
// VTube Studio when the object has "BlendShapes" or "FaceFound", JSON
// otherwise.
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
