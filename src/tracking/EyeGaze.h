#pragma once
// Gaze for senders that measure the eyes as rotations (iFacialMocap's
// "rightEye#"/"leftEye#", VTube Studio's "EyeLeft"/"EyeRight") but send no
// eyeLook* blendshapes: the eight eyeLook* coefficients those rotations
// mean, so the ghost's eyes and the wireframe tracker's gaze (both driven by
// eyeLook*) follow the eyes. A turn of eyeLookFullTurn is a coefficient of 1.
//
// Rotations are (pitch, yaw, roll) in radians with the head's signs: a
// positive pitch looks down; a positive yaw turns towards +x, which is the
// face's own left (so "out" for the left eye, "in" for the right one).
// Pure function, any thread.

#include <optional>

#include "base/Math.h"
#include "stage/BlendshapeMap.h"

namespace velmora {

inline constexpr float eyeLookFullTurn = 0.5235988f;  // 30 degrees, in radians

// True when the map holds any of the eight eyeLook* names.
bool hasEyeLook(const BlendshapeMap& map);

// Sets the four eyeLook* names of each given eye (both directions of each
// axis, the one not looked towards at 0), coefficients in 0..1.
void addGazeFromEyeRotations(BlendshapeMap& map, const std::optional<float3>& leftEye,
                             const std::optional<float3>& rightEye);

}  // namespace velmora
