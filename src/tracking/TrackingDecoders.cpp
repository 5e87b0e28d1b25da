#include "tracking/TrackingDecoders.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <nlohmann/json.hpp>

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
  map.reserve(64);  // a phone sends 52; no rehash on the way
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

namespace {

// The OSC address rules over either message type (owned OSCMessage or a
// view into the datagram), so both paths decode alike.
std::optional<std::pair<std::string_view, float>> vmcPair(const OSCMessage& m) {
  if (m.arguments.size() < 2) return std::nullopt;
  const auto* name = m.arguments[0].get<std::string>();
  const auto* value = m.arguments[1].get<float>();
  if (!name || !value) return std::nullopt;
  return std::pair<std::string_view, float>(*name, *value);
}

std::optional<std::pair<std::string_view, float>> vmcPair(const OSCMessageView& m) {
  if (m.arguments.size() < 2) return std::nullopt;
  const auto* name = std::get_if<std::string_view>(&m.arguments[0]);
  const auto* value = std::get_if<float>(&m.arguments[1]);
  if (!name || !value) return std::nullopt;
  return std::pair<std::string_view, float>(*name, *value);
}

class OSCFrameBuilder {
 public:
  OSCFrameBuilder() {
    decoded_.rotationSet = {false, false, false};
    decoded_.positionSet = {false, false, false};
    map_.reserve(64);  // a phone sends 52; no rehash on the way
  }

  template <class Message>
  void add(const Message& m) {
    const std::string_view address = m.address;
    // The VMC address is tested first only because it is the commonest; it
    // contains neither "/BlendShapes/" nor "/blendshapes/", so the rules'
    // order is unchanged.
    if (address == "/VMC/Ext/Blend/Val") {
      if (auto pair = vmcPair(m)) map_.insert_or_assign(std::string(pair->first), pair->second);
    } else if (address.find("/BlendShapes/") != std::string_view::npos ||
               address.find("/blendshapes/") != std::string_view::npos) {
      if (auto v = m.floatValue()) map_.insert_or_assign(std::string(address.substr(address.rfind('/') + 1)), *v);
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
      if (auto v = m.floatValue()) map_.insert_or_assign(std::string(address.substr(10)), *v);
    }
    // Any other address: ignored.
  }

