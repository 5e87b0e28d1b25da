// Lighting settings (presets, lookup, persistence, tint) and the light rig
// numbers derived from them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/SettingsStore.h"
#include "scene/LightingRig.h"
#include "stage/LightingSettings.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

TEST(LightingSettingsTest, PresetsAreInOrderWithTheirValues) {
  const LightingSettings rows[] = {
      {"Theatrical", 1.0, 1.0, 1.0, 1.0, -1.25, 0.3, 0.0, 0.7},
      {"Soft Front", 0.7, 2.0, 0.8, 2.0, 0.0, 0.0, 0.1, 0.25},
      {"Under Light", 1.5, 0.3, 0.5, 0.5, -2.0, 0.0, 0.0, 0.9},
      {"Top Light", 1.2, 0.5, 1.0, 0.8, 2.2, 0.0, 0.0, 0.8},
      {"Side Light", 1.4, 0.2, 1.2, 0.4, 0.3, -2.0, 0.0, 0.85},
      {"Flat Even", 0.6, 3.0, 0.5, 3.0, 0.0, 0.0, 0.0, 0.0},
  };
  EXPECT_EQ(LightingSettings::presets(), std::vector(std::begin(rows), std::end(rows)));
  std::vector<std::string> names;
  for (const LightingSettings& row : rows) names.push_back(row.preset);
  EXPECT_EQ(LightingSettings::presetNames(), names);
  EXPECT_EQ(std::pair(LightingSettings{}, LightingSettings::theatrical()), std::pair(rows[0], rows[0]));
  EXPECT_EQ(LightingSettings::customName, "Custom");
}

TEST(LightingSettingsTest, PresetMatchingByIndexOrName) {
  const auto& presets = LightingSettings::presets();
  for (std::size_t i = 0; i < presets.size(); ++i) EXPECT_EQ(LightingSettings::presetMatching(std::to_string(i)), presets[i]);
  const std::vector<std::pair<const char*, const char*>> hits = {
      {"+2", "Under Light"},          {"-0", "Theatrical"},          {"05", "Flat Even"},
      {"soft front", "Soft Front"},   {"SOFT-FRONT", "Soft Front"},  {"softfront", "Soft Front"},
      {"Soft_Front", "Soft Front"},   {" soft.front ", "Soft Front"}, {"soft/front", "Soft Front"},
      {"underlight", "Under Light"},  {"Theatrical", "Theatrical"},
  };
  const LightingSettings miss{.preset = "(no match)"};
  for (const auto& [text, preset] : hits)
    EXPECT_EQ(LightingSettings::presetMatching(text).value_or(miss).preset, preset) << text;
  for (const char* miss : {"6", "-1", "+", "2.5", "99999999999999999999999", "", " - ", "Custom", "soft", "soft fronts"})
    EXPECT_FALSE(LightingSettings::presetMatching(miss)) << miss;
}

// A stored record that cannot be decoded, whole or in any field, loads
// Theatrical. (Round trip over a restart and the stored key names:
// TrackingSettingsTest.)
TEST(LightingSettingsTest, UndecodableRecordsLoadTheatrical) {
  test::TempDir dir;
  const LightingSettings custom{LightingSettings::customName, 2.5, 0.1, 3.0, 1.7, 2.9, -2.75, -0.6, 0.011};
  SettingsStore store(dir.path());
  EXPECT_EQ(LightingSettings::load(store), LightingSettings::theatrical());  // nothing stored
  custom.save(store);
  const auto good = *store.dictionary("lightingSettings");
  const auto with = [&](const char* key, const nlohmann::json& value) {
    auto j = good;
    j[key] = value;
    return j;
  };
  auto withoutRim = good;
  withoutRim.erase("rim");
  for (const nlohmann::json& value : {nlohmann::json("Soft Front"), nlohmann::json::array({1, 2, 3}), withoutRim,
                                      with("key", "bright"), with("preset", 3), with("shadow", nullptr)}) {
    store.set("lightingSettings", value);
    EXPECT_EQ(LightingSettings::load(store), LightingSettings::theatrical()) << value.dump();
  }
  // Integers are numbers too; extra keys are ignored.
  auto integral = with("fill", 2);
  integral["extra"] = true;
  store.set("lightingSettings", integral);
  EXPECT_EQ(LightingSettings::load(store),
            (LightingSettings{LightingSettings::customName, 2.5, 2.0, 3.0, 1.7, 2.9, -2.75, -0.6, 0.011}));
}

