#include "ReferenceTrackingDecoder.h"

// Index of this file:
//   [SECTION] Names
//   [SECTION] Text: UTF-8 and numbers
//   [SECTION] Live Link binary
//   [SECTION] iFacialMocap text
//   [SECTION] OSC and VMC
//   [SECTION] JSON
//   [SECTION] Detection
//   [SECTION] Comparison

#include <bit>
#include <charconv>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "osc/OSCParser.h"
#include "tracking/LiveLinkNames.h"

namespace velmora::reference {

namespace {

constexpr float kDegreesToRadians = 0.017453292f;  // the senders' single-precision factor

bool finite(const float3& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

// ---------------------------------------------------------------------------
// [SECTION] Names
// ---------------------------------------------------------------------------

// A spelling's key: lower case, no underscores, a last "_l"/"_r" written out.
std::string spellingKey(std::string name) {
  std::string side;
  if (name.size() >= 2 && name[name.size() - 2] == '_') {
    const char last = static_cast<char>(std::tolower(static_cast<unsigned char>(name.back())));
    if (last == 'l' || last == 'r') {
      side = last == 'l' ? "left" : "right";
      name.resize(name.size() - 2);
    }
  }
  std::string key;
  for (const char c : name) {
    if (c != '_') key += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return key + side;
}

// The blendshape a name spells, or "" (the 52 taken from the Live Link table).
std::string spelled(const std::string& name) {
  static const auto keys = [] {
    std::map<std::string, std::string> out;
    for (const auto n : unrealARKitNames) out[spellingKey(std::string(n))] = std::string(n);
    return out;
  }();
  const auto it = keys.find(spellingKey(name));
  return it == keys.end() ? std::string() : it->second;
}

// Names as received (the last value of each) to names as stored: the exact
// names first; then each other spelling, in byte order, where its
// blendshape is still free; names that spell nothing as they are.
ReferenceMap folded(const ReferenceMap& received) {
  const std::map<std::string, float> sorted(received.begin(), received.end());
  ReferenceMap out;
  for (const auto& [name, value] : sorted) {
    if (spelled(name) == name) out[name] = value;
  }
  for (const auto& [name, value] : sorted) {
    const std::string shape = spelled(name);
    if (shape.empty()) {
      out[name] = value;
    } else if (shape != name && !out.count(shape)) {
      out[shape] = value;
    }
  }
  return out;
}

// ---------------------------------------------------------------------------
// [SECTION] Text: UTF-8 and numbers
// ---------------------------------------------------------------------------

// Decodes code point by code point: a lead byte, its continuation bytes, and
// the code point must need that many bytes, lie outside the surrogates and
// not exceed U+10FFFF.
bool validUTF8(std::span<const std::uint8_t> bytes) {
  std::size_t i = 0;
  while (i < bytes.size()) {
    const std::uint8_t lead = bytes[i];
    std::size_t length;
    std::uint32_t cp;
    std::uint32_t least;
    if (lead < 0x80) {
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2, cp = lead & 0x1Fu, least = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, cp = lead & 0x0Fu, least = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, cp = lead & 0x07u, least = 0x10000;
    } else {
      return false;
    }
    if (bytes.size() - i < length) return false;
    for (std::size_t k = 1; k < length; ++k) {
      if ((bytes[i + k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (bytes[i + k] & 0x3Fu);
    }
    if (cp < least || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

// A whole text as a number: an optional sign, then what strtof reads
// (decimal, exponent, "inf"/"nan", hex after "0x"), nothing before or after,
// and no second sign. Out-of-range values are strtof's infinity or zero.
std::optional<float> number(std::string_view text) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text.front()))) return std::nullopt;
  std::string_view body = text;
  if (body.front() == '+' || body.front() == '-') body.remove_prefix(1);
  if (body.empty() || body.front() == '+' || body.front() == '-') return std::nullopt;
  if (body.size() > 2 && body[0] == '0' && (body[1] == 'x' || body[1] == 'X') &&
      (body[2] == '+' || body[2] == '-')) {
    return std::nullopt;
  }
  const std::string copy(text);
  char* end = nullptr;
  const float value = std::strtof(copy.c_str(), &end);
  if (end != copy.c_str() + copy.size()) return std::nullopt;  // also a zero byte inside
  return value;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || text[i] == separator) {
      pieces.push_back(text.substr(start, i - start));
      start = i + 1;
    }
  }
  return pieces;
}

// ---------------------------------------------------------------------------
// [SECTION] Live Link binary
// ---------------------------------------------------------------------------

float bigEndianFloat(const std::uint8_t* p) {
  std::uint32_t bits = 0;
  for (int k = 0; k < 4; ++k) bits = (bits << 8) | p[k];
  return std::bit_cast<float>(bits);
}

// The last 244 bytes: 52 blendshapes in wire order, then yaw, pitch, roll.
ReferenceFrame liveLink(std::span<const std::uint8_t> data) {
  ReferenceFrame f;
  f.format = TrackingFormat::liveLink;
  const std::uint8_t* tail = data.data() + data.size() - 244;
  ReferenceMap map;
  for (std::size_t i = 0; i < 52; ++i) {
    const float v = bigEndianFloat(tail + 4 * i);
    if (std::isnan(v) || std::isinf(v)) continue;
    // At or below zero reads as (positive) zero, above one as one.
    map[std::string(unrealARKitNames[i])] = v <= 0.0f ? 0.0f : (v >= 1.0f ? 1.0f : v);
  }
  f.blendshapes = std::move(map);
  f.app = TrackingApp::liveLinkFace;
  const float yaw = bigEndianFloat(tail + 52 * 4);
  const float pitch = bigEndianFloat(tail + 53 * 4);
  const float roll = bigEndianFloat(tail + 54 * 4);
  const float3 rotation(pitch, yaw, roll);
  if (finite(rotation)) f.rotation = rotation;
  return f;
}

// ---------------------------------------------------------------------------
// [SECTION] iFacialMocap text
// ---------------------------------------------------------------------------

// Degrees to radians; none when not finite.
std::optional<float3> radians(float3 degrees) {
  const float3 r(degrees.x * kDegreesToRadians, degrees.y * kDegreesToRadians, degrees.z * kDegreesToRadians);
  if (!finite(r)) return std::nullopt;
  return r;
}

// "name-percent|...=pitch,yaw,roll,x,y,z": percent / 100, degrees to
// radians, centimetres / 100. An item without a "-" is "name&percent" instead.
// An item needs exactly one separator and a number. After the "=", pieces
// between "|": the first is the head ("head#" skipped; a field that is no
// number counts as 0; six fields or more give a head), then "rightEye#" and
// "leftEye#" with three fields or more.
ReferenceFrame iFacialMocap(std::string_view text) {
  ReferenceFrame f;
  f.format = TrackingFormat::iFacialMocap;
  f.app = TrackingApp::iFacialMocap;
  const std::size_t equals = text.find('=');
  ReferenceMap map;
  for (std::string_view item : split(text.substr(0, equals), '|')) {
    const auto parts = split(item, contains(item, "-") ? '-' : '&');
    if (parts.size() != 2) continue;
    if (auto v = number(parts[1])) map[std::string(parts[0])] = *v / 100.0f;
  }
  f.blendshapes = folded(map);
  if (equals != std::string_view::npos) {
    const auto pieces = split(split(text.substr(equals + 1), '=').front(), '|');
    std::string_view headText = pieces.front();
    if (headText.starts_with("head#")) headText.remove_prefix(5);
    const auto head = split(headText, ',');
    if (head.size() >= 6) {
      float v[6];
      for (int k = 0; k < 6; ++k) v[k] = number(head[static_cast<std::size_t>(k)]).value_or(0.0f);
      f.rotation = radians(float3(v[0], v[1], v[2]));
      f.position = float3(v[3] / 100.0f, v[4] / 100.0f, v[5] / 100.0f);
    }
    for (std::size_t p = 1; p < pieces.size(); ++p) {
      for (const auto& [label, eye] : {std::pair{std::string_view("rightEye#"), &f.rightEye},
                                       std::pair{std::string_view("leftEye#"), &f.leftEye}}) {
        if (!pieces[p].starts_with(label)) continue;
        const auto fields = split(pieces[p].substr(label.size()), ',');
        if (fields.size() < 3) continue;
        float v[3];
        for (int k = 0; k < 3; ++k) v[k] = number(fields[static_cast<std::size_t>(k)]).value_or(0.0f);
        *eye = radians(float3(v[0], v[1], v[2]));
      }
    }
  }
  return f;
}

// ---------------------------------------------------------------------------
// [SECTION] OSC and VMC
// ---------------------------------------------------------------------------

// The first argument as a number: float32 as it is, float64 narrowed, int32
// converted; anything else (or nothing) is none.
std::optional<float> firstNumber(const OSCMessage& m) {
  if (m.arguments.empty()) return std::nullopt;
  const OSCArgument& a = m.arguments.front();
  if (auto v = a.get<float>()) return *v;
  if (auto v = a.get<double>()) return static_cast<float>(*v);
  if (auto v = a.get<std::int32_t>()) return static_cast<float>(*v);
  return std::nullopt;
}

ReferenceFrame osc(const std::vector<OSCMessage>& messages) {
  ReferenceFrame f;
  f.format = TrackingFormat::osc;
  f.rotationSet = {false, false, false};
  f.positionSet = {false, false, false};
  float3 rotation(0.0f), position(0.0f);
  ReferenceMap map;
  f.app = TrackingApp::osc;
  for (const OSCMessage& m : messages) {
    const std::string& a = m.address;
    const auto v = firstNumber(m);
    if (a.starts_with("/VMC/")) f.app = TrackingApp::vmc;
    if (a == "/VMC/Ext/Bone/Pos") {
      // The bone "Head": a text, then seven float32. The axis conversion is
      // the decoder's own function (checked by its own test); what is
      // checked here is which messages reach it.
      if (m.arguments.size() < 8 || !m.arguments[0].is<std::string>() || *m.arguments[0].get<std::string>() != "Head")
        continue;
      float b[7];
      bool floats = true;
      for (std::size_t k = 0; k < 7; ++k) {
        floats = floats && m.arguments[k + 1].is<float>();
        if (floats) b[k] = *m.arguments[k + 1].get<float>();
      }
      if (!floats) continue;
      const float3 r = unityHeadRotation(b[3], b[4], b[5], b[6]);
      const float3 p = unityPosition(b[0], b[1], b[2]);
      for (int i = 0; i < 3; ++i) {
        rotation[i] = r[i];
        position[i] = p[i];
        f.rotationSet[static_cast<std::size_t>(i)] = true;
        f.positionSet[static_cast<std::size_t>(i)] = true;
      }
    } else if (a == "/VMC/Ext/Blend/Val") {
      // Exactly a text then a float32 (more arguments are allowed).
      if (m.arguments.size() >= 2 && m.arguments[0].is<std::string>() && m.arguments[1].is<float>()) {
        map[*m.arguments[0].get<std::string>()] = *m.arguments[1].get<float>();
      }
    } else if (contains(a, "/BlendShapes/") || contains(a, "/blendshapes/")) {
      if (v) map[a.substr(a.rfind('/') + 1)] = *v;
    } else if (contains(a, "/Head/Pitch") || contains(a, "/Head/Yaw") || contains(a, "/Head/Roll")) {
      const int i = contains(a, "/Head/Pitch") ? 0 : contains(a, "/Head/Yaw") ? 1 : 2;
      if (v) {
        rotation[i] = *v * kDegreesToRadians;
        f.rotationSet[static_cast<std::size_t>(i)] = true;
      }
    } else if (contains(a, "/Head/X") || contains(a, "/Head/Y") || contains(a, "/Head/Z")) {
      const int i = contains(a, "/Head/X") ? 0 : contains(a, "/Head/Y") ? 1 : 2;
      if (v) {
        position[i] = *v * 0.01f;
        f.positionSet[static_cast<std::size_t>(i)] = true;
      }
    } else if (a.starts_with("/tracking/")) {
      if (v) map[a.substr(10)] = *v;
    }
  }
  f.blendshapes = folded(map);
  const bool anyRotation = f.rotationSet[0] || f.rotationSet[1] || f.rotationSet[2];
  const bool anyPosition = f.positionSet[0] || f.positionSet[1] || f.positionSet[2];
  if (anyRotation && finite(rotation)) f.rotation = rotation;
  if (anyPosition) f.position = position;
  return f;
}

// ---------------------------------------------------------------------------
// [SECTION] JSON
// ---------------------------------------------------------------------------

// Numbers and booleans (1/0) are numbers; anything else is not.
std::optional<float> jsonNumber(const nlohmann::json& v) {
  if (v.is_number()) return static_cast<float>(v.get<double>());
  if (v.is_boolean()) return v.get<bool>() ? 1.0f : 0.0f;
  return std::nullopt;
}

// An array of at least three elements, every one a number: its first three.
std::optional<float3> jsonVector(const nlohmann::json& object, const char* key) {
  if (!object.contains(key)) return std::nullopt;
  const nlohmann::json& array = object.at(key);
  if (!array.is_array() || array.size() < 3) return std::nullopt;
  float3 v(0.0f);
  for (std::size_t i = 0; i < array.size(); ++i) {
    auto n = jsonNumber(array[i]);
    if (!n) return std::nullopt;
    if (i < 3) v[static_cast<int>(i)] = *n;
  }
  return v;
}

// {"x", "y", "z"}, all numbers.
std::optional<float3> jsonXYZ(const nlohmann::json& object, const char* key) {
  if (!object.contains(key) || !object.at(key).is_object()) return std::nullopt;
  const nlohmann::json& o = object.at(key);
  if (!o.contains("x") || !o.contains("y") || !o.contains("z")) return std::nullopt;
  const auto x = jsonNumber(o.at("x")), y = jsonNumber(o.at("y")), z = jsonNumber(o.at("z"));
  if (!x || !y || !z) return std::nullopt;
  return float3(*x, *y, *z);
}

// The lower-case keys; where they give nothing, VTube Studio's.
ReferenceFrame json(const nlohmann::json& document) {
  ReferenceFrame f;
  f.format = TrackingFormat::json;
  f.app = document.contains("BlendShapes") || document.contains("FaceFound") ? TrackingApp::vtubeStudio
                                                                               : TrackingApp::json;
  if (document.contains("blendshapes") && document.at("blendshapes").is_object()) {
    ReferenceMap map;
    for (const auto& [name, value] : document.at("blendshapes").items()) {
      if (auto n = jsonNumber(value)) map[name] = *n;
    }
    f.blendshapes = folded(map);
  } else if (document.contains("BlendShapes") && document.at("BlendShapes").is_array()) {
    ReferenceMap map;
    for (const auto& element : document.at("BlendShapes")) {
      if (!element.is_object() || !element.contains("k") || !element.contains("v")) continue;
      if (!element.at("k").is_string()) continue;
      if (auto n = jsonNumber(element.at("v"))) map[element.at("k").get<std::string>()] = *n;
    }
    f.blendshapes = folded(map);
  }
  if (auto r = jsonVector(document, "rotation"); r && finite(*r)) {
    f.rotation = r;
  } else if (auto degrees = jsonXYZ(document, "Rotation")) {
    f.rotation = radians(*degrees);
  }
  f.position = jsonVector(document, "position");
  if (!f.position) f.position = jsonXYZ(document, "Position");
  if (auto eye = jsonXYZ(document, "EyeLeft")) f.leftEye = radians(*eye);
  if (auto eye = jsonXYZ(document, "EyeRight")) f.rightEye = radians(*eye);
  if (document.contains("FaceFound") && document.at("FaceFound").is_boolean()) {
    f.faceFound = document.at("FaceFound").get<bool>();
  }
  return f;
}

}  // namespace

// ---------------------------------------------------------------------------
// [SECTION] Detection
// ---------------------------------------------------------------------------

ReferenceFrame decodeReference(std::span<const std::uint8_t> data) {
  const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
  if (text.starts_with("#bundle") || text.starts_with("/")) {
    const auto messages = OSCParser::parsePacket(data);
    if (!messages.empty()) return osc(messages);
  }
  const bool utf8 = validUTF8(data);
  if (utf8 && (contains(text, "=") || contains(text, "|"))) return iFacialMocap(text);
  if (utf8) {
    const auto document = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
    if (document.is_object()) return json(document);
  }
  if (data.size() >= 244) return liveLink(data);
  return ReferenceFrame{};
}

// ---------------------------------------------------------------------------
// [SECTION] Comparison
// ---------------------------------------------------------------------------

namespace {

// The shortest text that reads back to the same bits ("-0" stays apart from
// "0"); every NaN is "nan", so two NaNs agree whatever their payload.
std::string shown(float v) {
  if (std::isnan(v)) return "nan";
  char text[32];
  return std::string(text, std::to_chars(text, text + sizeof text, v).ptr);
}

std::string shown(const std::optional<float3>& v) {
  return v ? shown(v->x) + " " + shown(v->y) + " " + shown(v->z) : "none";
}

std::string shown(const std::array<bool, 3>& set) {
  return std::string{set[0] ? 'x' : '-', set[1] ? 'y' : '-', set[2] ? 'z' : '-'};
}

// Every field of a frame, one per line, names in byte order.
std::string shown(const ReferenceFrame& f, bool frame) {
  std::string out = "format " + std::string(trackingFormatName(f.format)) + (frame ? ", a frame" : ", no frame") +
                    ", app " + std::string(trackingAppName(f.app)) + (f.faceFound ? ", face\n" : ", no face\n");
  if (f.blendshapes) {
    out += "blendshapes (" + std::to_string(f.blendshapes->size()) + "):";
    for (const auto& [name, value] : std::map<std::string, float>(f.blendshapes->begin(), f.blendshapes->end())) {
      out += " \"" + name + "\"=" + shown(value);
    }
    out += "\n";
  }
  out += "rotation " + shown(f.rotation) + " (set " + shown(f.rotationSet) + ")\n";
  out += "position " + shown(f.position) + " (set " + shown(f.positionSet) + ")\n";
  return out + "left eye " + shown(f.leftEye) + "\nright eye " + shown(f.rightEye) + "\n";
}

}  // namespace

namespace {

// A decoded frame in the reference's terms; what cannot be said in them
// (a map whose size() disagrees with its names) is added to `notes`.
ReferenceFrame asReference(const DecodedFrame& decoded, std::string& notes) {
  ReferenceFrame got;
  const FaceFrame& f = decoded.frame;
  if (f.blendshapes) {
    std::size_t count = 0;
    got.blendshapes.emplace();
    for (const auto& [name, value] : *f.blendshapes) {
      ++count;
      got.blendshapes->emplace(std::string(name), value);
    }
    if (count != f.blendshapes->size() || count != got.blendshapes->size()) {
      notes += "blendshapes: " + std::to_string(count) + " names iterated, " + std::to_string(got.blendshapes->size()) +
               " distinct, size() " + std::to_string(f.blendshapes->size()) + "\n";
    }
  }
  got.rotation = f.rotation;
  got.position = f.position;
  got.leftEye = f.leftEyeRotation;
  got.rightEye = f.rightEyeRotation;
  got.faceFound = f.faceFound;
  got.app = decoded.app;
  got.rotationSet = decoded.rotationSet;
  got.positionSet = decoded.positionSet;
  return got;
}

}  // namespace

std::string shown(const DecodedFrame& frame) {
  std::string notes;
  return shown(asReference(frame, notes), true) + "sender " + frame.frame.sender + "\n" + notes;
}

std::string differences(const ReferenceFrame& expected, const DecodedDatagram& decoded, const std::string& sender) {
  std::string out;
  ReferenceFrame got = decoded.frame ? asReference(*decoded.frame, out) : ReferenceFrame{};
  got.format = decoded.format;
  if (decoded.frame && decoded.frame->frame.sender != sender) {
    out += "sender: expected " + sender + ", decoded " + decoded.frame->frame.sender + "\n";
  }
  const std::string want = shown(expected, expected.format != TrackingFormat::unknown);
  const std::string have = shown(got, decoded.frame.has_value());
  if (want != have) out += "expected:\n" + want + "decoded:\n" + have;
  return out;
}

std::string crossCheck(std::span<const std::uint8_t> data) {
  static const std::string sender = "10.0.0.2:50000";
  return differences(decodeReference(data), decodeDatagram(data, sender), sender);
}

}  // namespace velmora::reference
