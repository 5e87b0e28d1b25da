#include "ReferenceTrackingDecoder.h"

// Index of this file:
//   [SECTION] Names
//   [SECTION] Text: UTF-8 and numbers
//   [SECTION] Live Link binary
//   [SECTION] iFacialMocap text
//   [SECTION] OSC and VMC
//   [SECTION] JSON
//   [SECTION] Comparison
//   [SECTION] Detection

#include <algorithm>
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

// The vector when it is there and every component is finite.
std::optional<float3> finite(const std::optional<float3>& v) {
  if (!v || !std::isfinite(v->x) || !std::isfinite(v->y) || !std::isfinite(v->z)) return std::nullopt;
  return v;
}

// Degrees to radians; none when not finite.
std::optional<float3> inRadians(const std::optional<float3>& degrees) {
  return degrees ? finite(*degrees * kDegreesToRadians) : std::nullopt;
}

bool contains(std::string_view text, std::string_view part) { return text.find(part) != std::string_view::npos; }

// ---------------------------------------------------------------------------
// [SECTION] Names
// ---------------------------------------------------------------------------

// A spelling's key: lower case, no underscores, a last "_l"/"_r" written out.
std::string spellingKey(std::string_view name) {
  std::string key;
  for (const char c : name) {
    if (c != '_') key += (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
  }
  if (name.size() < 2 || name[name.size() - 2] != '_') return key;
  if (key.ends_with('l')) return key.substr(0, key.size() - 1) + "left";
  if (key.ends_with('r')) return key.substr(0, key.size() - 1) + "right";
  return key;
}

// The blendshape a name spells, or "" (the 52 taken from the Live Link table).
std::string spelled(const std::string& name) {
  static const auto keys = [] {
    std::map<std::string, std::string> out;
    for (const std::string_view n : unrealARKitNames) out[spellingKey(n)] = std::string(n);
    return out;
  }();
  const auto it = keys.find(spellingKey(name));
  return it == keys.end() ? std::string() : it->second;
}

// Names as received (the last value of each) to names as stored: an exact
// name always; another spelling, taken in byte order, only while its
// blendshape is still free; names that spell nothing as they are.
ReferenceMap folded(const ReferenceMap& received) {
  ReferenceMap out;
  for (const auto& [name, value] : std::map<std::string, float>(received.begin(), received.end())) {
    const std::string shape = spelled(name);
    if (shape == name) {
      out.insert_or_assign(name, value);
    } else {
      out.try_emplace(shape.empty() ? name : shape, value);
    }
  }
  return out;
}

// ---------------------------------------------------------------------------
// [SECTION] Text: UTF-8 and numbers
// ---------------------------------------------------------------------------

// Decodes code point by code point: a lead byte (its leading ones give the
// length), its continuation bytes, and the code point must need that many
// bytes, lie outside the surrogates and not exceed U+10FFFF.
bool validUTF8(std::span<const std::uint8_t> bytes) {
  static constexpr std::uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};  // by the lead's leading ones
  for (std::size_t i = 0; i < bytes.size();) {
    const int ones = std::countl_one(bytes[i]);
    const std::size_t length = ones == 0 ? 1 : static_cast<std::size_t>(ones);
    if (ones == 1 || ones > 4 || bytes.size() - i < length) return false;
    std::uint32_t cp = bytes[i] & (0x7Fu >> ones);
    for (std::size_t k = 1; k < length; ++k) {
      if ((bytes[i + k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (bytes[i + k] & 0x3Fu);
    }
    if (cp < kLeast[ones] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

// A whole text as a number: what strtof reads (an optional sign, decimal,
// exponent, "inf"/"nan", hex after "0x"), nothing before or after, so no
// second sign either. Out-of-range values are strtof's infinity or zero.
std::optional<float> number(std::string_view text) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text.front()))) return std::nullopt;
  const std::string copy(text);
  char* end = nullptr;
  const float value = std::strtof(copy.c_str(), &end);
  if (end != copy.c_str() + copy.size()) return std::nullopt;  // also a zero byte inside
  return value;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  for (std::size_t end; (end = text.find(separator)) != std::string_view::npos; text.remove_prefix(end + 1)) {
    pieces.push_back(text.substr(0, end));
  }
  pieces.push_back(text);
  return pieces;
}

// Every comma-separated field as a number; one that is none counts as 0.
std::vector<float> fields(std::string_view text) {
  std::vector<float> out;
  for (const std::string_view field : split(text, ',')) out.push_back(number(field).value_or(0.0f));
  return out;
}

// ---------------------------------------------------------------------------
// [SECTION] Live Link binary
// ---------------------------------------------------------------------------

// The last 244 bytes: 52 blendshapes in wire order, then yaw, pitch, roll,
// each a big-endian float.
ReferenceFrame liveLink(std::span<const std::uint8_t> data) {
  const auto word = [tail = data.last(244)](std::size_t i) {
    std::uint32_t bits = 0;
    for (std::size_t k = 0; k < 4; ++k) bits = (bits << 8) | tail[4 * i + k];
    return std::bit_cast<float>(bits);
  };
  ReferenceMap map;
  for (std::size_t i = 0; i < 52; ++i) {
    // NaN and infinities are left out; at or below zero reads as (positive)
    // zero, above one as one.
    const float v = word(i);
    if (std::isfinite(v)) map[std::string(unrealARKitNames[i])] = v <= 0.0f ? 0.0f : std::min(v, 1.0f);
  }
  return {.format = TrackingFormat::liveLink,
          .blendshapes = std::move(map),
          .rotation = finite(float3(word(53), word(52), word(54))),
          .app = TrackingApp::liveLinkFace};
}

// ---------------------------------------------------------------------------
// [SECTION] iFacialMocap text
// ---------------------------------------------------------------------------

// "name-percent|...=pitch,yaw,roll,x,y,z": percent / 100, degrees to
// radians, centimetres / 100. An item without a "-" is "name&percent" instead.
// An item needs exactly one separator and a number. After the "=", pieces
// between "|": the first is the head ("head#" skipped; a field that is no
// number counts as 0; six fields or more give a head), then "rightEye#" and
// "leftEye#" with three fields or more.
ReferenceFrame iFacialMocap(std::string_view text) {
  ReferenceFrame f{.format = TrackingFormat::iFacialMocap, .app = TrackingApp::iFacialMocap};
  const std::size_t equals = text.find('=');
  ReferenceMap map;
  for (std::string_view item : split(text.substr(0, equals), '|')) {
    const auto parts = split(item, contains(item, "-") ? '-' : '&');
    if (parts.size() != 2) continue;
    if (auto v = number(parts[1])) map[std::string(parts[0])] = *v / 100.0f;
  }
  f.blendshapes = folded(map);
  if (equals == std::string_view::npos) return f;
  const auto pieces = split(split(text.substr(equals + 1), '=').front(), '|');
  if (const auto v = fields(pieces.front().substr(pieces.front().starts_with("head#") ? 5 : 0)); v.size() >= 6) {
    f.rotation = inRadians(float3(v[0], v[1], v[2]));
    f.position = float3(v[3] / 100.0f, v[4] / 100.0f, v[5] / 100.0f);
  }
  for (std::size_t p = 1; p < pieces.size(); ++p) {
    const bool right = pieces[p].starts_with("rightEye#");
    if (!right && !pieces[p].starts_with("leftEye#")) continue;
    const auto v = fields(pieces[p].substr(right ? 9 : 8));
    if (v.size() >= 3) (right ? f.rightEye : f.leftEye) = inRadians(float3(v[0], v[1], v[2]));
  }
  return f;
}

// ---------------------------------------------------------------------------
// [SECTION] OSC and VMC
// ---------------------------------------------------------------------------

// The first argument as a number: float32 as it is, float64 narrowed, int32
// converted; anything else (or nothing) is none.
std::optional<float> firstNumber(const std::vector<OSCArgument>& arguments) {
  if (arguments.empty()) return std::nullopt;
  if (const auto* v = arguments[0].get<float>()) return *v;
  if (const auto* v = arguments[0].get<double>()) return static_cast<float>(*v);
  if (const auto* v = arguments[0].get<std::int32_t>()) return static_cast<float>(*v);
  return std::nullopt;
}

ReferenceFrame osc(const std::vector<OSCMessage>& messages) {
  // The head component an address holds, the first found in this order:
  // pitch, yaw, roll (degrees), then x, y, z (centimetres).
  static constexpr std::string_view kHead[] = {"/Head/Pitch", "/Head/Yaw", "/Head/Roll",
                                               "/Head/X",     "/Head/Y",   "/Head/Z"};
  ReferenceFrame f{.format = TrackingFormat::osc, .rotationSet = {}, .positionSet = {}, .app = TrackingApp::osc};
  float3 rotation(0.0f), position(0.0f);
  ReferenceMap map;
  for (const OSCMessage& m : messages) {
    const std::string& a = m.address;
    const std::vector<OSCArgument>& args = m.arguments;
    const auto v = firstNumber(args);
    const auto head = std::ranges::find_if(kHead, [&a](std::string_view part) { return contains(a, part); });
    if (a.starts_with("/VMC/")) f.app = TrackingApp::vmc;
    if (a == "/VMC/Ext/Bone/Pos") {
      // The bone "Head": a text, then seven float32. The axis conversion is
      // the decoder's own function (checked by its own test); what is
      // checked here is which messages reach it.
      if (args.size() < 8 || args[0] != OSCArgument("Head") ||
          !std::all_of(args.begin() + 1, args.begin() + 8, [](const OSCArgument& b) { return b.is<float>(); })) {
        continue;
      }
      const auto b = [&args](std::size_t k) { return *args[k].get<float>(); };
      rotation = unityHeadRotation(b(4), b(5), b(6), b(7));
      position = unityPosition(b(1), b(2), b(3));
      f.rotationSet = f.positionSet = {true, true, true};
    } else if (a == "/VMC/Ext/Blend/Val") {
      // Exactly a text then a float32 (more arguments are allowed).
      if (args.size() >= 2 && args[0].is<std::string>() && args[1].is<float>()) {
        map[*args[0].get<std::string>()] = *args[1].get<float>();
      }
    } else if (contains(a, "/BlendShapes/") || contains(a, "/blendshapes/")) {
      if (v) map[a.substr(a.rfind('/') + 1)] = *v;
    } else if (head != std::end(kHead)) {
      const int i = static_cast<int>(head - std::begin(kHead));
      if (v) {
        (i < 3 ? rotation : position)[i % 3] = *v * (i < 3 ? kDegreesToRadians : 0.01f);
        (i < 3 ? f.rotationSet : f.positionSet)[static_cast<std::size_t>(i % 3)] = true;
      }
    } else if (a.starts_with("/tracking/")) {
      if (v) map[a.substr(10)] = *v;
    }
  }
  f.blendshapes = folded(map);
  // A rotation or position only when the packet set one of its components.
  if (f.rotationSet != std::array<bool, 3>{}) f.rotation = finite(rotation);
  if (f.positionSet != std::array<bool, 3>{}) f.position = position;
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
  const auto array = object.find(key);
  if (array == object.end() || !array->is_array() || array->size() < 3 ||
      !std::all_of(array->begin(), array->end(), [](const nlohmann::json& e) { return jsonNumber(e).has_value(); })) {
    return std::nullopt;
  }
  return float3(*jsonNumber(array->at(0)), *jsonNumber(array->at(1)), *jsonNumber(array->at(2)));
}

// {"x", "y", "z"}, all numbers.
std::optional<float3> jsonXYZ(const nlohmann::json& object, const char* key) {
  const auto o = object.find(key);
  if (o == object.end() || !o->is_object() || !o->contains("x") || !o->contains("y") || !o->contains("z")) {
    return std::nullopt;
  }
  const auto x = jsonNumber(o->at("x")), y = jsonNumber(o->at("y")), z = jsonNumber(o->at("z"));
  if (!x || !y || !z) return std::nullopt;
  return float3(*x, *y, *z);
}

// The lower-case keys; where they give nothing, VTube Studio's.
ReferenceFrame json(const nlohmann::json& document) {
  ReferenceFrame f{.format = TrackingFormat::json, .app = TrackingApp::json};
  if (document.contains("BlendShapes") || document.contains("FaceFound")) f.app = TrackingApp::vtubeStudio;
  if (document.contains("blendshapes") && document.at("blendshapes").is_object()) {
    ReferenceMap map;
    for (const auto& [name, value] : document.at("blendshapes").items()) {
      if (auto n = jsonNumber(value)) map[name] = *n;
    }
    f.blendshapes = folded(map);
  } else if (document.contains("BlendShapes") && document.at("BlendShapes").is_array()) {
    ReferenceMap map;
    for (const auto& e : document.at("BlendShapes")) {
      if (!e.is_object() || !e.contains("k") || !e.contains("v") || !e.at("k").is_string()) continue;
      if (auto n = jsonNumber(e.at("v"))) map[e.at("k").get<std::string>()] = *n;
    }
    f.blendshapes = folded(map);
  }
  f.rotation = finite(jsonVector(document, "rotation"));
  if (!f.rotation) f.rotation = inRadians(jsonXYZ(document, "Rotation"));
  f.position = jsonVector(document, "position");
  if (!f.position) f.position = jsonXYZ(document, "Position");
  f.leftEye = inRadians(jsonXYZ(document, "EyeLeft"));
  f.rightEye = inRadians(jsonXYZ(document, "EyeRight"));
  // Only the boolean false marks the frame faceless.
  f.faceFound = !(document.contains("FaceFound") && document.at("FaceFound") == false);
  return f;
}

// ---------------------------------------------------------------------------
// [SECTION] Comparison
// ---------------------------------------------------------------------------

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

// Every field of a frame but its format, one per line, names in byte order;
// "set x-z": the packet set the x and z components, not y.
std::string shown(const ReferenceFrame& f) {
  const auto set = [](const std::array<bool, 3>& s) {
    return " (set " + std::string{s[0] ? 'x' : '-', s[1] ? 'y' : '-', s[2] ? 'z' : '-'} + ")\n";
  };
  std::string out = "app " + std::string(trackingAppName(f.app)) + (f.faceFound ? ", face\n" : ", no face\n");
  if (f.blendshapes) {
    out += "blendshapes (" + std::to_string(f.blendshapes->size()) + "):";
    for (const auto& [name, value] : std::map<std::string, float>(f.blendshapes->begin(), f.blendshapes->end())) {
      out += " \"" + name + "\"=" + shown(value);
    }
    out += "\n";
  }
  out += "rotation " + shown(f.rotation) + set(f.rotationSet) + "position " + shown(f.position) + set(f.positionSet);
  return out + "left eye " + shown(f.leftEye) + "\nright eye " + shown(f.rightEye) + "\n";
}

}  // namespace

std::string shown(const DecodedFrame& decoded) {
  const FaceFrame& f = decoded.frame;
  ReferenceFrame got{.rotation = f.rotation,
                     .position = f.position,
                     .rotationSet = decoded.rotationSet,
                     .positionSet = decoded.positionSet,
                     .app = decoded.app,
                     .leftEye = f.leftEyeRotation,
                     .rightEye = f.rightEyeRotation,
                     .faceFound = f.faceFound};
  // The map in the reference's terms; a size() that disagrees with the
  // names it iterates is noted.
  std::string notes;
  if (f.blendshapes) {
    std::size_t iterated = 0;
    got.blendshapes.emplace();
    for (const auto& [name, value] : *f.blendshapes) {
      ++iterated;
      got.blendshapes->emplace(std::string(name), value);
    }
    if (iterated != f.blendshapes->size() || iterated != got.blendshapes->size()) {
      notes = "blendshapes: size() " + std::to_string(f.blendshapes->size()) + ", " + std::to_string(iterated) +
              " names iterated\n";
    }
  }
  return shown(got) + "sender " + f.sender + "\n" + notes;
}

std::string differences(const ReferenceFrame& expected, const DecodedDatagram& decoded, const std::string& sender) {
  std::string want = "format " + std::string(trackingFormatName(expected.format)) + "\n";
  want += expected.format == TrackingFormat::unknown ? "no frame\n" : shown(expected) + "sender " + sender + "\n";
  std::string have = "format " + std::string(trackingFormatName(decoded.format)) + "\n";
  have += decoded.frame ? shown(*decoded.frame) : "no frame\n";
  return want == have ? "" : "expected:\n" + want + "decoded:\n" + have;
}

std::string crossCheck(std::span<const std::uint8_t> data) {
  static const std::string sender = "10.0.0.2:50000";
  return differences(decodeReference(data), decodeDatagram(data, sender), sender);
}

// ---------------------------------------------------------------------------
// [SECTION] Detection
// ---------------------------------------------------------------------------

ReferenceFrame decodeReference(std::span<const std::uint8_t> data) {
  const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
  if (text.starts_with("#bundle") || text.starts_with("/")) {
    if (const auto messages = OSCParser::parsePacket(data); !messages.empty()) return osc(messages);
  }
  const bool utf8 = validUTF8(data);
  if (utf8 && text.find_first_of("=|") != std::string_view::npos) return iFacialMocap(text);
  if (utf8) {
    const auto document = nlohmann::json::parse(text.begin(), text.end(), nullptr, false);
    if (document.is_object()) return json(document);
  }
  if (data.size() >= 244) return liveLink(data);
  return ReferenceFrame{};
}

}  // namespace velmora::reference
