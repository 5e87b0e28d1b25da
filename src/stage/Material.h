#pragma once
// A physically based surface description. Colours are linear RGB.

#include <string>

#include "base/Math.h"

namespace velmora {

struct Material {
  std::string name;
  float4 diffuse{1.0f, 1.0f, 1.0f, 1.0f};  // base colour, alpha = coverage
  float roughness = 0.5f;                   // 0..1
  float metalness = 0.0f;                   // 0..1
  float3 emission{0.0f, 0.0f, 0.0f};        // added radiance, not lit
  bool doubleSided = false;
  bool constantLighting = false;            // unlit: diffuse (x vertex colour) + emission only
};

}  // namespace velmora
