#include "tracking/TrackingFormat.h"

namespace velmora {

std::string_view trackingFormatName(TrackingFormat format) {
  switch (format) {
    case TrackingFormat::none: return "none";
    case TrackingFormat::osc: return "osc";
    case TrackingFormat::iFacialMocap: return "ifacialmocap";
    case TrackingFormat::json: return "json";
    case TrackingFormat::liveLink: return "livelink";
    case TrackingFormat::unknown: return "unknown";
  }
  return "unknown";
}

}  // namespace velmora
