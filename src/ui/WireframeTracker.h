#pragma once
// The wireframe tracker: the tracked face as points and lines at the state's
// tracker detail (Simple, Standard, Detailed, Many), morphed by the live
// blendshapes and turned by the head rotation. update() is the frame loop's
// second step, every tick; the view only draws what it holds. Main thread.

#include <cstdint>

#include "base/Math.h"
#include "characters/WireframeLevel.h"
#include "stage/TrackingDetail.h"

namespace velmora {

class FaceTrackingState;

class WireframeTracker {
 public:
  void update(const FaceTrackingState& state);

  const WireframeLevel& level() const { return level_; }
  TrackingDetail detail() const { return detail_; }
  float3 headRotation() const { return rotation_; }
  std::uint64_t updateCount() const { return updates_; }

  // A point turned by the head rotation (pitch about x, yaw about y, roll
  // about z, radians) and seen from the front: (x right, y up).
  static float2 project(float3 point, float3 rotation);

 private:
  WireframeLevel level_;
  TrackingDetail detail_ = TrackingDetail::detailed;
  float3 rotation_{0.0f};
  std::uint64_t updates_ = 0;
};

}  // namespace velmora
