#pragma once
// The values one tracking datagram carries, as every decoder hands them to
// FaceTrackingState::ingestPacket.

#include <optional>
#include <string>
#include <unordered_map>

#include "base/Math.h"

namespace velmora {

// Blendshape name (normally one of the 52 ARKit names, but senders may send
// others) to coefficient, nominally 0..1.
using BlendshapeMap = std::unordered_map<std::string, float>;

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