// Intensities scale with the master and the settings; the key moves with
// height and side, warmth tints key and fill (never the rim): warm or cool,
// each channel scales the light's own colour. The key casts shadows above a
// shadow of 0.01.
TEST(LightRigTest, SettingsAndMasterScaleTheLights) {
  LightingSettings warmSide = *LightingSettings::presetMatching("side light");
  warmSide.warmth = 1.0;
  const LightingSettings faint{.shadow = 0.01};
  // Cool scales the given colour, not white: 1 - 0.28 * 0.5 red, 1 - 0.1 * 0.5
  // green; a shadow just above 0.01: the key casts shadows.
  const LightingSettings cool{.warmth = -0.5, .shadow = 0.011};
  struct Row {
    const char* what;
    LightRig rig;
    float key, fill, rim, environment;
    float3 keyPosition, keyColor, fillColor;
    bool shadows;
    float shadowAlpha;
  };
  const float3 white(1.0f), fill(0.9f, 0.95f, 1.0f), key(0.3f, -1.25f, 3.0f);
  const Row rows[] = {
      {"initial", LightRig::initial(), 31.0f, 90.0f, 160.0f, 0.1f, key, white, fill, true, 0.7f},
      {"theatrical", LightRig::applied(LightingSettings::theatrical(), 1.0f), 26.0f, 75.0f, 135.0f, 0.08333f, key,
       white, fill, true, 0.7f},
      {"warm side x2", LightRig::applied(warmSide, 2.0f), 26.0f * 2.0f * 1.4f, 75.0f * 2.0f * 0.2f,
       135.0f * 2.0f * 1.2f, 0.08333f * 2.0f * 0.4f, {-2.0f, 0.3f, 3.0f}, {1.0f, 0.82f, 0.6f},
       {0.9f, 0.95f * 0.82f, 0.6f}, true, 0.85f},
      {"cool, shadow 0.011", LightRig::applied(cool, 1.0f), 26.0f, 75.0f, 135.0f, 0.08333f, key, {0.86f, 0.95f, 1.0f},
       {0.9f * 0.86f, 0.95f * 0.95f, 1.0f}, true, 0.011f},
      {"flat even x0", LightRig::applied(*LightingSettings::presetMatching("Flat Even"), 0.0f), 0, 0, 0, 0,
       {0.0f, 0.0f, 3.0f}, white, fill, false, 0.0f},
      {"shadow 0.01", LightRig::applied(faint, 1.0f), 26.0f, 75.0f, 135.0f, 0.08333f, key, white, fill, false, 0.01f},
  };
  EXPECT_EQ(std::pair(LightRig::initial().fillPosition, LightRig::initial().rimPosition),
            std::pair(float3(-1.5f, 2.0f, 2.0f), float3(0.0f, 3.0f, -1.0f)));
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const LightRig& r = row.rig;
    // Intensities, shadow alpha, key and fill colour (r, g, b), each within 4 ulps.
    const std::vector expected = {row.key, row.fill, row.rim, row.environment, row.shadowAlpha, row.keyColor.r,
                                  row.keyColor.g, row.keyColor.b, row.fillColor.r, row.fillColor.g, row.fillColor.b};
    EXPECT_THAT((std::vector{r.keyIntensity, r.fillIntensity, r.rimIntensity, r.environmentIntensity, r.shadowAlpha,
                             r.keyColor.r, r.keyColor.g, r.keyColor.b, r.fillColor.r, r.fillColor.g, r.fillColor.b}),
                ::testing::Pointwise(::testing::FloatEq(), expected));
    EXPECT_EQ(std::tuple(r.keyPosition, r.keyTarget, r.rimColor, r.keyCastsShadows),
              std::tuple(row.keyPosition, float3(0.0f, 0.1f, 0.0f), float3(0.9f, 1.0f, 0.95f), row.shadows));
  }
}

}  // namespace
}  // namespace velmora
