#include "ui/WireframeTracker.h"

#include "stage/Node.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

void WireframeTracker::update(const FaceTrackingState& state) {
  detail_ = state.trackingDetail();
  level_ = wireframeForDetail(detail_, state.blendshapes());
  rotation_ = state.headRotation();
  ++updates_;
}

float2 WireframeTracker::project(float3 point, float3 rotation) {
  // The character node's own Euler convention, so the drawing turns as the character does.
  const float4 p = eulerRotation(rotation) * float4(point, 1.0f);
  return {p.x, p.y};
}

}  // namespace velmora
