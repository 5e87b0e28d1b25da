#include "tracking/TrackingDecoders.h"

// Index of this file:
//   [SECTION] Names
//   [SECTION] Numbers in text
//   [SECTION] Live Link binary
//   [SECTION] iFacialMocap text
//   [SECTION] OSC and VMC messages
//   [SECTION] JSON
//   [SECTION] Format detection

#include <algorithm>
#include <bit>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <glm/gtc/quaternion.hpp>
#include <glm/gtx/euler_angles.hpp>
#include <nlohmann/json.hpp>
#include <simdjson.h>
#include <vector>

#include "base/Utf8.h"
#include "osc/OSCParser.h"
#include "tracking/LiveLinkNames.h"

namespace velmora {

namespace {

constexpr std::size_t kLiveLinkTailBytes = 61 * 4;
constexpr std::size_t kLiveLinkYawOffset = 208;
constexpr std::size_t kLiveLinkPitchOffset = 212;
constexpr std::size_t kLiveLinkRollOffset = 216;

float readBigEndianFloat(const std::uint8_t* p) {
  const std::uint32_t bits = (std::uint32_t(p[0]) << 24) | (std::uint32_t(p[1]) << 16) |
                             (std::uint32_t(p[2]) << 8) | std::uint32_t(p[3]);
  return std::bit_cast<float>(bits);
}

bool allFinite(const float3& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

// Calls f(piece) for every piece of `text` between `separator`s, empty pieces
// included (so "a||b" gives "a", "", "b"), without allocating.
template <class F>
void forEachPiece(std::string_view text, char separator, F&& f) {
  std::size_t start = 0;
  while (true) {
    const std::size_t end = text.find(separator, start);
    if (end == std::string_view::npos) {
      f(text.substr(start));
      return;
    }
    f(text.substr(start, end - start));
    start = end + 1;
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// [SECTION] Names
// ---------------------------------------------------------------------------

namespace {

constexpr std::uint64_t slotBit(ARKitBlendShape shape) { return std::uint64_t{1} << index(shape); }

// A datagram's blendshapes as a decoder reads them in order: every name
// through blendShapeFromSpelling, at no allocation for the 52 however they
// are spelled. The names' views must stay valid until the map is taken
// (they point into the datagram).
class BlendshapeCollector {
 public:
  void put(std::string_view name, float value) {
    if (const auto exact = fromRawValue<ARKitBlendShape>(name)) {
      exact_ |= slotBit(*exact);
      map_.set(*exact, value);
    } else if (const auto spelled = blendShapeFromSpelling(name)) {
      const std::size_t i = index(*spelled);
      if (exact_ & slotBit(*spelled)) return;  // the exact name wins
      if ((spelled_ & slotBit(*spelled)) && name > spellings_[i]) return;  // the first in byte order wins
      spelled_ |= slotBit(*spelled);
      spellings_[i] = name;
      map_.set(*spelled, value);
    } else {
      map_.insert_or_assign(name, value);
    }
  }
  BlendshapeMap take() && { return std::move(map_); }

 private:
  BlendshapeMap map_;
  std::uint64_t exact_ = 0;    // slots set by their exact name
  std::uint64_t spelled_ = 0;  // slots set by another spelling, which spellings_ holds
  std::array<std::string_view, arkitBlendShapeCount> spellings_;
};

// The same rule over a map built by exact name (a JSON object, whose
// repeated keys must resolve first): the side table's spellings of the 52
// move into their slots. Allocates only for senders that spell the names
// their own way in a JSON object.
void foldSpellings(BlendshapeMap& map) {
  if (map.others().empty()) return;
  auto& others = map.others();
  std::array<BlendshapeMap::Others::iterator, arkitBlendShapeCount> best;
  std::uint64_t found = 0;
  for (auto it = others.begin(); it != others.end(); ++it) {
    const auto shape = blendShapeFromSpelling(it->first);
    if (!shape || map.has(*shape)) continue;
    const std::size_t i = index(*shape);
    if (!(found & slotBit(*shape)) || it->first < best[i]->first) best[i] = it;
    found |= slotBit(*shape);
  }
  for (std::uint64_t bits = found; bits; bits &= bits - 1) {
    const auto i = static_cast<std::size_t>(std::countr_zero(bits));
    map.set(static_cast<ARKitBlendShape>(i), best[i]->second);
  }
  std::erase_if(others, [](const auto& entry) { return blendShapeFromSpelling(entry.first).has_value(); });
}

}  // namespace

// ---------------------------------------------------------------------------
// [SECTION] Numbers in text
// ---------------------------------------------------------------------------

std::optional<float> parseTrackingNumber(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::string_view body = text;
  bool negative = false;
  if (body.front() == '+' || body.front() == '-') {
    negative = body.front() == '-';
    body.remove_prefix(1);
  }
  if (body.empty() || body.front() == '+' || body.front() == '-') return std::nullopt;
  auto format = std::chars_format::general;
  if (body.size() > 2 && body[0] == '0' && (body[1] == 'x' || body[1] == 'X')) {
    body.remove_prefix(2);
    format = std::chars_format::hex;
    // Hex digits or the point must follow: from_chars would also take
    // "inf" or "nan" here, and "0xnan" is no number.
    if (body.empty() || !(std::isxdigit(static_cast<unsigned char>(body.front())) || body.front() == '.')) {
      return std::nullopt;
    }
  }
  const char* first = body.data();
  const char* last = body.data() + body.size();
  float value = 0.0f;
  auto r = std::from_chars(first, last, value, format);
  if (r.ec == std::errc::result_out_of_range && r.ptr == last) {
    // Too large or too small for a float: infinity or zero (or a
    // denormal), as a float conversion rounds it. strtod sees the whole,
    // already validated text (sign and "0x" included).
    value = static_cast<float>(std::strtod(std::string(text).c_str(), nullptr));
    return value;
  } else if (r.ec != std::errc() || r.ptr != last) {
    return std::nullopt;
  }
  return negative ? -value : value;
}

// ---------------------------------------------------------------------------
// [SECTION] Live Link binary
// ---------------------------------------------------------------------------

std::optional<DecodedFrame> decodeUnrealLiveLinkBinary(std::span<const std::uint8_t> data, std::string sender) {
  if (data.size() < kLiveLinkTailBytes) return std::nullopt;
  const std::uint8_t* tail = data.data() + (data.size() - kLiveLinkTailBytes);

  DecodedFrame decoded;
  BlendshapeMap map;
  for (std::size_t i = 0; i < unrealARKitNames.size(); ++i) {
    float v = readBigEndianFloat(tail + 4 * i);
    if (!std::isfinite(v)) continue;
    if (!(v > 0.0f)) v = 0.0f;
    else if (v > 1.0f) v = 1.0f;
    map.set(unrealARKitSlots[i], v);
  }
  const float yaw = readBigEndianFloat(tail + kLiveLinkYawOffset);
  const float pitch = readBigEndianFloat(tail + kLiveLinkPitchOffset);
  const float roll = readBigEndianFloat(tail + kLiveLinkRollOffset);
  if (std::isfinite(yaw) && std::isfinite(pitch) && std::isfinite(roll)) {
    decoded.frame.rotation = float3(pitch, yaw, roll);
  }
  decoded.app = TrackingApp::liveLinkFace;
  decoded.frame.blendshapes = std::move(map);
  decoded.frame.sender = std::move(sender);
  return decoded;
}

// ---------------------------------------------------------------------------
// [SECTION] iFacialMocap text
// ---------------------------------------------------------------------------

namespace {

// Up to `count` comma-separated fields of one head or eye field as numbers
// (one that does not parse counts as 0); how many fields there were.
std::size_t readFields(std::string_view text, float* fields, std::size_t count) {
  std::size_t n = 0;
  forEachPiece(text, ',', [&](std::string_view field) {
    if (n < count) fields[n] = parseTrackingNumber(field).value_or(0.0f);
    ++n;
  });
  return n;
}

std::optional<float3> degreesToRadians(float3 degrees) {
  const float3 radians = degrees * trackingDegreesToRadians;
  if (!allFinite(radians)) return std::nullopt;
  return radians;
}

}  // namespace

DecodedFrame decodeIFacialMocap(std::string_view text, std::string sender) {
  DecodedFrame decoded;
  decoded.app = TrackingApp::iFacialMocap;
  const std::size_t firstEquals = text.find('=');
  const std::string_view shapes = text.substr(0, firstEquals);

  BlendshapeCollector map;
  forEachPiece(shapes, '|', [&](std::string_view item) {
    // "name-value", or "name&value" (newer app versions) in an item without
    // a dash: exactly two parts. A negative number has a second dash and is
    // skipped with its item. (The usual item costs no search for "&".)
    char separator = '-';
    std::size_t at = item.find('-');
    if (at == std::string_view::npos) {
      separator = '&';
      at = item.find('&');
    }
    if (at == std::string_view::npos || item.find(separator, at + 1) != std::string_view::npos) return;
    auto value = parseTrackingNumber(item.substr(at + 1));
    if (!value) return;
    map.put(item.substr(0, at), *value / 100.0f);
  });
  decoded.frame.blendshapes = std::move(map).take();

  if (firstEquals != std::string_view::npos) {
    std::string_view headPiece = text.substr(firstEquals + 1);
    headPiece = headPiece.substr(0, headPiece.find('='));
    bool first = true;
    forEachPiece(headPiece, '|', [&](std::string_view field) {
      if (first) {
        // The head: six fields, labelled "head#" by the app itself.
        first = false;
        if (field.starts_with("head#")) field.remove_prefix(5);
        float v[6] = {0, 0, 0, 0, 0, 0};
        if (readFields(field, v, 6) < 6) return;
        decoded.frame.rotation = degreesToRadians(float3(v[0], v[1], v[2]));
        decoded.frame.position = float3(v[3] / 100.0f, v[4] / 100.0f, v[5] / 100.0f);
        return;
      }
      std::optional<float3>* eye = nullptr;
      if (field.starts_with("rightEye#")) {
        eye = &decoded.frame.rightEyeRotation;
        field.remove_prefix(9);
      } else if (field.starts_with("leftEye#")) {
        eye = &decoded.frame.leftEyeRotation;
        field.remove_prefix(8);
      } else {
        return;
      }
      float v[3] = {0, 0, 0};
      if (readFields(field, v, 3) >= 3) *eye = degreesToRadians(float3(v[0], v[1], v[2]));
    });
  }
  decoded.frame.sender = std::move(sender);
  return decoded;
}

// ---------------------------------------------------------------------------
// [SECTION] OSC and VMC messages
// ---------------------------------------------------------------------------

namespace {

// A VMC blendshape message's (name, value) pair, read in place.
std::optional<std::pair<std::string_view, float>> vmcPair(const OSCMessageView& m) {
  if (m.arguments.size() < 2) return std::nullopt;
  const auto* name = std::get_if<std::string_view>(&m.arguments[0]);
  const auto* value = std::get_if<float>(&m.arguments[1]);
  if (!name || !value) return std::nullopt;
  return std::pair<std::string_view, float>(*name, *value);
}

// "/VMC/Ext/Bone/Pos" of the bone "Head": its seven float32 (position x, y,
// z, quaternion x, y, z, w); none for other bones or other arguments.
std::optional<std::array<float, 7>> vmcHeadBone(const OSCMessageView& m) {
  if (m.arguments.size() < 8) return std::nullopt;
  const auto* name = std::get_if<std::string_view>(&m.arguments[0]);
  if (!name || *name != "Head") return std::nullopt;
  std::array<float, 7> v{};
  for (std::size_t i = 0; i < 7; ++i) {
    const float* f = std::get_if<float>(&m.arguments[i + 1]);
    if (!f) return std::nullopt;
    v[i] = *f;
  }
  return v;
}

class OSCFrameBuilder {
 public:
  OSCFrameBuilder() {
    decoded_.rotationSet = {false, false, false};
    decoded_.positionSet = {false, false, false};
  }

  void add(const OSCMessageView& m) {
    const std::string_view address = m.address;
    if (address.starts_with("/VMC/")) vmc_ = true;
    // The VMC addresses are tested first only because they are the
    // commonest; they contain none of the other rules' parts, so the rules'
    // order is unchanged. "/VMC/Ext/Blend/Apply" (the end of a set of
    // blendshapes) and the other bones fall through to "ignored".
    if (address == "/VMC/Ext/Blend/Val") {
      if (auto pair = vmcPair(m)) map_.put(pair->first, pair->second);
    } else if (address == "/VMC/Ext/Bone/Pos") {
      if (auto bone = vmcHeadBone(m)) {
        const float3 rotation = unityHeadRotation((*bone)[3], (*bone)[4], (*bone)[5], (*bone)[6]);
        const float3 position = unityPosition((*bone)[0], (*bone)[1], (*bone)[2]);
        for (int i = 0; i < 3; ++i) {
          setRotation(i, rotation[i]);
          setPosition(i, position[i]);
        }
      }
    } else if (address.find("/BlendShapes/") != std::string_view::npos ||
               address.find("/blendshapes/") != std::string_view::npos) {
      if (auto v = m.floatValue()) map_.put(address.substr(address.rfind('/') + 1), *v);
    } else if (address.find("/Head/Pitch") != std::string_view::npos) {
      if (auto v = m.floatValue()) setRotation(0, *v * trackingDegreesToRadians);
    } else if (address.find("/Head/Yaw") != std::string_view::npos) {
      if (auto v = m.floatValue()) setRotation(1, *v * trackingDegreesToRadians);
    } else if (address.find("/Head/Roll") != std::string_view::npos) {
      if (auto v = m.floatValue()) setRotation(2, *v * trackingDegreesToRadians);
    } else if (address.find("/Head/X") != std::string_view::npos) {
      if (auto v = m.floatValue()) setPosition(0, *v * 0.01f);
    } else if (address.find("/Head/Y") != std::string_view::npos) {
      if (auto v = m.floatValue()) setPosition(1, *v * 0.01f);
    } else if (address.find("/Head/Z") != std::string_view::npos) {
      if (auto v = m.floatValue()) setPosition(2, *v * 0.01f);
    } else if (address.starts_with("/tracking/")) {
      if (auto v = m.floatValue()) map_.put(address.substr(10), *v);
    }
    // Any other address: ignored.
  }

  DecodedFrame finish(std::string sender) && {
    decoded_.app = vmc_ ? TrackingApp::vmc : TrackingApp::osc;
    decoded_.frame.blendshapes = std::move(map_).take();
    // Unset components are 0 here and finite once completed; a non-finite
    // component from the packet drops the whole rotation.
    if (hasRotation_ && allFinite(rotation_)) decoded_.frame.rotation = rotation_;
    if (hasPosition_) decoded_.frame.position = position_;
    decoded_.frame.sender = std::move(sender);
    return std::move(decoded_);
  }

 private:
  void setRotation(int i, float v) {
    rotation_[i] = v;
    decoded_.rotationSet[static_cast<std::size_t>(i)] = true;
    hasRotation_ = true;
  }
  void setPosition(int i, float v) {
    position_[i] = v;
    decoded_.positionSet[static_cast<std::size_t>(i)] = true;
    hasPosition_ = true;
  }

  DecodedFrame decoded_;
  BlendshapeCollector map_;
  float3 rotation_{0.0f}, position_{0.0f};
  bool hasRotation_ = false, hasPosition_ = false;
  bool vmc_ = false;
};

}  // namespace

float3 unityHeadRotation(float qx, float qy, float qz, float qw) {
  // Mirrored into Velmora's axes (see the header), then normalised.
  const glm::quat q = glm::normalize(glm::quat(qw, qx, -qy, -qz));
  float yaw = 0.0f, pitch = 0.0f, roll = 0.0f;
  glm::extractEulerAngleYXZ(glm::mat4_cast(q), yaw, pitch, roll);
  return {pitch, yaw, roll};
}

float3 unityPosition(float x, float y, float z) { return {-x, y, z}; }

std::optional<DecodedFrame> decodeOSCPacket(std::span<const std::uint8_t> data, std::string sender) {
  OSCFrameBuilder builder;
  const std::size_t count =
      OSCParser::forEachMessage(data, [&builder](const OSCMessageView& m) { builder.add(m); });
  if (count == 0) return std::nullopt;
  return std::move(builder).finish(std::move(sender));
}

// ---------------------------------------------------------------------------
// [SECTION] JSON
// ---------------------------------------------------------------------------

namespace {

// A JSON value as a number, the way Foundation-style decoders see it:
// integers, reals and booleans (as 1/0) convert; everything else does not.
std::optional<double> jsonNumber(const nlohmann::json& v) {
  if (v.is_number()) return v.get<double>();
  if (v.is_boolean()) return v.get<bool>() ? 1.0 : 0.0;
  return std::nullopt;
}

// get_double reads integers too (converted as static_cast<double> does);
// its common case, a real, is one type test. Inlined: returned through
// memory, the optional's value and flag are two stores read back as one
// load, a stall per name that cost more than the name's lookup.
[[gnu::always_inline]] inline std::optional<double> jsonNumber(simdjson::dom::element v) {
  double number = 0;
  if (v.get_double().get(number) == simdjson::SUCCESS) return number;
  bool flag = false;
  if (v.get_bool().get(flag) == simdjson::SUCCESS) return flag ? 1.0 : 0.0;
  return std::nullopt;
}

// "an array of at least three numbers": every element must be a number.
template <class Array>
std::optional<float3> jsonVector(const Array& array, std::size_t size) {
  if (size < 3) return std::nullopt;
  float3 v(0.0f);
  std::size_t i = 0;
  for (const auto& element : array) {
    auto n = jsonNumber(element);
    if (!n) return std::nullopt;
    if (i < 3) v[static_cast<int>(i)] = static_cast<float>(*n);
    ++i;
  }
  return v;
}

std::optional<float3> jsonVector(const nlohmann::json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_array()) return std::nullopt;
  return jsonVector(*it, it->size());
}

std::optional<float3> jsonVector(simdjson::dom::element value) {
  simdjson::dom::array array;
  if (value.get_array().get(array)) return std::nullopt;
  return jsonVector(array, array.size());
}

// {"x": .., "y": .., "z": ..} with all three numbers (VTube Studio's vectors).
std::optional<float3> jsonXYZ(const nlohmann::json& object, const char* key) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_object()) return std::nullopt;
  float3 v(0.0f);
  const char* axes[] = {"x", "y", "z"};
  for (int i = 0; i < 3; ++i) {
    const auto axis = it->find(axes[i]);
    if (axis == it->end()) return std::nullopt;
    auto n = jsonNumber(*axis);
    if (!n) return std::nullopt;
    v[i] = static_cast<float>(*n);
  }
  return v;
}

// The same over simdjson, whose objects keep repeated keys: the last wins.
std::optional<float3> jsonXYZ(simdjson::dom::element value) {
  simdjson::dom::object object;
  if (value.get_object().get(object)) return std::nullopt;
  std::optional<double> c[3];
  for (const auto field : object) {
    const int i = field.key == "x" ? 0 : field.key == "y" ? 1 : field.key == "z" ? 2 : -1;
    if (i >= 0) c[i] = jsonNumber(field.value);
  }
  if (!c[0] || !c[1] || !c[2]) return std::nullopt;
  return float3(static_cast<float>(*c[0]), static_cast<float>(*c[1]), static_cast<float>(*c[2]));
}

// VTube Studio's parts of a JSON object, collected in document order (a
// repeated key: the last wins) and applied where the lower-case keys gave
// nothing.
struct VTubeStudioParts {
  bool seen = false;  // "BlendShapes" or "FaceFound" present: the app
  std::optional<BlendshapeMap> blendshapes;
  std::optional<float3> rotation, position, leftEye, rightEye;  // as sent
  bool faceFound = true;

  void applyTo(DecodedFrame& decoded, bool lowerCaseRotation) {
    FaceFrame& f = decoded.frame;
    decoded.app = seen ? TrackingApp::vtubeStudio : TrackingApp::json;
    if (!f.blendshapes && blendshapes) f.blendshapes = std::move(blendshapes);
    if (!lowerCaseRotation && rotation) f.rotation = degreesToRadians(*rotation);
    if (!f.position) f.position = position;
    if (leftEye) f.leftEyeRotation = degreesToRadians(*leftEye);
    if (rightEye) f.rightEyeRotation = degreesToRadians(*rightEye);
    f.faceFound = faceFound;
  }
};

VTubeStudioParts vtubeStudioParts(const nlohmann::json& object) {
  VTubeStudioParts parts;
  parts.seen = object.contains("BlendShapes") || object.contains("FaceFound");
  if (auto list = object.find("BlendShapes"); list != object.end() && list->is_array()) {
    BlendshapeCollector map;
    for (const auto& element : *list) {
      if (!element.is_object()) continue;
      const auto k = element.find("k");
      const auto v = element.find("v");
      if (k == element.end() || v == element.end() || !k->is_string()) continue;
      if (auto n = jsonNumber(*v)) map.put(k->get_ref<const std::string&>(), static_cast<float>(*n));
    }
    parts.blendshapes = std::move(map).take();
  }
  parts.rotation = jsonXYZ(object, "Rotation");
  parts.position = jsonXYZ(object, "Position");
  parts.leftEye = jsonXYZ(object, "EyeLeft");
  parts.rightEye = jsonXYZ(object, "EyeRight");
  if (auto found = object.find("FaceFound"); found != object.end() && found->is_boolean()) {
    parts.faceFound = found->get<bool>();
  }
  return parts;
}

// The "BlendShapes" list over simdjson: elements that are objects with a
// text "k" and a number "v" (each the last of its repeats).
BlendshapeMap vtubeStudioBlendshapes(simdjson::dom::array list) {
  BlendshapeCollector map;
  for (const auto element : list) {
    simdjson::dom::object item;
    if (element.get_object().get(item)) continue;
    std::optional<std::string_view> name;
    std::optional<double> value;
    for (const auto field : item) {
      if (field.key == "k") {
        std::string_view text;
        name = field.value.get_string().get(text) == simdjson::SUCCESS ? std::optional(text) : std::nullopt;
      } else if (field.key == "v") {
        value = jsonNumber(field.value);
      }
    }
    if (name && value) map.put(*name, static_cast<float>(*value));
  }
  return std::move(map).take();
}

// VTube Studio's keys over simdjson, kept out of line: folded into the
// decoder's loop they cost the lower-case path its inlined number reads.
[[gnu::noinline]] void vtubeStudioField(VTubeStudioParts& vts, std::optional<simdjson::dom::element>& shapes,
                                        std::string_view key, simdjson::dom::element value) {
  if (key == "BlendShapes") {
    vts.seen = true;
    shapes = value;
  } else if (key == "Rotation") {
    vts.rotation = jsonXYZ(value);
  } else if (key == "Position") {
    vts.position = jsonXYZ(value);
  } else if (key == "EyeLeft") {
    vts.leftEye = jsonXYZ(value);
  } else if (key == "EyeRight") {
    vts.rightEye = jsonXYZ(value);
  } else if (key == "FaceFound") {
    vts.seen = true;
    bool found = true;
    vts.faceFound = value.get_bool().get(found) == simdjson::SUCCESS ? found : true;
  }
}

[[gnu::noinline]] void finishVTubeStudio(VTubeStudioParts& vts, const std::optional<simdjson::dom::element>& shapes,
                                         DecodedFrame& decoded) {
  simdjson::dom::array list;
  if (shapes && shapes->get_array().get(list) == simdjson::SUCCESS) vts.blendshapes = vtubeStudioBlendshapes(list);
  vts.applyTo(decoded, decoded.frame.rotation.has_value());
}

// One thread's simdjson parser and its padded input buffer, reused for every
// datagram: after the first few datagrams nothing here allocates.
struct JSONParser {
  simdjson::dom::parser parser;
  std::vector<char> padded;
};

}  // namespace

DecodedFrame decodeJSON(const nlohmann::json& object, std::string sender) {
  DecodedFrame decoded;
  decoded.app = TrackingApp::json;
  if (object.is_object()) {
    auto shapes = object.find("blendshapes");
    if (shapes != object.end() && shapes->is_object()) {
      BlendshapeMap map;
      for (auto it = shapes->begin(); it != shapes->end(); ++it) {
        if (auto n = jsonNumber(it.value())) map.insert_or_assign(it.key(), static_cast<float>(*n));
      }
      foldSpellings(map);
      decoded.frame.blendshapes = std::move(map);
    }
    if (auto r = jsonVector(object, "rotation"); r && allFinite(*r)) decoded.frame.rotation = *r;
    decoded.frame.position = jsonVector(object, "position");
    vtubeStudioParts(object).applyTo(decoded, decoded.frame.rotation.has_value());
  }
  decoded.frame.sender = std::move(sender);
  return decoded;
}

namespace {

// Parses `text` into `root` with the thread's parser. Texts simdjson refuses
// but JSON allows (integers beyond 64 bits, which read as reals; nesting
// deeper than 1024 levels) go through nlohmann's parser instead, which sets
// what is accepted; `fallback` then holds the document.
simdjson::error_code parseJSON(std::string_view text, simdjson::dom::element& root,
                               std::optional<nlohmann::json>& fallback) {
  thread_local JSONParser json;
  if (json.padded.size() < text.size() + simdjson::SIMDJSON_PADDING) {
    json.padded.resize(text.size() + simdjson::SIMDJSON_PADDING);
  }
  if (!text.empty()) std::memcpy(json.padded.data(), text.data(), text.size());  // an empty view may have no data
  const auto error = json.parser.parse(json.padded.data(), text.size(), false).get(root);
  if (error == simdjson::NUMBER_ERROR || error == simdjson::DEPTH_ERROR) {
    fallback = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
  }
  return error;
}

}  // namespace

std::optional<DecodedFrame> decodeJSONText(std::span<const std::uint8_t> data, std::string sender) {
  std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
  // A UTF-8 byte-order mark is skipped.
  if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
  simdjson::dom::element root;
  std::optional<nlohmann::json> fallback;
  auto error = parseJSON(text, root, fallback);
  if (error && !fallback) {
    // A zero byte ends the text (senders that send C strings with their
    // terminator). Anywhere but after the value it leaves the text
    // incomplete, so only a failed parse needs the search.
    const auto nul = text.find('\0');
    if (nul == std::string_view::npos) return std::nullopt;
    error = parseJSON(text.substr(0, nul), root, fallback);
  }
  if (fallback) {
    if (!fallback->is_object()) return std::nullopt;
    return decodeJSON(*fallback, std::move(sender));
  }
  simdjson::dom::object object;
  if (error || root.get_object().get(object)) return std::nullopt;

  // Built in the returned optional itself (no move of the frame on return).
  std::optional<DecodedFrame> result(std::in_place);
  DecodedFrame& decoded = *result;
  // Fields in document order; a repeated key replaces what the earlier one
  // gave, as in a document where the last one wins.
  std::optional<float3> rotation;
  VTubeStudioParts vts;
  std::optional<simdjson::dom::element> vtsShapes;
  for (const auto field : object) {
    if (field.key == "blendshapes") {
      simdjson::dom::object shapes;
      if (field.value.get_object().get(shapes)) {
        decoded.frame.blendshapes.reset();
        continue;
      }
      // Built in place: a map is a few hundred bytes, not worth a copy.
      BlendshapeMap& map = decoded.frame.blendshapes.emplace();
      for (const auto shape : shapes) {
        if (auto n = jsonNumber(shape.value)) {
          map.insert_or_assign(shape.key, static_cast<float>(*n));
        } else {
          map.erase(shape.key);
        }
      }
    } else if (field.key == "rotation") {
      rotation = jsonVector(field.value);
    } else if (field.key == "position") {
      decoded.frame.position = jsonVector(field.value);
    } else {
      vtubeStudioField(vts, vtsShapes, field.key, field.value);
    }
  }
  if (decoded.frame.blendshapes) foldSpellings(*decoded.frame.blendshapes);
  if (rotation && allFinite(*rotation)) decoded.frame.rotation = rotation;
  finishVTubeStudio(vts, vtsShapes, decoded);
  decoded.frame.sender = std::move(sender);
  return result;
}

// ---------------------------------------------------------------------------
// [SECTION] Format detection
// ---------------------------------------------------------------------------

DecodedDatagram decodeDatagram(std::span<const std::uint8_t> data, const std::string& sender) {
  // 1. OSC: "#bundle" or a leading "/". A payload the parser rejects goes on
  //    to the other formats.
  const bool bundle = data.size() >= 7 && std::memcmp(data.data(), "#bundle", 7) == 0;
  if (bundle || (!data.empty() && data[0] == '/')) {
    if (auto frame = decodeOSCPacket(data, sender)) return {TrackingFormat::osc, std::move(frame)};
  }

  // 2. iFacialMocap text: UTF-8 holding "=" or "|".
  const bool utf8 = isValidUTF8(data);
  const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
  if (utf8 && std::any_of(text.begin(), text.end(), [](char c) { return c == '=' || c == '|'; })) {
    return {TrackingFormat::iFacialMocap, decodeIFacialMocap(text, sender)};
  }

  // 3. JSON whose top level is an object. Text that is not UTF-8 cannot be
  //    JSON, so binary packets skip the parse.
  if (utf8) {
    if (auto frame = decodeJSONText(data, sender)) return {TrackingFormat::json, std::move(frame)};
  }

  // 4. Live Link binary: anything of 244 bytes or more.
  if (auto frame = decodeUnrealLiveLinkBinary(data, sender)) return {TrackingFormat::liveLink, std::move(frame)};

  // 5. Unknown.
  return {TrackingFormat::unknown, std::nullopt};
}

}  // namespace velmora
