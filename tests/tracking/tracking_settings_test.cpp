// The persisted settings of the face tracking state: stored forms, reading
// them back in a new process (a new state on the same folder), the fallback
// of every key, stored ranges and an unreadable settings file.
#include <gtest/gtest.h>

#include <fstream>
#include <vector>

#include "base/SettingsStore.h"
#include "support/LogCapture.h"
#include "support/TempDir.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

using nlohmann::json;

// Writes a settings file holding exactly this document and returns a fresh
// state that reads it.
struct Stored {
  explicit Stored(const json& document) : Stored(document.dump()) {}
  explicit Stored(const std::string& text) {
    std::ofstream(dir.path() / "settings.json") << text;
    store = std::make_unique<SettingsStore>(dir.path());
    state = std::make_unique<FaceTrackingState>(*store);
  }
  test::TempDir dir;
  std::unique_ptr<SettingsStore> store;
  std::unique_ptr<FaceTrackingState> state;
};

TEST(TrackingSettingsTest, SettingsSurviveARestartInTheirStoredForms) {
  test::TempDir dir;
  LightingSettings lighting = *LightingSettings::presetMatching("under light");
  lighting.preset = LightingSettings::customName;
  lighting.warmth = -0.4;
  const std::vector<std::string> relays{"127.0.0.1:9000", "lighting-desk:7000"}, oscAllowed{"10.0.0.7", "10.0.1.0/28"};
  {
    SettingsStore store(dir.path());
    FaceTrackingState state(store);
    state.setCharacterModel(CharacterModelType::cartoonGhost);
    state.setTrackingDetail(TrackingDetail::many);
    state.setRange("jawOpen", 0.1f, 0.8f);
    state.setRange("eyeBlinkLeft", std::nullopt, 0.3f);
    state.setOscPort(53210);
    state.setIsNDIActive(true);
    state.setLighting(lighting);
    EXPECT_EQ(std::tuple(state.relayTargets().size(), state.trackingAllowedSenders().size()), std::tuple(0u, 0u));
    state.setTrackingTimeout(1.25);
    state.setRelayTargets(relays);
    state.setTrackingBindAddress("192.168.1.5");
    state.setOscBindAddress("127.0.0.1");
    state.setTrackingAllowedSenders({"192.168.1.0/24"});
    state.setOscAllowedSenders(oscAllowed);
    // Not persisted:
    state.setSmoothing(0.9f);
    state.setMaskOpacity(0.2f);
    state.setGlobalSensitivity(2.0f);
  }
  // The OSC switch's stored form is the state test's.
  SettingsStore store(dir.path());
  json stored;  // null: not stored
  for (const char* key : {"characterModel", "trackingDetail", "oscCuePort", "ndiOutputEnabled", "blendshapeRanges",
                          "trackingTimeout", "oscAllowedSenders", "smoothing", "maskOpacity"})
    stored[key] = store.object(key).value_or(nullptr);
  EXPECT_EQ(stored, (json{{"characterModel", "cartoon_ghost"}, {"trackingDetail", 3}, {"oscCuePort", 53210},
                          {"ndiOutputEnabled", true},
                          {"blendshapeRanges", {{"jawOpen", {static_cast<double>(0.1f), static_cast<double>(0.8f)}},
                                                {"eyeBlinkLeft", {0.0, static_cast<double>(0.3f)}}}},
                          {"trackingTimeout", 1.25}, {"oscAllowedSenders", oscAllowed}, {"smoothing", nullptr},
                          {"maskOpacity", nullptr}}));
  EXPECT_TRUE(stored["trackingDetail"].is_number_integer());

  // Model, detail, port, the switches and the timeout read back by
  // EveryKeyFallsBackFromUnusableValues's usable rows, ranges by
  // StoredRangesKeepOnlyTwoNumbersWithCeilingAboveFloor.
  FaceTrackingState restarted(store);
  EXPECT_EQ(std::tuple(restarted.lighting(), restarted.globalSensitivity(), restarted.trackingLoss().timeout(),
                       restarted.relayTargets(), restarted.trackingBindAddress(), restarted.oscBindAddress(),
                       restarted.trackingAllowedSenders(), restarted.oscAllowedSenders()),
            std::tuple(lighting, 1.0f, 1.25, relays, "192.168.1.5", "127.0.0.1",
                       std::vector<std::string>{"192.168.1.0/24"}, oscAllowed));
}

