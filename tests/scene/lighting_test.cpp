// Lighting settings (presets, lookup, persistence, tint) and the light rig
// numbers derived from them.
#include <gtest/gtest.h>

#include <fstream>

#include "base/SettingsStore.h"
#include "scene/LightingRig.h"
#include "stage/LightingSettings.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

TEST(LightingSettingsTest, PresetsAreInOrderWithTheirValues) {
  const auto& names = LightingSettings::presetNames();
  ASSERT_EQ(names, (std::vector<std::string>{"Theatrical", "Soft Front", "Under Light", "Top Light",
                                             "Side Light", "Flat Even"}));
  EXPECT_EQ(LightingSettings{}, LightingSettings::theatrical());
  EXPECT_EQ(LightingSettings::customName, "Custom");

  const LightingSettings side = LightingSettings::presets()[4];
  EXPECT_EQ(side, (LightingSettings{"Side Light", 1.4, 0.2, 1.2, 0.4, 0.3, -2.0, 0.0, 0.85}));
  const LightingSettings flat = LightingSettings::presets()[5];
  EXPECT_EQ(flat, (LightingSettings{"Flat Even", 0.6, 3.0, 0.5, 3.0, 0.0, 0.0, 0.0, 0.0}));
  const LightingSettings theatrical = LightingSettings::theatrical();
  EXPECT_EQ(theatrical.keyHeight, -1.25);
  EXPECT_EQ(theatrical.keySide, 0.3);
  EXPECT_EQ(theatrical.shadow, 0.7);
}

TEST(LightingSettingsTest, EqualityComparesEveryField) {
  LightingSettings a;
  LightingSettings b;
  b.preset = LightingSettings::customName;
  EXPECT_NE(a, b);
  b = a;
  b.shadow = 0.71;
  EXPECT_NE(a, b);
  b = a;
  b.warmth = -0.0;  // -0 == 0 numerically
  EXPECT_EQ(a, b);
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
  for (const auto& [text, preset] : hits) {
    const auto found = LightingSettings::presetMatching(text);
    ASSERT_TRUE(found) << text;
    EXPECT_EQ(found->preset, preset) << text;
  }
  for (const char* miss : {"6", "-1", "+", "2.5", "99999999999999999999999", "", " - ", "Custom", "soft", "soft fronts"})
    EXPECT_FALSE(LightingSettings::presetMatching(miss)) << miss;
}

TEST(LightingSettingsTest, TintCoolNeutralWarm) {
  const float4 cool = tinted(1, 1, 1, -1);
  EXPECT_FLOAT_EQ(cool.r, 0.72f);
  EXPECT_FLOAT_EQ(cool.g, 0.9f);
  EXPECT_FLOAT_EQ(cool.b, 1.0f);
  EXPECT_EQ(cool.a, 1.0f);
  const float4 warm = tinted(1, 1, 1, 1);
  EXPECT_FLOAT_EQ(warm.r, 1.0f);
  EXPECT_FLOAT_EQ(warm.g, 0.82f);
  EXPECT_FLOAT_EQ(warm.b, 0.6f);
  EXPECT_EQ(warm.a, 1.0f);
  EXPECT_EQ(tinted(0.9f, 0.95f, 1.0f, 0.0), float4(0.9f, 0.95f, 1.0f, 1.0f));
  // The channels scale the given colour, not white.
  const float4 coolFill = tinted(0.9f, 0.95f, 1.0f, -0.5);
  EXPECT_FLOAT_EQ(coolFill.r, 0.9f * 0.86f);
  EXPECT_FLOAT_EQ(coolFill.g, 0.95f * 0.95f);
}

TEST(LightingSettingsTest, PersistenceRoundTrip) {
  test::TempDir dir;
  {
    SettingsStore store(dir.path());
    EXPECT_EQ(LightingSettings::load(store), LightingSettings::theatrical());  // nothing stored
    LightingSettings custom{LightingSettings::customName, 2.5, 0.1, 3.0, 1.7, 2.9, -2.75, -0.6, 0.011};
    custom.save(store);
    EXPECT_EQ(LightingSettings::load(store), custom);
  }
  SettingsStore reopened(dir.path());
  const LightingSettings loaded = LightingSettings::load(reopened);
  EXPECT_EQ(loaded.preset, "Custom");
  EXPECT_EQ(loaded.keySide, -2.75);
  EXPECT_EQ(loaded.shadow, 0.011);
  const auto stored = reopened.dictionary("lightingSettings");
  ASSERT_TRUE(stored);
  for (const char* field : {"preset", "key", "fill", "rim", "ambient", "keyHeight", "keySide", "warmth", "shadow"}) {
    EXPECT_TRUE(stored->contains(field)) << field;
  }
}

