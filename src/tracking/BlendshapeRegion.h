#pragma once
// Which regional sensitivity a blendshape name gets, by a plain,
// case-sensitive prefix test: "mouth" and "jaw" -> mouth, "brow" -> brow,
// "eye" -> eye; anything else ("cheek...", "nose...", "tongueOut", names
// outside the 52) gets the global sensitivity alone.

#include <string_view>

namespace velmora {

enum class BlendshapeRegion { mouth, brow, eye, none };

BlendshapeRegion blendshapeRegion(std::string_view name);

}  // namespace velmora