// Each key read back from a stored value: usable values as they were stored,
// unusable ones as the key's default. A value read from the
// state, as the JSON it would be stored as.
TEST(TrackingSettingsTest, EveryKeyFallsBackFromUnusableValues) {
  using Read = json (*)(const FaceTrackingState&);
  const Read model = [](const FaceTrackingState& s) { return json(rawValue(s.characterModel())); };
  const Read detail = [](const FaceTrackingState& s) { return json(rawValue(s.trackingDetail())); };
  const Read port = [](const FaceTrackingState& s) { return json(s.oscPort()); };
  const Read osc = [](const FaceTrackingState& s) { return json(s.isOSCEnabled()); };
  const Read ndi = [](const FaceTrackingState& s) { return json(s.isNDIActive()); };
  const Read timeout = [](const FaceTrackingState& s) { return json(s.trackingTimeout()); };
  const Read bind = [](const FaceTrackingState& s) { return json(s.oscBindAddress()); };
  // Key, its reader, usable values (read back as stored) and unusable ones
  // (read back as the key's default), stored one at a time, and that default.
  const std::tuple<const char*, Read, std::vector<json>, std::vector<json>, json> rows[] = {
      {"characterModel", model, {"cartoon_ghost"},
       {"ghost", "Cartoon Ghost", "CARTOON_GHOST", "", 1, true, json::array()}, "theatrical_mask"},
      {"trackingDetail", detail, {0, 3}, {7, -1, 4, std::int64_t{1} << 40, "3", true, json::object()}, 2},
      {"oscCuePort", port, {1024, 65535, 53210}, {80, 70000, 1023, 65536, "53210", -53210, false, 1e12}, 53100},
      {"isOSCEnabled", osc, {false}, {0, 1, "false", nullptr}, true},
      {"ndiOutputEnabled", ndi, {true}, {1, "true", json::array({true})}, false},
      {"trackingTimeout", timeout, {0}, {-1}, 0.5},  // 0: never lose the face
      {"oscBindAddress", bind, {}, {7}, ""},
  };
  for (const auto& [key, read, usable, unusable, fallback] : rows) {
    for (const json& stored : usable) EXPECT_EQ(read(*Stored(json{{key, stored}}).state), stored) << key << stored;
    for (const json& stored : unusable) EXPECT_EQ(read(*Stored(json{{key, stored}}).state), fallback) << key << stored;
  }
  EXPECT_EQ(Stored(json::object()).state->oscPort(), FaceTrackingState::defaultOSCPort);
  EXPECT_EQ(FaceTrackingState::defaultOSCPort, 53100);
}

// What a stored lighting record may hold is LightingSettingsTest's
// (PersistenceRoundTripAndUndecodableValuesLoadTheatrical); the state reads
// it through the same function.

TEST(TrackingSettingsTest, StoredRangesKeepOnlyTwoNumbersWithCeilingAboveFloor) {
  const json ranges = {
      {"jawOpen", {0.1, 0.8}}, {"cheekPuff", {0.3, 0.3}}, {"browInnerUp", {0.5, 0.2}},
      {"eyeBlinkLeft", {0.1}}, {"tongueOut", json::array()}, {"mouthClose", {0.1, 0.5, 0.9}},
      {"eyeWideLeft", {0, 1}},  // integers are numbers
  };
  Stored s(json{{"blendshapeRanges", ranges}});
  EXPECT_EQ(s.state->blendshapeRanges(), (BlendshapeRanges{{"jawOpen", {0.1f, 0.8f}}, {"eyeWideLeft", {0.0f, 1.0f}}}));

  // A value that is not a dictionary of number arrays yields no ranges at all.
  for (const json& bad : {json{{"jawOpen", {0.1, 0.8}}, {"cheekPuff", "0.2,0.4"}},
                          json{{"jawOpen", {0.1, "0.8"}}}, json::array({json::array({0.1, 0.8})}), json("x")}) {
    EXPECT_TRUE(Stored(json{{"blendshapeRanges", bad}}).state->blendshapeRanges().empty()) << bad.dump();
  }
}

// Moving an unreadable file aside is the store's (settings_store_test); here,
// the state's fallbacks afterwards and a valid next write. Each unusable value
// is logged once, with what is used instead. Whatever is stored as an allow
// list restricts: a lone string, non-string elements and other kinds come back
// as entries (the allow-list reports the malformed ones); only an absent key
// or [] admits everyone.
TEST(TrackingSettingsTest, UnreadableFileAndUnusableValuesFallBackLoggedOnceAndAllowListsStayRestrictive) {
  test::LogCapture log;
  Stored s(std::string("{\"characterModel\": \"cartoon_ghost\", oops"));
  EXPECT_EQ(std::tuple(s.state->characterModel(), s.state->oscPort(), s.state->isOSCEnabled(), log.lines().size()),
            std::tuple(CharacterModelType::theatricalMask, 53100, true, 1u));
  s.state->setTrackingDetail(TrackingDetail::simple);
  std::ifstream in(s.dir.path() / "settings.json");
  EXPECT_EQ(json::parse(in, nullptr, false), (json{{"trackingDetail", 0}}));

  log.clear();
  Stored stored(json{{"oscCuePort", 80}, {"trackingDetail", "3"}, {"characterModel", "cartoon_ghost"},
                     {"oscAllowedSenders", "10.0.0.7"}, {"trackingTimeout", -1}, {"oscBindAddress", 7},
                     {"trackingAllowedSenders", json::array({"10.0.0.8", 42, nullptr})}});
  EXPECT_EQ(log.lines(), (std::vector<std::string>{
                             "[Settings] Stored \"trackingDetail\" value \"3\" is not usable; using 2",
                             "[Settings] Stored \"oscCuePort\" value 80 is not usable; using 53100",
                             "[Settings] Stored \"trackingTimeout\" value -1 is not usable; using 0.5",
                             "[Settings] Stored \"oscBindAddress\" value 7 is not usable; using \"\"",
                         }));
  EXPECT_EQ(stored.state->oscAllowedSenders(), std::vector<std::string>{"10.0.0.7"});
  EXPECT_EQ(stored.state->trackingAllowedSenders(), (std::vector<std::string>{"10.0.0.8", "42", "null"}));
  EXPECT_EQ(Stored(json{{"oscAllowedSenders", json::object({{"a", 1}})}}).state->oscAllowedSenders().size(), 1u);
  EXPECT_TRUE(Stored(json{{"oscAllowedSenders", json::array()}}).state->oscAllowedSenders().empty());
}

}  // namespace
}  // namespace velmora
