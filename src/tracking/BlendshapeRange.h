#pragma once
// Per-blendshape calibration range: the raw (filtered) values from floor to
// ceiling map onto 0..1. (0, 1) is the neutral range and is never stored.

#include "stage/BlendshapeTable.h"

namespace velmora {

struct BlendshapeRange {
  float floor = 0.0f;
  float ceiling = 1.0f;
  bool operator==(const BlendshapeRange&) const = default;
};

// Name to range; the vocabulary's names in fixed slots.
using BlendshapeRanges = BlendshapeTable<BlendshapeRange>;

}  // namespace velmora
