#pragma once
// The ambient terms derived from a lighting environment, on the CPU:
//  - irradiance as 9 spherical-harmonic coefficients (bands 0..2), already
//    convolved with the cosine lobe, so E(n) = sum sh[i] * Y_i(n) is the
//    irradiance arriving at a surface with normal n (a Lambert surface of
//    albedo a then reflects a / pi * E(n));
//  - a small chain of prefiltered equirectangular images for glossy
//    reflection, level k blurred for roughness k / (levels - 1).
// The renderer uploads both; nothing here touches GL.

#include <array>
#include <vector>

#include "base/Math.h"
#include "scene/EnvironmentImage.h"

namespace velmora {

struct EnvironmentLighting {
  static constexpr int specularLevels = 6;     // 128x64 down to 4x2
  static constexpr int specularBaseWidth = 128;

  std::array<float3, 9> irradianceSH{};
  std::vector<EnvironmentImage> specular;  // specularLevels images, halving in size

  static EnvironmentLighting compute(const EnvironmentImage& image);

  // The real SH basis in the order used above: Y00, Y1-1 (y), Y10 (z),
  // Y11 (x), Y2-2 (xy), Y2-1 (yz), Y20, Y21 (xz), Y22.
  static std::array<float, 9> basis(const float3& direction);
  float3 irradiance(const float3& normal) const;
};

}  // namespace velmora
