#pragma once
// Per-blendshape calibration range: the raw (filtered) values from floor to
// ceiling map onto 0..1. (0, 1) is the neutral range and is never stored.

#include <string>
#include <unordered_map>

namespace velmora {

struct BlendshapeRange {
  float floor = 0.0f;
  float ceiling = 1.0f;
  bool operator==(const BlendshapeRange&) const = default;
};

using BlendshapeRanges = std::unordered_map<std::string, BlendshapeRange>;

}  // namespace velmora
