#pragma once
// The encodings the tracking receiver recognises, in detection order, and
// the sending apps it tells apart within them.

#include <string_view>

namespace velmora {

enum class TrackingFormat { none, osc, iFacialMocap, json, liveLink, unknown };

// Short lower-case name for status lines and tools: "osc", "ifacialmocap",
// "json", "livelink", "unknown" ("none" before the first datagram).
std::string_view trackingFormatName(TrackingFormat format);

// The app a datagram came from, as far as its bytes tell: iFacialMocap's
// text; VTube Studio's phone JSON (a "BlendShapes" list or a "FaceFound"
// flag); a VMC sender (an address under "/VMC/"); Live Link Face's binary;
// any other OSC or JSON sender.
enum class TrackingApp { none, iFacialMocap, vtubeStudio, vmc, liveLinkFace, osc, json };

// What the operator sees after the sender: "iFacialMocap", "VTube Studio",
// "VMC", "Live Link Face", "OSC", "JSON"; empty for none.
std::string_view trackingAppName(TrackingApp app);

}  // namespace velmora
