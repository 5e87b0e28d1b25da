#pragma once
// Every number of the stage light rig for one (settings, master level):
// an image-based environment, a spot key light with a shadow map, and
// directional fill and rim lights. Positions are metres in the scene, the
// face at the origin and the camera on +z. Intensities are in the rig's own
// units (the renderer maps them to radiance with one exposure constant).
// Plain data: the scene manager builds its lights from it.

#include "base/Math.h"
#include "stage/LightingSettings.h"

namespace velmora {

struct LightRig {
  // Fixed shape of the rig.
  static constexpr float keyInnerAngleDegrees = 18.0f;
  static constexpr float keyOuterAngleDegrees = 62.0f;
  static constexpr int shadowMapSize = 2048;
  static constexpr int shadowSampleCount = 16;
  static constexpr float shadowRadius = 4.0f;
  static constexpr float shadowNear = 0.5f;
  static constexpr float shadowFar = 20.0f;

  float environmentIntensity = 0.1f;

  float keyIntensity = 31.0f;
  float3 keyColor{1.0f, 1.0f, 1.0f};
  float3 keyPosition{0.3f, -1.25f, 3.0f};
  float3 keyTarget{0.0f, 0.1f, 0.0f};
  bool keyCastsShadows = true;
  float shadowAlpha = 0.7f;  // black shadow colour at this alpha

  float fillIntensity = 90.0f;
  float3 fillColor{0.9f, 0.95f, 1.0f};
  float3 fillPosition{-1.5f, 2.0f, 2.0f};
  float3 fillTarget{0.0f, 0.0f, 0.0f};

  float rimIntensity = 160.0f;
  float3 rimColor{0.9f, 1.0f, 0.95f};
  float3 rimPosition{0.0f, 3.0f, -1.0f};
  float3 rimTarget{0.0f, 0.0f, 0.0f};

  // The rig as first built, before any settings are applied.
  static LightRig initial();
  // The rig for these settings at this master level (0 darkens everything).
  static LightRig applied(const LightingSettings& settings, float master);

  bool operator==(const LightRig&) const = default;
};

}  // namespace velmora
