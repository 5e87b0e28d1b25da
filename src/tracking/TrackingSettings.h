#pragma once
// The face tracking state's persisted settings: every settings-store key it
// reads and writes, the stored form of each, and the fallback used when a
// stored value is absent or unusable. An unusable value is logged once
// ("[Settings] Stored "<key>" value ... is not usable; using ...") and the
// fallback is used.
//
// Keys: "characterModel" (the raw value, a string), "trackingDetail" (the raw
// value, an integer 0..3), "blendshapeRanges" (name -> [floor, ceiling] as
// two doubles), "oscCuePort" (an integer, usable within 1024..65535),
// "isOSCEnabled" and "ndiOutputEnabled" (booleans), "lightingSettings" (the
// lighting record). Show safety: "trackingTimeout" (seconds, a number >= 0;
// 0 turns the ease to neutral off), "relayTargets" ("host:port" strings),
// "trackingBindAddress" and "oscBindAddress" (an IPv4 address; absent or ""
// binds every interface), "trackingAllowedSenders" and "oscAllowedSenders"
// (IPv4 addresses and CIDR blocks; absent or [] admits everyone). The phone
// asked for data: "phoneAddress" (a host name or IPv4 address; "" asks none)
// and "phoneApp" ("iFacialMocap" or "VTube Studio").
// "characterFile": the glTF character shown instead of the built-in one (a
// path; absent or "": the built-in "characterModel").
//
// Threads: whichever thread owns the store's user (the main thread).

#include <optional>
#include <string>
#include <vector>

#include "stage/CharacterModelType.h"
#include "stage/LightingSettings.h"
#include "stage/TrackingDetail.h"
#include "tracking/BlendshapeRange.h"

namespace velmora {

class SettingsStore;

class TrackingSettings {
 public:
  static constexpr int defaultOSCPort = 53100;

  // The store must outlive this object.
  explicit TrackingSettings(SettingsStore& store) : store_(store) {}

  // Each: the stored value, or none when absent or unusable.
  std::optional<CharacterModelType> characterModel() const;
  std::optional<TrackingDetail> trackingDetail() const;
  std::optional<bool> isOSCEnabled() const;
  std::optional<bool> ndiOutputEnabled() const;
  std::optional<LightingSettings> lighting() const;
  // The stored port when within 1024..65535, else defaultOSCPort.
  int oscPort() const;

  // Seconds, when stored as a finite number >= 0.
  std::optional<double> trackingTimeout() const;
  // A stored list of strings ("relayTargets", "trackingAllowedSenders",
  // "oscAllowedSenders"). Whatever is stored under the key comes back as
  // entries, never as nothing: an element that is not a string, or a value
  // that is not a list, becomes an entry of its JSON text, which the
  // allow-list then reports as malformed. Only an absent key or [] is empty.
  std::vector<std::string> stringList(const char* key) const;
  // A stored string ("trackingBindAddress", "oscBindAddress"); "" when
  // absent; a value that is not a string is logged and gives "".
  std::string string(const char* key) const;

  // "blendshapeRanges": name -> [floor, ceiling] as two doubles.
  void saveRanges(const BlendshapeRanges& ranges);
  // Entries that are not two numbers with ceiling > floor are dropped; a
  // value that is not a dictionary of number arrays gives an empty map.
  BlendshapeRanges loadRanges() const;

  void saveCharacterModel(CharacterModelType model);
  void saveTrackingDetail(TrackingDetail detail);
  void saveOSCPort(int port);
  void saveIsOSCEnabled(bool enabled);
  void saveNDIOutputEnabled(bool enabled);
  void saveLighting(const LightingSettings& lighting);
  void saveTrackingTimeout(double seconds);
  void saveStringList(const char* key, const std::vector<std::string>& list);
  void saveString(const char* key, const std::string& value);

  static constexpr const char* relayTargetsKey = "relayTargets";
  static constexpr const char* phoneAddressKey = "phoneAddress";  // the phone asked for data, host or address
  static constexpr const char* phoneAppKey = "phoneApp";  // its app: "iFacialMocap" or "VTube Studio"
  static constexpr const char* characterFileKey = "characterFile";
  static constexpr const char* trackingBindAddressKey = "trackingBindAddress";
  static constexpr const char* oscBindAddressKey = "oscBindAddress";
  static constexpr const char* trackingAllowedSendersKey = "trackingAllowedSenders";
  static constexpr const char* oscAllowedSendersKey = "oscAllowedSenders";

 private:
  SettingsStore& store_;
};

}  // namespace velmora
