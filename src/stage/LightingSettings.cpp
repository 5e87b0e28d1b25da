#include "stage/LightingSettings.h"

#include <cctype>
#include <charconv>

#include <nlohmann/json.hpp>

#include "base/SettingsStore.h"

namespace velmora {

const std::string LightingSettings::customName = "Custom";

const LightingSettings& LightingSettings::theatrical() { return presets().front(); }

const std::vector<LightingSettings>& LightingSettings::presets() {
  static const std::vector<LightingSettings> all = {
      {"Theatrical", 1.0, 1.0, 1.0, 1.0, -1.25, 0.3, 0.0, 0.7},
      {"Soft Front", 0.7, 2.0, 0.8, 2.0, 0.0, 0.0, 0.1, 0.25},
      {"Under Light", 1.5, 0.3, 0.5, 0.5, -2.0, 0.0, 0.0, 0.9},
      {"Top Light", 1.2, 0.5, 1.0, 0.8, 2.2, 0.0, 0.0, 0.8},
      {"Side Light", 1.4, 0.2, 1.2, 0.4, 0.3, -2.0, 0.0, 0.85},
      {"Flat Even", 0.6, 3.0, 0.5, 3.0, 0.0, 0.0, 0.0, 0.0},
  };
  return all;
}

const std::vector<std::string>& LightingSettings::presetNames() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> out;
    for (const auto& p : presets()) out.push_back(p.preset);
    return out;
  }();
  return names;
}

namespace {

// Lower-cased with separators removed, so "Soft Front", "soft-front" and
// "SOFT_FRONT" all compare equal to "softfront".
std::string comparable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (std::isspace(u) || c == '-' || c == '_' || c == '.' || c == '/') continue;
    out.push_back(static_cast<char>(std::tolower(u)));
  }
  return out;
}

// A whole-text decimal integer with an optional sign; none otherwise.
std::optional<long long> decimalInteger(std::string_view text) {
  std::string_view digits = text;
  bool negative = false;
  if (!digits.empty() && (digits.front() == '+' || digits.front() == '-')) {
    negative = digits.front() == '-';
    digits.remove_prefix(1);
  }
  if (digits.empty()) return std::nullopt;
  for (char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
  }
  long long value = 0;
  const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (ec != std::errc() || end != digits.data() + digits.size()) return std::nullopt;  // too large
  return negative ? -value : value;
}

}  // namespace

std::optional<LightingSettings> LightingSettings::presetMatching(std::string_view text) {
  const auto& all = presets();
  if (auto index = decimalInteger(text)) {
    if (*index >= 0 && *index < static_cast<long long>(all.size())) return all[static_cast<std::size_t>(*index)];
  }
  const std::string wanted = comparable(text);
  if (wanted.empty()) return std::nullopt;
  for (const auto& p : all) {
    if (comparable(p.preset) == wanted) return p;
  }
  return std::nullopt;
}

LightingSettings LightingSettings::load(const SettingsStore& store) {
  return stored(store).value_or(theatrical());
}

std::optional<LightingSettings> LightingSettings::stored(const SettingsStore& store) {
  const auto value = store.dictionary(storeKey);
  if (!value) return std::nullopt;
  const nlohmann::json& object = *value;
  LightingSettings out;
  const auto presetIt = object.find("preset");
  if (presetIt == object.end() || !presetIt->is_string()) return std::nullopt;
  out.preset = presetIt->get<std::string>();
  const std::pair<const char*, double LightingSettings::*> numbers[] = {
      {"key", &LightingSettings::key},           {"fill", &LightingSettings::fill},
      {"rim", &LightingSettings::rim},           {"ambient", &LightingSettings::ambient},
      {"keyHeight", &LightingSettings::keyHeight}, {"keySide", &LightingSettings::keySide},
      {"warmth", &LightingSettings::warmth},     {"shadow", &LightingSettings::shadow},
  };
  for (const auto& [name, field] : numbers) {
    const auto it = object.find(name);
    if (it == object.end() || !it->is_number()) return std::nullopt;
    out.*field = it->get<double>();
  }
  return out;
}

void LightingSettings::save(SettingsStore& store) const {
  store.set(storeKey, nlohmann::json{
                          {"preset", preset},
                          {"key", key},
                          {"fill", fill},
                          {"rim", rim},
                          {"ambient", ambient},
                          {"keyHeight", keyHeight},
                          {"keySide", keySide},
                          {"warmth", warmth},
                          {"shadow", shadow},
                      });
}

float4 tinted(float r, float g, float b, double warmth) {
  const double w = warmth;
  if (w < 0) {
    return float4(static_cast<float>(r * (1.0 + 0.28 * w)), static_cast<float>(g * (1.0 + 0.1 * w)), b, 1.0f);
  }
  return float4(r, static_cast<float>(g * (1.0 - 0.18 * w)), static_cast<float>(b * (1.0 - 0.4 * w)), 1.0f);
}

}  // namespace velmora
