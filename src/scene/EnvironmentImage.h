#pragma once
// A lighting environment as an equirectangular image of linear RGB radiance.
// Row 0 is straight up (+y), the last row straight down (see directionAt()
// for the longitude). Immutable once built and shared by
// pointer, so the renderer derives its ambient terms from it once per
// context and caches them by the image's identity.

#include <cstddef>
#include <vector>

#include "base/Math.h"

namespace velmora {

struct EnvironmentImage {
  int width = 0;
  int height = 0;
  std::vector<float3> texels;  // width * height, row-major, linear radiance

  const float3& at(int x, int y) const { return texels[static_cast<std::size_t>(y) * width + x]; }

  // The unit direction through the centre of texel (x, y). The longitude runs
  // from -pi at x = 0 to +pi at x = width, measured from -z towards +x, so the
  // middle column looks at -z and the edge columns at +z (the camera side).
  float3 directionAt(float x, float y) const;
  // The inverse: texture coordinates in 0..1 for a unit direction.
  static float2 coordinatesOf(const float3& direction);
};

}  // namespace velmora
