#pragma once
// The wireframe tracker view's geometry: points and line segments over the
// mask's front surface, morphed by the live blendshapes through the
// wireframe targets (TheatricalMaskGeometry::makeWireframeGeometry and
// makeWireframeMorpher), at the four tracking detail levels:
//
//   simple    the feature outlines only: face outline, brows, eye openings,
//             nose, mouth (80 points)
//   standard  every 12th grid row and column, plus the outlines
//   detailed  every 6th, plus the outlines
//   many      every 3rd, plus the outlines
//
// Grid lines never cross the eye and nostril holes or the mouth slit, so an
// open jaw or a blink reads in the lines. Which vertices and segments a level
// uses is computed once per level; each call only blends the selected
// vertices. Call from any thread (the one-time builds are thread-safe).

#include <array>
#include <cstdint>
#include <vector>

#include "base/Math.h"
#include "stage/FaceFrame.h"
#include "stage/TrackingDetail.h"

namespace velmora {

struct WireframeLevel {
  std::vector<float3> points;                   // morphed positions, scene units
  std::vector<std::array<int, 2>> segments;     // pairs of indices into points
  std::vector<std::int32_t> vertices;           // front-surface vertex of each point
};

// The selection of one level (rest data, shared).
struct WireframeLayout {
  std::vector<std::int32_t> vertices;
  std::vector<std::array<int, 2>> segments;
};
const WireframeLayout& wireframeLayout(TrackingDetail detail);

// Points and segments of `detail` for the given expression. Names are looked
// up lower-cased; names without a mask target and non-finite values are
// ignored.
WireframeLevel wireframeForDetail(TrackingDetail detail, const BlendshapeMap& blendshapes);

}  // namespace velmora
