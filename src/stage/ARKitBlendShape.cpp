#include "stage/ARKitBlendShape.h"

#include <algorithm>

namespace velmora {

namespace {

// Indexed by case; sorted, which fromRawValue relies on.
constexpr std::array<std::string_view, arkitBlendShapeCount> rawValues = {
    "browDownLeft",
    "browDownRight",
    "browInnerUp",
    "browOuterUpLeft",
    "browOuterUpRight",
    "cheekPuff",
    "cheekSquintLeft",
    "cheekSquintRight",
    "eyeBlinkLeft",
    "eyeBlinkRight",
    "eyeLookDownLeft",
    "eyeLookDownRight",
    "eyeLookInLeft",
    "eyeLookInRight",
    "eyeLookOutLeft",
    "eyeLookOutRight",
    "eyeLookUpLeft",
    "eyeLookUpRight",
    "eyeSquintLeft",
    "eyeSquintRight",
    "eyeWideLeft",
    "eyeWideRight",
    "jawForward",
    "jawLeft",
    "jawOpen",
    "jawRight",
    "mouthClose",
    "mouthDimpleLeft",
    "mouthDimpleRight",
    "mouthFrownLeft",
    "mouthFrownRight",
    "mouthFunnel",
    "mouthLeft",
    "mouthLowerDownLeft",
    "mouthLowerDownRight",
    "mouthPressLeft",
    "mouthPressRight",
    "mouthPucker",
    "mouthRight",
    "mouthRollLower",
    "mouthRollUpper",
    "mouthShrugLower",
    "mouthShrugUpper",
    "mouthSmileLeft",
    "mouthSmileRight",
    "mouthStretchLeft",
    "mouthStretchRight",
    "mouthUpperUpLeft",
    "mouthUpperUpRight",
    "noseSneerLeft",
    "noseSneerRight",
    "tongueOut",
};

constexpr std::array<ARKitBlendShape, arkitBlendShapeCount> cases = [] {
  std::array<ARKitBlendShape, arkitBlendShapeCount> out{};
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = static_cast<ARKitBlendShape>(i);
  return out;
}();

static_assert(std::is_sorted(rawValues.begin(), rawValues.end()));

// Name lookup without building a string: FNV-1a over the characters, with a
// seed chosen at compile time so that the top 8 bits of the 52 names' hashes
// all differ; a 256-entry table maps those bits to the case, and one
// comparison confirms the name. Decoders look up every received name here.
constexpr std::uint32_t nameHash(std::string_view name, std::uint32_t seed) {
  std::uint32_t h = 2166136261u ^ seed;
  for (const char c : name) {
    h ^= static_cast<std::uint8_t>(c);
    h *= 16777619u;
  }
  return h >> 24;
}

constexpr std::uint8_t kNoCase = 0xFF;

struct NameTable {
  std::uint32_t seed = 0;
  std::array<std::uint8_t, 256> cases{};
};

constexpr NameTable nameTable = [] {
  for (std::uint32_t seed = 0;; ++seed) {
    NameTable table{seed, {}};
    table.cases.fill(kNoCase);
    bool unique = true;
    for (std::size_t i = 0; i < rawValues.size() && unique; ++i) {
      auto& slot = table.cases[nameHash(rawValues[i], seed)];
      unique = slot == kNoCase;
      slot = static_cast<std::uint8_t>(i);
    }
    if (unique) return table;
  }
}();

// Spellings. A spelling's key is its letters lower-cased with underscores
// left out and a last "_l"/"_r" written out as "left"/"right"; the 52 names'
// keys differ (no two names differ in case alone), so the same kind of
// seeded hash table finds a key's case, and one comparison of keys confirms.
// The longest name has 19 letters; a longer key spells none of them.
constexpr std::size_t kMaxKeyLength = 20;

struct SpellingKey {
  std::array<char, kMaxKeyLength> chars{};
  std::size_t size = 0;
  constexpr std::string_view view() const { return {chars.data(), size}; }
};

constexpr char lowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// False when the spelling is too long to be one of the 52.
constexpr bool spellingKey(std::string_view name, SpellingKey& key) {
  std::string_view side;
  if (name.size() >= 2 && name[name.size() - 2] == '_') {
    const char last = lowerAscii(name.back());
    if (last == 'l' || last == 'r') {
      side = last == 'l' ? "left" : "right";
      name.remove_suffix(2);
    }
  }
  key.size = 0;
  const auto append = [&key](char c) {
    if (key.size == kMaxKeyLength) return false;
    key.chars[key.size++] = c;
    return true;
  };
  for (const char c : name) {
    if (c != '_' && !append(lowerAscii(c))) return false;
  }
  for (const char c : side) {
    if (!append(c)) return false;
  }
  return true;
}

constexpr std::array<SpellingKey, arkitBlendShapeCount> spellingKeys = [] {
  std::array<SpellingKey, arkitBlendShapeCount> keys{};
  for (std::size_t i = 0; i < keys.size(); ++i) spellingKey(rawValues[i], keys[i]);
  return keys;
}();

constexpr NameTable spellingTable = [] {
  for (std::uint32_t seed = 0;; ++seed) {
    NameTable table{seed, {}};
    table.cases.fill(kNoCase);
    bool unique = true;
    for (std::size_t i = 0; i < spellingKeys.size() && unique; ++i) {
      auto& slot = table.cases[nameHash(spellingKeys[i].view(), seed)];
      unique = slot == kNoCase;
      slot = static_cast<std::uint8_t>(i);
    }
    if (unique) return table;
  }
}();

}  // namespace

std::optional<ARKitBlendShape> blendShapeFromSpelling(std::string_view name) {
  if (const auto exact = fromRawValue<ARKitBlendShape>(name)) return exact;
  SpellingKey key;
  if (!spellingKey(name, key)) return std::nullopt;
  const std::uint8_t i = spellingTable.cases[nameHash(key.view(), spellingTable.seed)];
  if (i == kNoCase || spellingKeys[i].view() != key.view()) return std::nullopt;
  return static_cast<ARKitBlendShape>(i);
}

std::string_view rawValue(ARKitBlendShape shape) {
  const std::size_t i = index(shape);
  return i < rawValues.size() ? rawValues[i] : std::string_view();
}

template <>
std::optional<ARKitBlendShape> fromRawValue<ARKitBlendShape>(std::string_view raw) {
  const std::uint8_t i = nameTable.cases[nameHash(raw, nameTable.seed)];
  if (i == kNoCase || rawValues[i] != raw) return std::nullopt;
  return static_cast<ARKitBlendShape>(i);
}

template <>
std::span<const ARKitBlendShape> allCases<ARKitBlendShape>() {
  return cases;
}

}  // namespace velmora