  DecodedFrame finish(std::string sender) && {
    decoded_.frame.blendshapes = std::move(map_);
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
  BlendshapeMap map_;
  float3 rotation_{0.0f}, position_{0.0f};
  bool hasRotation_ = false, hasPosition_ = false;
};

}  // namespace

DecodedFrame decodeOSCMessages(const std::vector<OSCMessage>& messages, std::string sender) {
  OSCFrameBuilder builder;
  for (const OSCMessage& m : messages) builder.add(m);
  return std::move(builder).finish(std::move(sender));
}

std::optional<DecodedFrame> decodeOSCPacket(std::span<const std::uint8_t> data, std::string sender) {
  OSCFrameBuilder builder;
  const std::size_t count =
      OSCParser::forEachMessage(data, [&builder](const OSCMessageView& m) { builder.add(m); });
  if (count == 0) return std::nullopt;
  return std::move(builder).finish(std::move(sender));
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

namespace {

// Builds the same frame as decodeJSON(json::parse(text)) while the text is
// parsed, without building the document: duplicate keys resolve as the
// document would (the last one wins), and a top level that is not an
// object aborts the parse.
class JSONFrameHandler final : public nlohmann::json_sax<nlohmann::json> {
 public:
  bool null() override { return scalar(std::nullopt); }
  bool boolean(bool v) override { return scalar(v ? 1.0 : 0.0); }
  bool number_integer(number_integer_t v) override { return scalar(static_cast<double>(v)); }
  bool number_unsigned(number_unsigned_t v) override { return scalar(static_cast<double>(v)); }
  bool number_float(number_float_t v, const string_t&) override { return scalar(v); }
  bool string(string_t&) override { return scalar(std::nullopt); }
  bool binary(binary_t&) override { return scalar(std::nullopt); }

  bool start_object(std::size_t) override {
    if (depth_ == 0) {
      depth_ = 1;
      return true;
    }
    if (depth_ == 1 && section_ == Section::blendshapes) {
      map_.emplace();
      map_->reserve(64);
    } else {
      nonNumeric();
    }
    ++depth_;
    return true;
  }
  bool key(string_t& k) override {
    if (depth_ == 1) {
      section_ = k == "blendshapes" ? Section::blendshapes
                 : k == "rotation"  ? Section::rotation
                 : k == "position"  ? Section::position
                                    : Section::other;
    } else if (depth_ == 2 && section_ == Section::blendshapes) {
      shapeName_ = std::move(k);
    }
    return true;
  }
  bool end_object() override {
    --depth_;
    return true;
  }
  bool start_array(std::size_t) override {
    if (depth_ == 0) return false;  // top level is not an object
    if (depth_ == 1 && (section_ == Section::rotation || section_ == Section::position)) {
      count_ = 0;
      vectorValid_ = true;
    } else {
      nonNumeric();
    }
    ++depth_;
    return true;
  }
  bool end_array() override {
    --depth_;
    if (depth_ == 1 && (section_ == Section::rotation || section_ == Section::position)) {
      std::optional<float3> v;
      if (vectorValid_ && count_ >= 3) v = vector_;
      (section_ == Section::rotation ? rotation_ : position_) = v;
    }
    return true;
  }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override { return false; }

  std::optional<BlendshapeMap> map_;
  std::optional<float3> rotation_, position_;

 private:
  enum class Section { other, blendshapes, rotation, position };

  // A scalar value (number or boolean as a number; null, text, binary as none).
  bool scalar(std::optional<double> number) {
    if (depth_ == 0) return false;  // top level is not an object
    if (!number) {
      nonNumeric();
      return true;
    }
    if (depth_ == 1) {
      // A top-level part of the wrong kind replaces an earlier good one.
      if (section_ == Section::blendshapes) map_.reset();
      if (section_ == Section::rotation) rotation_.reset();
      if (section_ == Section::position) position_.reset();
    } else if (depth_ == 2 && section_ == Section::blendshapes && map_) {
      map_->insert_or_assign(shapeName_, static_cast<float>(*number));
    } else if (depth_ == 2 && (section_ == Section::rotation || section_ == Section::position)) {
      if (count_ < 3) vector_[static_cast<int>(count_)] = static_cast<float>(*number);
      ++count_;
    }
    return true;
  }
  // A value that is not a number where the part needs one.
  void nonNumeric() {
    if (depth_ == 1) {
      if (section_ == Section::blendshapes) map_.reset();
      if (section_ == Section::rotation) rotation_.reset();
      if (section_ == Section::position) position_.reset();
    } else if (depth_ == 2 && section_ == Section::blendshapes && map_) {
      map_->erase(shapeName_);
    } else if (depth_ == 2 && (section_ == Section::rotation || section_ == Section::position)) {
      vectorValid_ = false;
    }
  }

  int depth_ = 0;
  Section section_ = Section::other;
  std::string shapeName_;
  float3 vector_{0.0f};
  std::size_t count_ = 0;
  bool vectorValid_ = false;
};

}  // namespace

namespace {

// A strict JSON scanner (RFC 8259, as nlohmann's parser accepts it: UTF-8
// byte-order mark skipped, UTF-8 and escapes checked inside strings, number
// overflow rejected, nothing but whitespace after the value until the end or
// a zero byte) that feeds the
// SAX events to the frame handler. The generic parser reads one character
// at a time through an input adapter; this reads runs, so a 52-entry
// datagram decodes within the per-datagram budget. The tracking fuzzer
// checks that both accept the same texts and yield the same frames.
class JSONScanner {
 public:
  JSONScanner(const char* begin, const char* end, JSONFrameHandler& handler)
      : p_(begin), end_(end), handler_(handler) {}

  bool run() {
    if (end_ - p_ >= 1 && static_cast<unsigned char>(*p_) == 0xEF) {
      if (end_ - p_ < 3 || static_cast<unsigned char>(p_[1]) != 0xBB || static_cast<unsigned char>(p_[2]) != 0xBF)
        return false;
      p_ += 3;
    }
    enum class Next { value, key, afterValue };
    Next next = Next::value;
    while (true) {
      skipSpace();
      if (next == Next::key) {
        if (p_ == end_ || *p_ != '"' || !scanString()) return false;
        if (!handler_.key(text_)) return false;
        skipSpace();
        if (p_ == end_ || *p_ != ':') return false;
        ++p_;
        next = Next::value;
        continue;
      }
      if (next == Next::value) {
        if (p_ == end_) return false;
        const char c = *p_;
        if (c == '{') {
          ++p_;
          if (!handler_.start_object(std::size_t(-1))) return false;
          stack_.push_back('{');
          skipSpace();
          if (p_ != end_ && *p_ == '}') {
            ++p_;
            stack_.pop_back();
            if (!handler_.end_object()) return false;
            next = Next::afterValue;
          } else {
            next = Next::key;
          }
          continue;
        }
        if (c == '[') {
          ++p_;
          if (!handler_.start_array(std::size_t(-1))) return false;
          stack_.push_back('[');
          skipSpace();
          if (p_ != end_ && *p_ == ']') {
            ++p_;
            stack_.pop_back();
            if (!handler_.end_array()) return false;
            next = Next::afterValue;
          }
          continue;
        }
        bool ok = false;
        if (c == '"') {
          ok = scanString() && handler_.string(text_);
        } else if (c == 't') {
          ok = literal("true") && handler_.boolean(true);
        } else if (c == 'f') {
          ok = literal("false") && handler_.boolean(false);
        } else if (c == 'n') {
          ok = literal("null") && handler_.null();
        } else if (c == '-' || (c >= '0' && c <= '9')) {
          ok = scanNumber();
        }
        if (!ok) return false;
        next = Next::afterValue;
        continue;
      }
      // After a value: the end, a separator or a closing bracket.
      // A zero byte counts as the end of the input (senders that send C
      // strings with their terminator), as in the generic parser.
      if (stack_.empty()) return p_ == end_ || *p_ == '\0';
      if (p_ == end_) return false;
      const char c = *p_++;
      if (c == ',') {
        next = stack_.back() == '{' ? Next::key : Next::value;
      } else if (c == '}' && stack_.back() == '{') {
        stack_.pop_back();
        if (!handler_.end_object()) return false;
      } else if (c == ']' && stack_.back() == '[') {
        stack_.pop_back();
        if (!handler_.end_array()) return false;
      } else {
        return false;
      }
    }
  }

 private:
  void skipSpace() {
    while (p_ != end_ && (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r')) ++p_;
  }

  bool literal(std::string_view word) {
    if (static_cast<std::size_t>(end_ - p_) < word.size() || std::string_view(p_, word.size()) != word) return false;
    p_ += word.size();
    return true;
  }

  static int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  }

  bool readHex4(std::uint32_t& out) {
    if (end_ - p_ < 4) return false;
    out = 0;
    for (int i = 0; i < 4; ++i) {
      const int h = hexValue(p_[i]);
      if (h < 0) return false;
      out = (out << 4) | static_cast<std::uint32_t>(h);
    }
    p_ += 4;
    return true;
  }

  void appendUTF8(std::uint32_t cp) {
    if (cp < 0x80) {
      text_ += static_cast<char>(cp);
    } else if (cp < 0x800) {
      text_ += static_cast<char>(0xC0 | (cp >> 6));
      text_ += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      text_ += static_cast<char>(0xE0 | (cp >> 12));
      text_ += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      text_ += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      text_ += static_cast<char>(0xF0 | (cp >> 18));
      text_ += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      text_ += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      text_ += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }

  // At the opening quote; leaves the decoded text in text_.
  bool scanString() {
    ++p_;
    text_.clear();
    while (true) {
      const char* run = p_;
      while (p_ != end_) {
        const auto u = static_cast<unsigned char>(*p_);
        if (u == '"' || u == '\\' || u < 0x20 || u >= 0x80) break;
        ++p_;
      }
      text_.append(run, static_cast<std::size_t>(p_ - run));
      if (p_ == end_) return false;
      const auto u = static_cast<unsigned char>(*p_);
      if (u == '"') {
        ++p_;
        return true;
      }
      if (u < 0x20) return false;  // control characters must be escaped
      if (u >= 0x80) {
        std::size_t len = u >= 0xF0 ? 4 : u >= 0xE0 ? 3 : 2;
        if (static_cast<std::size_t>(end_ - p_) < len) len = static_cast<std::size_t>(end_ - p_);
        if (!isValidUTF8({reinterpret_cast<const std::uint8_t*>(p_), len}) || u < 0xC2) return false;
        text_.append(p_, len);
        p_ += len;
        continue;
      }
      // An escape.
      ++p_;
      if (p_ == end_) return false;
      const char e = *p_++;
      switch (e) {
        case '"': text_ += '"'; break;
        case '\\': text_ += '\\'; break;
        case '/': text_ += '/'; break;
        case 'b': text_ += '\b'; break;
        case 'f': text_ += '\f'; break;
        case 'n': text_ += '\n'; break;
        case 'r': text_ += '\r'; break;
        case 't': text_ += '\t'; break;
        case 'u': {
          std::uint32_t cp = 0;
          if (!readHex4(cp)) return false;
          if (cp >= 0xDC00 && cp <= 0xDFFF) return false;  // a low surrogate alone
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            std::uint32_t low = 0;
            if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') return false;
            p_ += 2;
            if (!readHex4(low) || low < 0xDC00 || low > 0xDFFF) return false;
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          }
          appendUTF8(cp);
          break;
        }
        default:
          return false;
      }
    }
  }

  bool scanNumber() {
    const char* start = p_;
    if (*p_ == '-') ++p_;
    if (p_ == end_) return false;
    if (*p_ == '0') {
      ++p_;
    } else if (*p_ >= '1' && *p_ <= '9') {
      while (p_ != end_ && *p_ >= '0' && *p_ <= '9') ++p_;
    } else {
      return false;
    }
    bool integer = true;
    if (p_ != end_ && *p_ == '.') {
      integer = false;
      ++p_;
      if (p_ == end_ || *p_ < '0' || *p_ > '9') return false;
      while (p_ != end_ && *p_ >= '0' && *p_ <= '9') ++p_;
    }
    if (p_ != end_ && (*p_ == 'e' || *p_ == 'E')) {
      integer = false;
      ++p_;
      if (p_ != end_ && (*p_ == '+' || *p_ == '-')) ++p_;
      if (p_ == end_ || *p_ < '0' || *p_ > '9') return false;
      while (p_ != end_ && *p_ >= '0' && *p_ <= '9') ++p_;
    }
    double value = 0.0;
    auto r = std::from_chars(start, p_, value);
    if (r.ec == std::errc::result_out_of_range) {
      // Overflow is an error (as in the generic parser); underflow rounds to zero.
      value = std::strtod(std::string(start, p_).c_str(), nullptr);
    } else if (r.ec != std::errc() || r.ptr != p_) {
      return false;
    }
    if (!std::isfinite(value)) return false;
    // An integer token is an integer: "-0" is 0, not -0.0.
    if (integer && value == 0.0) value = 0.0;
    return handler_.number_float(value, text_);
  }

  const char* p_;
  const char* end_;
  JSONFrameHandler& handler_;
  std::string text_;
  std::vector<char> stack_;
};

}  // namespace

std::optional<DecodedFrame> decodeJSONText(std::span<const std::uint8_t> data, std::string sender) {
  JSONFrameHandler handler;
  const char* text = reinterpret_cast<const char*>(data.data());
  if (!JSONScanner(text, text + data.size(), handler).run()) return std::nullopt;
  DecodedFrame decoded;
  decoded.frame.blendshapes = std::move(handler.map_);
  if (handler.rotation_ && allFinite(*handler.rotation_)) decoded.frame.rotation = handler.rotation_;
  decoded.frame.position = handler.position_;
  decoded.frame.sender = std::move(sender);
  return decoded;
}

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
