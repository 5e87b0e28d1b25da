#pragma once
// The 52 ARKit blendshapes: the expression vocabulary every part of the
// system speaks. Each is a coefficient from 0 (neutral) to 1 (fully
// expressed); expression data travels as a name -> value map
// (BlendshapeMap.h), never as a fixed array, so senders may send any subset.
// "Left" names act on the character's x >= 0 half.
//
// The raw value is the name string. The case order (the case index 0..51,
// and allCases) is alphabetical by raw value. std::hash works on the enum.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "stage/RawValue.h"

namespace velmora {

enum class ARKitBlendShape : std::uint8_t {
  browDownLeft,  // 0
  browDownRight,  // 1
  browInnerUp,  // 2
  browOuterUpLeft,  // 3
  browOuterUpRight,  // 4
  cheekPuff,  // 5
  cheekSquintLeft,  // 6
  cheekSquintRight,  // 7
  eyeBlinkLeft,  // 8
  eyeBlinkRight,  // 9
  eyeLookDownLeft,  // 10
  eyeLookDownRight,  // 11
  eyeLookInLeft,  // 12
  eyeLookInRight,  // 13
  eyeLookOutLeft,  // 14
  eyeLookOutRight,  // 15
  eyeLookUpLeft,  // 16
  eyeLookUpRight,  // 17
  eyeSquintLeft,  // 18
  eyeSquintRight,  // 19
  eyeWideLeft,  // 20
  eyeWideRight,  // 21
  jawForward,  // 22
  jawLeft,  // 23
  jawOpen,  // 24
  jawRight,  // 25
  mouthClose,  // 26
  mouthDimpleLeft,  // 27
  mouthDimpleRight,  // 28
  mouthFrownLeft,  // 29
  mouthFrownRight,  // 30
  mouthFunnel,  // 31
  mouthLeft,  // 32
  mouthLowerDownLeft,  // 33
  mouthLowerDownRight,  // 34
  mouthPressLeft,  // 35
  mouthPressRight,  // 36
  mouthPucker,  // 37
  mouthRight,  // 38
  mouthRollLower,  // 39
  mouthRollUpper,  // 40
  mouthShrugLower,  // 41
  mouthShrugUpper,  // 42
  mouthSmileLeft,  // 43
  mouthSmileRight,  // 44
  mouthStretchLeft,  // 45
  mouthStretchRight,  // 46
  mouthUpperUpLeft,  // 47
  mouthUpperUpRight,  // 48
  noseSneerLeft,  // 49
  noseSneerRight,  // 50
  tongueOut,  // 51
};

inline constexpr std::size_t arkitBlendShapeCount = 52;

// The case index, 0..51.
constexpr std::size_t index(ARKitBlendShape shape) { return static_cast<std::size_t>(shape); }

// The name, e.g. "jawOpen". fromRawValue is exact (case-sensitive) and
// allocates nothing.
std::string_view rawValue(ARKitBlendShape shape);

template <>
std::optional<ARKitBlendShape> fromRawValue<ARKitBlendShape>(std::string_view raw);

template <>
std::span<const ARKitBlendShape> allCases<ARKitBlendShape>();

// The blendshape a sender's spelling of a name means. Senders built on other
// engines write the same 52 names differently ("JawOpen", "jaw_open",
// "eyeBlink_L", "MOUTHSMILE_R"): letter case and underscores are ignored, and
// a last part "L" or "R" after an underscore reads as "Left" or "Right". An
// exact name maps to itself; a name that spells none of the 52 yields none
// (callers keep it as it stands). Looks the spelling up in a table built at
// compile time: no allocation, no string built. Any thread.
std::optional<ARKitBlendShape> blendShapeFromSpelling(std::string_view name);

}  // namespace velmora
