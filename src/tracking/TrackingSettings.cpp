#include "tracking/TrackingSettings.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <utility>

#include <nlohmann/json.hpp>

#include "base/Log.h"
#include "base/SettingsStore.h"

namespace velmora {

namespace {

constexpr const char* characterModelKey = "characterModel";
constexpr const char* trackingDetailKey = "trackingDetail";
constexpr const char* blendshapeRangesKey = "blendshapeRanges";
constexpr const char* oscCuePortKey = "oscCuePort";
constexpr const char* isOSCEnabledKey = "isOSCEnabled";
constexpr const char* ndiOutputEnabledKey = "ndiOutputEnabled";
constexpr const char* trackingTimeoutKey = "trackingTimeout";

constexpr int lowestOSCPort = 1024;
constexpr int highestOSCPort = 65535;

void logUnusable(const char* key, const nlohmann::json& stored, const std::string& fallback) {
  logLine("Settings", std::string("Stored \"") + key + "\" value " + stored.dump() + " is not usable; using " +
                          fallback);
}

// A stored boolean, or none (logged) when the key holds something else.
std::optional<bool> storedBoolean(const SettingsStore& store, const char* key, const char* fallback) {
  const auto stored = store.object(key);
  if (!stored) return std::nullopt;
  if (stored->is_boolean()) return stored->get<bool>();
  logUnusable(key, *stored, fallback);
  return std::nullopt;
}

}  // namespace

std::optional<CharacterModelType> TrackingSettings::characterModel() const {
  const auto stored = store_.object(characterModelKey);
  if (!stored) return std::nullopt;
  std::optional<CharacterModelType> model;
  if (stored->is_string()) model = fromRawValue<CharacterModelType>(stored->get<std::string>());
  if (!model) logUnusable(characterModelKey, *stored, std::string(rawValue(CharacterModelType::theatricalMask)));
  return model;
}

std::optional<TrackingDetail> TrackingSettings::trackingDetail() const {
  const auto stored = store_.object(trackingDetailKey);
  if (!stored) return std::nullopt;
  std::optional<TrackingDetail> detail;
  if (auto raw = store_.integer(trackingDetailKey)) detail = fromRawValue<TrackingDetail>(*raw);
  if (!detail) logUnusable(trackingDetailKey, *stored, std::to_string(rawValue(TrackingDetail::detailed)));
  return detail;
}

std::optional<bool> TrackingSettings::isOSCEnabled() const {
  return storedBoolean(store_, isOSCEnabledKey, "true");
}

std::optional<bool> TrackingSettings::ndiOutputEnabled() const {
  return storedBoolean(store_, ndiOutputEnabledKey, "false");
}

std::optional<LightingSettings> TrackingSettings::lighting() const {
  const auto stored = store_.object(LightingSettings::storeKey);
  if (!stored) return std::nullopt;
  auto settings = LightingSettings::stored(store_);
  if (!settings) logUnusable(LightingSettings::storeKey, *stored, LightingSettings::theatrical().preset);
  return settings;
}

int TrackingSettings::oscPort() const {
  // Read as an integer, 0 when absent; only 1024..65535 is a usable port.
  const std::int64_t port = store_.integer(oscCuePortKey).value_or(0);
  if (port >= lowestOSCPort && port <= highestOSCPort) return static_cast<int>(port);
  if (auto stored = store_.object(oscCuePortKey)) logUnusable(oscCuePortKey, *stored, std::to_string(defaultOSCPort));
  return defaultOSCPort;
}

std::optional<double> TrackingSettings::trackingTimeout() const {
  const auto stored = store_.object(trackingTimeoutKey);
  if (!stored) return std::nullopt;
  if (stored->is_number()) {
    const double seconds = stored->get<double>();
    if (std::isfinite(seconds) && seconds >= 0.0) return seconds;
  }
  logUnusable(trackingTimeoutKey, *stored, "0.5");
  return std::nullopt;
}

std::vector<std::string> TrackingSettings::stringList(const char* key) const {
  const auto stored = store_.object(key);
  std::vector<std::string> list;
  if (!stored) return list;
  auto entry = [](const nlohmann::json& value) { return value.is_string() ? value.get<std::string>() : value.dump(); };
  if (stored->is_array()) {
    for (const auto& value : *stored) list.push_back(entry(value));
  } else {
    list.push_back(entry(*stored));
  }
  return list;
}

std::string TrackingSettings::string(const char* key) const {
  const auto stored = store_.object(key);
  if (!stored) return {};
  if (stored->is_string()) return stored->get<std::string>();
  logUnusable(key, *stored, "\"\"");
  return {};
}

void TrackingSettings::saveRanges(const BlendshapeRanges& ranges) {
  nlohmann::json dictionary = nlohmann::json::object();
  for (const auto& [name, range] : ranges) {
    dictionary[name] = nlohmann::json::array({static_cast<double>(range.floor), static_cast<double>(range.ceiling)});
  }
  store_.set(blendshapeRangesKey, std::move(dictionary));
}

BlendshapeRanges TrackingSettings::loadRanges() const {
  const auto stored = store_.object(blendshapeRangesKey);
  if (!stored) return {};
  // The whole value must be a dictionary of number arrays, else nothing of
  // it is used.
  bool usable = stored->is_object();
  if (usable) {
    for (const auto& [name, value] : stored->items()) {
      usable = value.is_array() && std::all_of(value.begin(), value.end(), [](const auto& e) { return e.is_number(); });
      if (!usable) break;
    }
  }
  if (!usable) {
    logUnusable(blendshapeRangesKey, *stored, "no ranges");
    return {};
  }
  BlendshapeRanges ranges;
  for (const auto& [name, value] : stored->items()) {
    if (value.size() != 2) continue;
    const double first = value[0].get<double>();
    const double second = value[1].get<double>();
    if (!(second > first)) continue;
    const BlendshapeRange range{static_cast<float>(first), static_cast<float>(second)};
    // A range too wide for single precision cannot normalise anything.
    if (!std::isfinite(range.floor) || !std::isfinite(range.ceiling)) continue;
    ranges.insert_or_assign(name, range);
  }
  return ranges;
}

void TrackingSettings::saveCharacterModel(CharacterModelType model) {
  store_.set(characterModelKey, std::string(rawValue(model)));
}

void TrackingSettings::saveTrackingDetail(TrackingDetail detail) { store_.set(trackingDetailKey, rawValue(detail)); }

void TrackingSettings::saveOSCPort(int port) { store_.set(oscCuePortKey, port); }

void TrackingSettings::saveIsOSCEnabled(bool enabled) { store_.set(isOSCEnabledKey, enabled); }

void TrackingSettings::saveNDIOutputEnabled(bool enabled) { store_.set(ndiOutputEnabledKey, enabled); }

void TrackingSettings::saveLighting(const LightingSettings& lighting) { lighting.save(store_); }

void TrackingSettings::saveTrackingTimeout(double seconds) { store_.set(trackingTimeoutKey, seconds); }

void TrackingSettings::saveStringList(const char* key, const std::vector<std::string>& list) {
  store_.set(key, nlohmann::json(list));
}

void TrackingSettings::saveString(const char* key, const std::string& value) { store_.set(key, value); }

}  // namespace velmora
