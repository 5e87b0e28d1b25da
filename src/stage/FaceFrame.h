#pragma once
// The values one tracking datagram carries, as every decoder hands them to
// FaceTrackingState::ingestPacket.

#include <optional>
#include <string>

#include "base/Math.h"
#include "stage/BlendshapeMap.h"

namespace velmora {

struct FaceFrame {
  std::optional<BlendshapeMap> blendshapes;  // absent when the packet carried none
  std::optional<float3> rotation;            // (pitch, yaw, roll), radians
  std::optional<float3> position;            // (x, y, z), sender's units
  std::string sender;                        // "a.b.c.d:port"
  // When the datagram was read off the socket, on the process's monotonic
  // uptime clock (seconds); 0 when unknown. Output latency is measured from it.
  double arrivalTime = 0.0;
  // Each eye's rotation (pitch, yaw, roll in radians, the head's axes and
  // signs) where the sender measures the eyes apart from the eyeLook*
  // blendshapes; absent when the packet carried none.
  std::optional<float3> leftEyeRotation;
  std::optional<float3> rightEyeRotation;
  // False when the sender says it sees no face in this frame (its values
  // are stale): the face eases to neutral at once.
  bool faceFound = true;
};

}  // namespace velmora
