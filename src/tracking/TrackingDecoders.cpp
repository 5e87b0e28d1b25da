#include "tracking/TrackingDecoders.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>
#include <nlohmann/json.hpp>

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

// A JSON value as a number, the way Foundation-style decoders see it:
// integers, reals and booleans (as 1/0) convert; everything else does not.
std::optional<double> jsonNumber(const nlohmann::json& v) {
  if (v.is_number()) return v.get<double>();
  if (v.is_boolean()) return v.get<bool>() ? 1.0 : 0.0;
  return std::nullopt;
}

// "an array of at least three numbers": every element must be a number.
std::optional<float3> jsonVector(const nlohmann::json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_array() || it->size() < 3) return std::nullopt;
  float3 v(0.0f);
  std::size_t i = 0;
  for (const auto& element : *it) {
    auto n = jsonNumber(element);
    if (!n) return std::nullopt;
    if (i < 3) v[static_cast<int>(i)] = static_cast<float>(*n);
    ++i;
  }
  return v;
}

}  // namespace

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
    if (body.empty() || body.front() == '+' || body.front() == '-') return std::nullopt;
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

std::optional<DecodedFrame> decodeUnrealLiveLinkBinary(std::span<const std::uint8_t> data, std::string sender) {
  if (data.size() < kLiveLinkTailBytes) return std::nullopt;
  const std::uint8_t* tail = data.data() + (data.size() - kLiveLinkTailBytes);

  DecodedFrame decoded;
  BlendshapeMap map;
  map.reserve(unrealARKitNames.size());
  for (std::size_t i = 0; i < unrealARKitNames.size(); ++i) {
    float v = readBigEndianFloat(tail + 4 * i);
    if (!std::isfinite(v)) continue;
    if (!(v > 0.0f)) v = 0.0f;
    else if (v > 1.0f) v = 1.0f;
    map.emplace(unrealARKitNames[i], v);
  }
  const float yaw = readBigEndianFloat(tail + kLiveLinkYawOffset);
  const float pitch = readBigEndianFloat(tail + kLiveLinkPitchOffset);
  const float roll = readBigEndianFloat(tail + kLiveLinkRollOffset);
  if (std::isfinite(yaw) && std::isfinite(pitch) && std::isfinite(roll)) {
    decoded.frame.rotation = float3(pitch, yaw, roll);
  }
  decoded.frame.blendshapes = std::move(map);
  decoded.frame.sender = std::move(sender);
  return decoded;
}

DecodedFrame decodeIFacialMocap(std::string_view text, std::string sender) {
  DecodedFrame decoded;
  const std::size_t firstEquals = text.find('=');
  const std::string_view shapes = text.substr(0, firstEquals);

  BlendshapeMap map;
  forEachPiece(shapes, '|', [&](std::string_view item) {
    const std::size_t dash = item.find('-');
    // Exactly two parts: one dash. A negative number has a second dash and
    // is skipped with its item.
    if (dash == std::string_view::npos || item.find('-', dash + 1) != std::string_view::npos) return;
    auto value = parseTrackingNumber(item.substr(dash + 1));
    if (!value) return;
    map.insert_or_assign(std::string(item.substr(0, dash)), *value / 100.0f);
  });
  decoded.frame.blendshapes = std::move(map);

  if (firstEquals != std::string_view::npos) {
    std::string_view head = text.substr(firstEquals + 1);
    head = head.substr(0, head.find('='));
    float fields[6] = {0, 0, 0, 0, 0, 0};
    std::size_t count = 0;
    forEachPiece(head, ',', [&](std::string_view field) {
      // A field that does not parse (a label joined to the number, say)
      // counts as 0; fields beyond the sixth are ignored.
      if (count < 6) fields[count] = parseTrackingNumber(field).value_or(0.0f);
      ++count;
    });
    if (count >= 6) {
      const float3 rotation(fields[0] * trackingDegreesToRadians, fields[1] * trackingDegreesToRadians,
                            fields[2] * trackingDegreesToRadians);
      if (allFinite(rotation)) decoded.frame.rotation = rotation;
      decoded.frame.position = float3(fields[3] / 100.0f, fields[4] / 100.0f, fields[5] / 100.0f);
    }
  }
  decoded.frame.sender = std::move(sender);
  return decoded;
}

