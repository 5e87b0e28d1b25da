#include "tracking/EyeGaze.h"

#include <algorithm>

namespace velmora {

namespace {

using S = ARKitBlendShape;

// The coefficients of a turn `angle` towards the positive and the negative
// side of one axis.
void setAxis(BlendshapeMap& map, float angle, S positive, S negative) {
  const float amount = std::clamp(angle / eyeLookFullTurn, -1.0f, 1.0f);
  map.set(positive, amount > 0.0f ? amount : 0.0f);
  map.set(negative, amount < 0.0f ? -amount : 0.0f);
}

}  // namespace

bool hasEyeLook(const BlendshapeMap& map) {
  for (const S shape : {S::eyeLookDownLeft, S::eyeLookDownRight, S::eyeLookInLeft, S::eyeLookInRight,
                        S::eyeLookOutLeft, S::eyeLookOutRight, S::eyeLookUpLeft, S::eyeLookUpRight}) {
    if (map.has(shape)) return true;
  }
  return false;
}

void addGazeFromEyeRotations(BlendshapeMap& map, const std::optional<float3>& leftEye,
                             const std::optional<float3>& rightEye) {
  if (leftEye) {
    setAxis(map, leftEye->x, S::eyeLookDownLeft, S::eyeLookUpLeft);
    setAxis(map, leftEye->y, S::eyeLookOutLeft, S::eyeLookInLeft);
  }
  if (rightEye) {
    setAxis(map, rightEye->x, S::eyeLookDownRight, S::eyeLookUpRight);
    setAxis(map, rightEye->y, S::eyeLookInRight, S::eyeLookOutRight);
  }
}

}  // namespace velmora