TEST(LightingSettingsTest, UndecodableStoredValueLoadsTheatrical) {
  test::TempDir dir;
  SettingsStore store(dir.path());
  LightingSettings soft = *LightingSettings::presetMatching("1");
  soft.save(store);
  auto good = *store.dictionary("lightingSettings");

  const std::vector<nlohmann::json> broken = {
      "Soft Front",
      nlohmann::json::array({1, 2, 3}),
      [&] { auto j = good; j.erase("rim"); return j; }(),
      [&] { auto j = good; j["key"] = "bright"; return j; }(),
      [&] { auto j = good; j["preset"] = 3; return j; }(),
      [&] { auto j = good; j["shadow"] = nullptr; return j; }(),
  };
  for (const auto& value : broken) {
    store.set("lightingSettings", value);
    EXPECT_EQ(LightingSettings::load(store), LightingSettings::theatrical()) << value.dump();
  }
  // Integers are numbers too; extra keys are ignored.
  auto integral = good;
  integral["fill"] = 2;
  integral["extra"] = true;
  store.set("lightingSettings", integral);
  EXPECT_EQ(LightingSettings::load(store), soft);
}

TEST(LightRigTest, InitialRigAndTheatricalAtMasterOne) {
  const LightRig initial = LightRig::initial();
  EXPECT_EQ(initial.keyIntensity, 31.0f);
  EXPECT_EQ(initial.fillIntensity, 90.0f);
  EXPECT_EQ(initial.rimIntensity, 160.0f);
  EXPECT_EQ(initial.environmentIntensity, 0.1f);
  EXPECT_EQ(initial.keyPosition, float3(0.3f, -1.25f, 3.0f));
  EXPECT_EQ(initial.keyTarget, float3(0.0f, 0.1f, 0.0f));
  EXPECT_EQ(initial.fillPosition, float3(-1.5f, 2.0f, 2.0f));
  EXPECT_EQ(initial.rimPosition, float3(0.0f, 3.0f, -1.0f));
  EXPECT_EQ(initial.fillColor, float3(0.9f, 0.95f, 1.0f));
  EXPECT_EQ(initial.rimColor, float3(0.9f, 1.0f, 0.95f));
  EXPECT_EQ(initial.shadowAlpha, 0.7f);
  EXPECT_TRUE(initial.keyCastsShadows);

  // The theatrical look is a little dimmer than the initial rig, placed and coloured alike.
  const LightRig rig = LightRig::applied(LightingSettings::theatrical(), 1.0f);
  EXPECT_FLOAT_EQ(rig.keyIntensity, 26.0f);
  EXPECT_FLOAT_EQ(rig.fillIntensity, 75.0f);
  EXPECT_FLOAT_EQ(rig.rimIntensity, 135.0f);
  EXPECT_FLOAT_EQ(rig.environmentIntensity, 0.08333f);
  EXPECT_EQ(rig.keyPosition, initial.keyPosition);
  EXPECT_EQ(rig.keyTarget, initial.keyTarget);
  EXPECT_EQ(rig.keyColor, float3(1.0f));
  EXPECT_EQ(rig.fillColor, initial.fillColor);
  EXPECT_FLOAT_EQ(rig.shadowAlpha, 0.7f);
  EXPECT_TRUE(rig.keyCastsShadows);
}

TEST(LightRigTest, SettingsAndMasterScaleTheLights) {
  LightingSettings s = *LightingSettings::presetMatching("side light");
  s.warmth = 1.0;
  const LightRig rig = LightRig::applied(s, 2.0f);
  EXPECT_FLOAT_EQ(rig.keyIntensity, 26.0f * 2.0f * 1.4f);
  EXPECT_FLOAT_EQ(rig.fillIntensity, 75.0f * 2.0f * 0.2f);
  EXPECT_FLOAT_EQ(rig.rimIntensity, 135.0f * 2.0f * 1.2f);
  EXPECT_FLOAT_EQ(rig.environmentIntensity, 0.08333f * 2.0f * 0.4f);
  EXPECT_EQ(rig.keyPosition, float3(-2.0f, 0.3f, 3.0f));
  EXPECT_FLOAT_EQ(rig.keyColor.g, 0.82f);
  EXPECT_FLOAT_EQ(rig.keyColor.b, 0.6f);
  EXPECT_FLOAT_EQ(rig.fillColor.g, 0.95f * 0.82f);
  EXPECT_FLOAT_EQ(rig.fillColor.b, 0.6f);
  EXPECT_EQ(rig.rimColor, float3(0.9f, 1.0f, 0.95f));  // rim ignores warmth
}

TEST(LightRigTest, ShadowThresholdAndMasterZero) {
  LightingSettings s;
  s.shadow = 0.01;
  EXPECT_FALSE(LightRig::applied(s, 1.0f).keyCastsShadows);
  s.shadow = 0.011;
  EXPECT_TRUE(LightRig::applied(s, 1.0f).keyCastsShadows);
  EXPECT_FLOAT_EQ(LightRig::applied(s, 1.0f).shadowAlpha, 0.011f);

  const LightRig dark = LightRig::applied(*LightingSettings::presetMatching("Flat Even"), 0.0f);
  EXPECT_EQ(dark.keyIntensity, 0.0f);
  EXPECT_EQ(dark.fillIntensity, 0.0f);
  EXPECT_EQ(dark.rimIntensity, 0.0f);
  EXPECT_EQ(dark.environmentIntensity, 0.0f);
  EXPECT_FALSE(dark.keyCastsShadows);  // Flat Even has shadow 0
}

}  // namespace
}  // namespace velmora
