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
};

}  // namespace velmora