DecodedFrame decodeOSCMessages(const std::vector<OSCMessage>& messages, std::string sender) {
  DecodedFrame decoded;
  decoded.rotationSet = {false, false, false};
  decoded.positionSet = {false, false, false};
  float3 rotation(0.0f), position(0.0f);
  bool hasRotation = false, hasPosition = false;
  BlendshapeMap map;

  auto setComponent = [](float3& v, std::array<bool, 3>& set, bool& has, int i, float value) {
    v[i] = value;
    set[static_cast<std::size_t>(i)] = true;
    has = true;
  };

  for (const OSCMessage& m : messages) {
    const std::string_view address = m.address;
    if (address.find("/BlendShapes/") != std::string_view::npos ||
        address.find("/blendshapes/") != std::string_view::npos) {
      if (auto v = m.floatValue()) map.insert_or_assign(std::string(address.substr(address.rfind('/') + 1)), *v);
    } else if (address == "/VMC/Ext/Blend/Val") {
      if (m.arguments.size() >= 2) {
        const auto* name = m.arguments[0].get<std::string>();
        const auto* value = m.arguments[1].get<float>();
        if (name && value) map.insert_or_assign(*name, *value);
      }
    } else if (address.find("/Head/Pitch") != std::string_view::npos) {
      if (auto v = m.floatValue()) setComponent(rotation, decoded.rotationSet, hasRotation, 0, *v * trackingDegreesToRadians);
    } else if (address.find("/Head/Yaw") != std::string_view::npos) {
      if (auto v = m.floatValue()) setComponent(rotation, decoded.rotationSet, hasRotation, 1, *v * trackingDegreesToRadians);
    } else if (address.find("/Head/Roll") != std::string_view::npos) {
      if (auto v = m.floatValue()) setComponent(rotation, decoded.rotationSet, hasRotation, 2, *v * trackingDegreesToRadians);
    } else if (address.find("/Head/X") != std::string_view::npos) {
      if (auto v = m.floatValue()) setComponent(position, decoded.positionSet, hasPosition, 0, *v * 0.01f);
    } else if (address.find("/Head/Y") != std::string_view::npos) {
      if (auto v = m.floatValue()) setComponent(position, decoded.positionSet, hasPosition, 1, *v * 0.01f);
    } else if (address.find("/Head/Z") != std::string_view::npos) {
      if (auto v = m.floatValue()) setComponent(position, decoded.positionSet, hasPosition, 2, *v * 0.01f);
    } else if (address.starts_with("/tracking/")) {
      if (auto v = m.floatValue()) map.insert_or_assign(std::string(address.substr(10)), *v);
    }
  }
  decoded.frame.blendshapes = std::move(map);
  // Unset components are 0 here and finite once completed; a non-finite
  // component from the packet drops the whole rotation.
  if (hasRotation && allFinite(rotation)) decoded.frame.rotation = rotation;
  if (hasPosition) decoded.frame.position = position;
  decoded.frame.sender = std::move(sender);
  return decoded;
}

DecodedFrame decodeJSON(const nlohmann::json& object, std::string sender) {
  DecodedFrame decoded;
  if (object.is_object()) {
    auto shapes = object.find("blendshapes");
    if (shapes != object.end() && shapes->is_object()) {
      BlendshapeMap map;
      map.reserve(shapes->size());
      for (auto it = shapes->begin(); it != shapes->end(); ++it) {
        if (auto n = jsonNumber(it.value())) map.insert_or_assign(it.key(), static_cast<float>(*n));
      }
      decoded.frame.blendshapes = std::move(map);
    }
    if (auto r = jsonVector(object, "rotation"); r && allFinite(*r)) decoded.frame.rotation = *r;
    decoded.frame.position = jsonVector(object, "position");
  }
  decoded.frame.sender = std::move(sender);
  return decoded;
}

}  // namespace velmora
