#include "control/RemoteValues.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "animation/CharacterAnimationController.h"
#include "control/CommandContext.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

namespace {

using Json = nlohmann::ordered_json;

// Floats as a controller reads them: 6 significant digits, so a slider's
// 0.45 stays 0.45 through the float the state keeps.
double readable(float value) {
  if (!std::isfinite(value)) return 0.0;
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", static_cast<double>(value));
  return std::strtod(text, nullptr);
}

Json toJson(const RemoteValues::Value& value) {
  return std::visit(
      [](const auto& v) -> Json {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, float>) {
          return readable(v);
        } else {
          return v;
        }
      },
      value);
}

float f(double value) { return static_cast<float>(value); }

}  // namespace

std::vector<RemoteValues::Entry> RemoteValues::read(const CommandContext& context, double now) {
  const FaceTrackingState& s = context.state;
  const CharacterAnimationController& cues = context.cues;
  const LightingSettings& l = s.lighting();
  double progress = 0.0;
  if (const auto& cue = cues.activeCue(); cue && cues.isPlaying()) {
    const double duration = cue->duration();
    progress = duration > 0 ? std::clamp((now - cues.cueStartTime()) / duration, 0.0, 1.0) : 1.0;
  }
  std::vector<Entry> e;
  e.reserve(32);
  e.push_back({"character", std::string(rawValue(s.characterModel())), "/velmora/model"});
  e.push_back({"detail", std::int32_t(rawValue(s.trackingDetail())), ""});
  e.push_back({"sensitivity", s.globalSensitivity(), "/velmora/sensitivity"});
  e.push_back({"smoothing", s.smoothing(), "/velmora/smoothing"});
  e.push_back({"opacity", s.maskOpacity(), "/velmora/opacity"});
  e.push_back({"lock", s.lockRotation(), "/velmora/lockrotation"});
  e.push_back({"syphon", s.isSyphonActive(), "/velmora/syphon"});
  e.push_back({"syphonStatus", s.syphonStatus(), ""});
  e.push_back({"ndi", s.isNDIActive(), "/velmora/ndi"});
  e.push_back({"ndiStatus", s.ndiStatus(), ""});
  e.push_back({"projector", s.isProjectorFullscreen(), ""});
  e.push_back({"projectorStatus", std::string(s.isProjectorFullscreen() ? "Projector: on" : "Projector: off"), ""});
  e.push_back({"master", s.lightIntensity(), "/velmora/lighting"});
  e.push_back({"lighting.preset", l.preset, ""});
  e.push_back({"lighting.key", f(l.key), "/velmora/lighting/key"});
  e.push_back({"lighting.fill", f(l.fill), "/velmora/lighting/fill"});
  e.push_back({"lighting.rim", f(l.rim), "/velmora/lighting/rim"});
  e.push_back({"lighting.ambient", f(l.ambient), "/velmora/lighting/ambient"});
  e.push_back({"lighting.keyHeight", f(l.keyHeight), "/velmora/lighting/keyheight"});
  e.push_back({"lighting.keySide", f(l.keySide), "/velmora/lighting/keyside"});
  e.push_back({"lighting.warmth", f(l.warmth), "/velmora/lighting/warmth"});
  e.push_back({"lighting.shadow", f(l.shadow), "/velmora/lighting/shadow"});
  e.push_back({"cue", cues.activeCueName(), ""});
  e.push_back({"cueProgress", f(progress), "", false});
  e.push_back({"tracking.connected", s.isConnected() && !s.isTrackingLost(), ""});
  e.push_back({"tracking.sender", s.senderIP(), ""});
  e.push_back({"tracking.packetsPerSecond", f(s.incomingFPS()), "", false});
  e.push_back({"tracking.latencyP50", f(s.outputLatencyP50()), "", false});
  e.push_back({"tracking.latencyP99", f(s.outputLatencyP99()), "", false});
  e.push_back({"osc", s.isOSCEnabled(), "/velmora/osc"});
  e.push_back({"oscStatus", s.oscStatus(), ""});
  return e;
}

namespace {

Json objectOf(const std::vector<RemoteValues::Entry>& entries, std::string_view prefix) {
  Json out = Json::object();
  for (const auto& entry : entries) {
    if (entry.name.size() > prefix.size() && entry.name.compare(0, prefix.size(), prefix) == 0 &&
        entry.name[prefix.size()] == '.') {
      out[entry.name.substr(prefix.size() + 1)] = toJson(entry.value);
    }
  }
  return out;
}

}  // namespace

std::string RemoteValues::stateJson(const std::vector<Entry>& entries) {
  Json out = Json::object();
  for (const auto& entry : entries) {
    const auto dot = entry.name.find('.');
    if (dot == std::string::npos) {
      out[entry.name] = toJson(entry.value);
    } else {
      out[entry.name.substr(0, dot)][entry.name.substr(dot + 1)] = toJson(entry.value);
    }
  }
  return out.dump();
}

std::optional<std::string> RemoteValues::valueJson(const std::vector<Entry>& entries, std::string_view name) {
  for (const auto& entry : entries) {
    if (entry.name == name) return toJson(entry.value).dump();
  }
  const Json object = objectOf(entries, name);
  if (!object.empty()) return object.dump();
  return std::nullopt;
}

std::string RemoteValues::json(const Value& value) { return toJson(value).dump(); }

}  // namespace velmora
