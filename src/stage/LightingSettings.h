#pragma once
// The operator's lighting record: levels of the key, fill, rim and ambient
// lights, the key light's position, colour warmth and shadow darkness, and
// the name of the preset the values came from ("Custom" once edited).
// Persisted in the settings store under "lightingSettings" as a JSON object
// keyed by the field names.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Math.h"

namespace velmora {

class SettingsStore;

struct LightingSettings {
  std::string preset = "Theatrical";
  double key = 1.0;         // key light level, 0..3 from remote control
  double fill = 1.0;        // fill light level, 0..3
  double rim = 1.0;         // rim light level, 0..3
  double ambient = 1.0;     // environment level
  double keyHeight = -1.25; // metres, negative = below the face
  double keySide = 0.3;     // metres, sideways
  double warmth = 0.0;      // -1 cool, 0 neutral, +1 warm
  double shadow = 0.7;      // key shadow darkness, 0..1

  static const std::string customName;  // "Custom"
  static constexpr const char* storeKey = "lightingSettings";

  // The first preset; also the default-constructed value.
  static const LightingSettings& theatrical();
  // The six presets, in their fixed order (remote control selects by index).
  static const std::vector<LightingSettings>& presets();
  // The presets' names in the same order ("Custom" is not among them).
  static const std::vector<std::string>& presetNames();

  // A decimal integer 0..5 (optional leading '+' or '-') selects by index;
  // any other text is compared with the names after lower-casing both and
  // removing separators (white space, '-', '_', '.', '/'). None when nothing
  // matches.
  static std::optional<LightingSettings> presetMatching(std::string_view text);

  // "Theatrical" when nothing is stored or the stored value does not decode
  // (not an object, a field missing or of the wrong type).
  static LightingSettings load(const SettingsStore& store);
  // The stored record; none when nothing is stored or it does not decode.
  static std::optional<LightingSettings> stored(const SettingsStore& store);
  void save(SettingsStore& store) const;

  bool operator==(const LightingSettings&) const = default;
};

// An opaque colour shifted by warmth: -1 cool (less red and a little less
// green), +1 warm (less green and blue). Alpha is 1.
float4 tinted(float r, float g, float b, double warmth);

}  // namespace velmora
