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

}  // namespace

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
