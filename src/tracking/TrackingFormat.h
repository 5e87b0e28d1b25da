#pragma once
// The encodings the tracking receiver recognises, in detection order.

#include <string_view>

namespace velmora {

enum class TrackingFormat { none, osc, iFacialMocap, json, liveLink, unknown };

// Short lower-case name for status lines and tools: "osc", "ifacialmocap",
// "json", "livelink", "unknown" ("none" before the first datagram).
std::string_view trackingFormatName(TrackingFormat format);

}  // namespace velmora
