#pragma once
// What the cue player hands to the scene every frame: offsets and factors to
// mix over live face tracking. Plain value, any thread.

#include "base/Math.h"
#include "stage/BlendshapeMap.h"

namespace velmora {

struct AnimationOutput {
  float3 positionOffset{0, 0, 0};  // metres, added to the node's position (+z towards the camera)
  float3 rotationOffset{0, 0, 0};  // radians (pitch, yaw, roll), added to the head rotation; +pitch tilts down
  float3 scaleMultiplier{1, 1, 1};  // per-axis factor on the node's scale
  float opacityMultiplier = 1;      // 0..1 factor on the character's opacity, applied regardless of blendWeight
  BlendshapeMap blendshapes;  // target weights 0..1 of the channels the cue drives
  float blendWeight = 0;  // 0 = live tracking only, 1 = the cue owns the driven channels

  // Zero offsets, unit scale, opacity 1, no blendshapes, weight 0.
  static const AnimationOutput& neutral();

  bool operator==(const AnimationOutput&) const = default;
};

}  // namespace velmora
