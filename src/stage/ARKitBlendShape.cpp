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

}  // namespace

std::string_view rawValue(ARKitBlendShape shape) {
  const std::size_t i = index(shape);
  return i < rawValues.size() ? rawValues[i] : std::string_view();
}

template <>
std::optional<ARKitBlendShape> fromRawValue<ARKitBlendShape>(std::string_view raw) {
  const auto it = std::lower_bound(rawValues.begin(), rawValues.end(), raw);
  if (it == rawValues.end() || *it != raw) return std::nullopt;
  return static_cast<ARKitBlendShape>(it - rawValues.begin());
}

template <>
std::span<const ARKitBlendShape> allCases<ARKitBlendShape>() {
  return cases;
}

}  // namespace velmora
