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

std::string_view trackingAppName(TrackingApp app) {
  switch (app) {
    case TrackingApp::none: return "";
    case TrackingApp::iFacialMocap: return "iFacialMocap";
    case TrackingApp::vtubeStudio: return "VTube Studio";
    case TrackingApp::vmc: return "VMC";
    case TrackingApp::liveLinkFace: return "Live Link Face";
    case TrackingApp::osc: return "OSC";
    case TrackingApp::json: return "JSON";
  }
  return "";
}

}  // namespace velmora
