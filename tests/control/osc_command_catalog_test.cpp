#include "control/OSCCommandCatalog.h"

// Index of this file:
//   [SECTION] The table and its texts
//   [SECTION] Calibration & Tracking
//   [SECTION] Lighting
//   [SECTION] Cues
//   [SECTION] Bad input on every command

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <limits>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "animation/CharacterAnimationController.h"
#include "base/Clock.h"
#include "base/Log.h"
#include "base/SettingsStore.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

using K = AnimationCue::Kind;
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

OSCMessage msg(std::string address, std::vector<OSCArgument> args = {}) {
  return OSCMessage{std::move(address), std::move(args)};
}

class CatalogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FaceTrackingState& s = state();
    s.resetCalibration();
    s.setGlobalSensitivity(1.0f);
    s.setSmoothing(0.45f);
    s.setMaskOpacity(1.0f);
    s.setLightIntensity(1.2f);
    s.setLighting(LightingSettings::theatrical());
    s.setCharacterModel(CharacterModelType::theatricalMask);
    s.setLockRotation(false);
    s.setIsSyphonActive(true);
    s.setIsNDIActive(false);
    s.setIsOSCEnabled(true);
    controller().reset(false, uptime());
    setLogSink([this](const std::string& line) { log.push_back(line); });
  }
  void TearDown() override { setLogSink({}); }

  static FaceTrackingState& state() { return FaceTrackingState::shared(); }
  static CharacterAnimationController& controller() { return CharacterAnimationController::shared(); }
  static bool dispatch(std::string address, std::vector<OSCArgument> args = {}) {
    static CommandContext context{state(), controller(), [] { return uptime(); }};
    return OSCCommandCatalog::dispatch(msg(std::move(address), std::move(args)), context);
  }

  std::vector<std::string> log;
};

// ---------------------------------------------------------------------------
// [SECTION] The table and its texts
// ---------------------------------------------------------------------------

TEST_F(CatalogTest, TableOrderGroupsAndSpotChecksOfExactTexts) {
  const auto& all = OSCCommandCatalog::all();
  ASSERT_EQ(all.size(), 45u);
  EXPECT_EQ(OSCCommandCatalog::groups(),
            (std::vector<std::string>{"Calibration & Tracking", "Output", "Lighting",
                                      "Ghost Animations (Cartoon Ghost)", "Mask Gestures (Theatrical Mask)",
                                      "Replies & Following"}));
  const std::size_t sizes[] = {8, 4, 11, 9, 8, 5};
  std::size_t next = 0;
  for (std::size_t g = 0; g < 6; ++g) {
    const auto members = OSCCommandCatalog::commands(OSCCommandCatalog::groups()[g]);
    ASSERT_EQ(members.size(), sizes[g]);
    for (const OSCCommand* c : members) {
      EXPECT_EQ(c, &all[next++]);  // table order
      EXPECT_EQ(c->group, OSCCommandCatalog::groups()[g]);
    }
  }
  EXPECT_TRUE(OSCCommandCatalog::commands("lighting").empty());  // exact title only
  std::set<std::string> addresses;
  for (const OSCCommand& c : all) {
    EXPECT_EQ(c.id(), c.address);
    EXPECT_FALSE(c.summary.empty()) << c.address;
    EXPECT_TRUE(c.action) << c.address;
    addresses.insert(c.address);
  }
  EXPECT_EQ(addresses.size(), 45u);

  const std::string dash = "\xE2\x80\x93";  // en dash
  const std::vector<std::tuple<std::size_t, const char*, std::string>> spots = {
      {0, "/velmora/recentre", "none"},
      {2, "/velmora/sensitivity", "float 0.1 " + dash + " 5.0"},
      {4, "/velmora/lockrotation", "1 or 0"},
      {5, "/velmora/model", "theatrical_mask or cartoon_ghost (or 0 / 1)"},
      {9, "/velmora/syphon", "1 or 0 (none = toggle)"},
      {13, "/velmora/lighting/preset", "int 0 " + dash + " 5, or name"},
      {18, "/velmora/lighting/keyheight", "float -3.0 " + dash + " 3.0"},
      {22, "/velmora/lighting/reset", "none"},
      {23, "/velmora/ghost/flyin", "none or float duration (default 2.5s)"},
      {31, "/velmora/ghost/reset", "none"},
      {38, "/velmora/mask/glare", "none or float duration (default 2.2s)"},
      {39, "/velmora/mask/reset", "none"},
  };
  for (const auto& [index, address, arguments] : spots) {
    EXPECT_EQ(all[index].address, address);
    EXPECT_EQ(all[index].arguments, arguments) << address;
  }
  EXPECT_EQ(all[13].summary,
            "Load a lighting look: 0 Theatrical, 1 Soft Front, 2 Under Light, 3 Top Light, 4 Side Light, "
            "5 Flat Even.");
  EXPECT_EQ(all[26].summary,
            "Ghost performs a 360\xC2\xB0 pirouette spin while floating, smoothly re-aligning with live head "
            "rotation.");
  EXPECT_EQ(all[5].summary, "Switch active 3D character avatar: 'theatrical_mask' (0) or 'cartoon_ghost' (1).");
}

TEST_F(CatalogTest, TableMapsEveryAddressAndAliasLowerCasedWithLaterInsertionsWinning) {
  std::map<std::string, const OSCCommand*> expected;
  for (const OSCCommand& c : OSCCommandCatalog::all()) {
    expected[c.address] = &c;
    for (const auto& alias : c.aliases) {
      EXPECT_TRUE(std::none_of(alias.begin(), alias.end(), ::isupper)) << alias;
      expected[alias] = &c;
    }
  }
  EXPECT_EQ(OSCCommandCatalog::table(), (std::unordered_map<std::string, const OSCCommand*>(expected.begin(), expected.end())));
  EXPECT_EQ(OSCCommandCatalog::find("/zero")->address, "/velmora/recentre");
  EXPECT_EQ(OSCCommandCatalog::find("/lighting/colour")->address, "/velmora/lighting/warmth");
  EXPECT_EQ(OSCCommandCatalog::find("/osc/enable")->address, "/velmora/osc");
  EXPECT_EQ(OSCCommandCatalog::find("/velmora/mask")->address, "/velmora/theatricalmask");
}

TEST_F(CatalogTest, AddressMatchingIsCaseInsensitiveAndExact) {
  EXPECT_TRUE(dispatch("/VELMORA/RECENTRE"));
  EXPECT_TRUE(state().isCalibrated());
  state().resetCalibration();
  EXPECT_TRUE(dispatch("/Zero"));
  EXPECT_TRUE(state().isCalibrated());
  state().resetCalibration();
  log.clear();
  for (const char* miss : {"/velmora/recentre/", " /velmora/recentre", "/velmora/recentre ", "/velmora/*", "",
                           "velmora/recentre", "/velmora//recentre"}) {
    EXPECT_FALSE(dispatch(miss)) << '"' << miss << '"';
  }
  EXPECT_FALSE(state().isCalibrated());
  EXPECT_TRUE(log.empty());
}

TEST_F(CatalogTest, DispatchLogsTheCanonicalAddressAndArguments) {
  ASSERT_TRUE(dispatch("/zero"));
  ASSERT_TRUE(dispatch("/Sensitivity", {2.5f}));
  ASSERT_TRUE(dispatch("/lighting/preset", {std::string("Top Light")}));
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[0], "[OSC] /velmora/recentre []");
  EXPECT_EQ(log[1], "[OSC] /velmora/sensitivity [2.5]");
  EXPECT_EQ(log[2], "[OSC] /velmora/lighting/preset [\"Top Light\"]");
  EXPECT_FALSE(dispatch("/velmora/nothing", {1.0f}));
  EXPECT_EQ(log.size(), 3u);
}

// ---------------------------------------------------------------------------
// [SECTION] Calibration & Tracking
// ---------------------------------------------------------------------------

TEST_F(CatalogTest, ResetRestoresDefaultsAndStopsTheCueAtOnce) {
  dispatch("/velmora/recentre");
  state().setGlobalSensitivity(3.0f);
  state().setSmoothing(0.9f);
  state().setMaskOpacity(0.2f);
  controller().trigger(AnimationCue::make(K::maskBow, 2.5), uptime());
  ASSERT_TRUE(dispatch("/reset"));
  EXPECT_FALSE(state().isCalibrated());
  EXPECT_EQ(state().globalSensitivity(), 1.0f);
  EXPECT_EQ(state().smoothing(), 0.45f);
  EXPECT_NEAR(state().rotationFilter().x().minCutoff, 1.65f, 1e-5f);
  EXPECT_EQ(state().maskOpacity(), 1.0f);
  EXPECT_FALSE(controller().activeCue());
  EXPECT_FALSE(controller().isPlaying());  // no fade
  EXPECT_FALSE(controller().isFadingOut());
}

TEST_F(CatalogTest, NumberCommandsClampAndIgnoreUnusableArguments) {
  struct Case {
    const char* address;
    float (FaceTrackingState::*get)() const;
    void (FaceTrackingState::*set)(float);
    float start;
    std::vector<std::pair<OSCArgument, float>> cases;
  };
  const std::vector<Case> commands = {
      {"/velmora/sensitivity", &FaceTrackingState::globalSensitivity, &FaceTrackingState::setGlobalSensitivity, 1.7f,
       {{7.5f, 5.0f}, {0.05f, 0.1f}, {0.1f, 0.1f}, {5.0f, 5.0f}, {2.25f, 2.25f}, {std::int32_t(3), 3.0f},
        {1.5, 1.5f}, {-4.0f, 0.1f}, {kInf, 5.0f}, {-kInf, 0.1f}, {1e30f, 5.0f}}},
      {"/smoothing", &FaceTrackingState::smoothing, &FaceTrackingState::setSmoothing, 0.25f,
       {{1.5f, 1.0f}, {-0.3f, 0.0f}, {0.25f, 0.25f}}},
      {"/opacity", &FaceTrackingState::maskOpacity, &FaceTrackingState::setMaskOpacity, 0.5f,
       {{-1.0f, 0.0f}, {0.4f, 0.4f}, {1.0f, 1.0f}, {3.0f, 1.0f}, {kInf, 1.0f}, {std::int32_t(0), 0.0f}}},
      {"/lighting", &FaceTrackingState::lightIntensity, &FaceTrackingState::setLightIntensity, 1.2f,
       {{-2.0f, 0.0f}, {2.5f, 2.5f}, {5.0f, 5.0f}, {9.0f, 5.0f}, {1e30f, 5.0f}, {-kInf, 0.0f}}},
  };
  for (const Case& c : commands) {
    SCOPED_TRACE(c.address);
    for (const auto& [arg, expected] : c.cases) {
      (state().*c.set)(c.start);
      ASSERT_TRUE(dispatch(c.address, {arg}));
      EXPECT_EQ((state().*c.get)(), expected) << arg.printed();
    }
    (state().*c.set)(c.start);
    for (const OSCArgument& unusable : {OSCArgument("2"), OSCArgument(""), OSCArgument(true), OSCArgument(kNaN)}) {
      EXPECT_TRUE(dispatch(c.address, {unusable}));
      EXPECT_EQ((state().*c.get)(), c.start) << unusable.printed();
    }
    EXPECT_TRUE(dispatch(c.address));
    EXPECT_EQ((state().*c.get)(), c.start);
  }
}

TEST_F(CatalogTest, LockRotationTakesBooleansAndNumbers) {
  // Unusable arguments (text, NaN, none) keep the last value.
  const std::vector<std::pair<std::vector<OSCArgument>, bool>> steps = {
      {{true}, true}, {{0.5f}, false} /* not above 0.5 */, {{std::int32_t(1)}, true}, {{"0"}, true},
      {{kNaN}, true}, {{}, true},                            {{false}, false}};
  for (const auto& [args, expected] : steps) {
    dispatch("/velmora/lockrotation", args);
    EXPECT_EQ(state().lockRotation(), expected) << msg("", args).printedArguments();
  }
}

TEST_F(CatalogTest, ModelCommandTextAndNumberRules) {
  const auto ghost = CharacterModelType::cartoonGhost, mask = CharacterModelType::theatricalMask;
  const std::vector<std::pair<OSCArgument, std::optional<CharacterModelType>>> cases = {
      {"cartoon_ghost", ghost}, {"GHOST", ghost}, {"my Ghostly mask", ghost}, {"theatrical_mask", mask},
      {"MASK", mask},           {"Theatre", mask}, {"robot", std::nullopt},   {"", std::nullopt},
      {"1", std::nullopt},  // text is never read as a number
      {std::int32_t(1), ghost}, {std::int32_t(0), mask}, {std::int32_t(2), mask}, {std::int32_t(-1), mask},
      {1.9f, ghost},            {1.0, ghost},            {0.99f, mask},          {-0.5f, mask},
      {1e30f, mask},            {kNaN, std::nullopt},    {kInf, std::nullopt},   {-kInf, std::nullopt},
      {true, std::nullopt},
  };
  for (const auto& [arg, expected] : cases) {
    for (CharacterModelType start : {mask, ghost}) {
      state().setCharacterModel(start);
      ASSERT_TRUE(dispatch(start == mask ? "/velmora/model" : "/character", {arg}));
      EXPECT_EQ(state().characterModel(), expected.value_or(start)) << arg.printed();
    }
  }
}

TEST_F(CatalogTest, ModelCommandsRunTheModelChangeHandlingEvenWhenUnchanged) {
  int notifications = 0;
  const int token = state().observe([&](FaceTrackingState::Property p) {
    notifications += p == FaceTrackingState::Property::characterModel;
  });
  SettingsStore::shared().remove("characterModel");
  dispatch("/velmora/model", {std::string("mask")});  // already the mask: still handled and saved
  EXPECT_EQ(notifications, 1);
  SettingsStore::shared().reload();
  EXPECT_EQ(SettingsStore::shared().string("characterModel"), "theatrical_mask");
  dispatch("/velmora/ghost");
  dispatch("/ghost");
  EXPECT_EQ(notifications, 3);
  EXPECT_EQ(state().characterModel(), CharacterModelType::cartoonGhost);
  dispatch("/velmora/mask");
  EXPECT_EQ(state().characterModel(), CharacterModelType::theatricalMask);
  dispatch("/velmora/model");  // no argument: nothing
  EXPECT_EQ(notifications, 4);  // the mask command only, not the empty model command
  state().unobserve(token);
}

TEST_F(CatalogTest, TogglesInvertWithoutABooleanAndSetOtherwise) {
  struct Toggle {
    const char* address;
    bool (FaceTrackingState::*get)() const;
  };
  for (const Toggle& t : {Toggle{"/velmora/syphon", &FaceTrackingState::isSyphonActive},
                          Toggle{"/ndi", &FaceTrackingState::isNDIActive},
                          Toggle{"/osc/enable", &FaceTrackingState::isOSCEnabled}}) {
    SCOPED_TRACE(t.address);
    auto value = [&] { return (state().*t.get)(); };
    const bool start = value();
    dispatch(t.address);
    EXPECT_EQ(value(), !start);
    dispatch(t.address);
    EXPECT_EQ(value(), start);
    dispatch(t.address, {std::string("1")});  // text: toggle
    EXPECT_EQ(value(), !start);
    // 0.5 is not above 0.5.
    const std::vector<std::pair<OSCArgument, bool>> sets = {
        {std::int32_t(1), true}, {std::int32_t(0), false}, {0.51f, true}, {0.5f, false}, {true, true}, {true, true}};
    for (const auto& [arg, expected] : sets) {
      dispatch(t.address, {arg});
      EXPECT_EQ(value(), expected) << arg.printed();
    }
  }
  dispatch("/osc", {false});
  EXPECT_EQ(state().oscStatus(), "OSC cues: disabled");
}

// ---------------------------------------------------------------------------
// [SECTION] Lighting
// ---------------------------------------------------------------------------

TEST_F(CatalogTest, PresetByIndexRoundedNumberAndName) {
  const auto& presets = LightingSettings::presets();
  const std::vector<std::pair<OSCArgument, std::size_t>> cases = {
      {std::int32_t(2), 2},       {1.5f, 2},  // 1.5 rounds away from zero to "2"
      {1.4f, 1},                  {2.5, 3},   {4.6f, 5}, {-0.4f, 0},
      {std::string("+4"), 4},     {std::string("FLAT-EVEN"), 5},  // text: as the lighting lookup reads it
  };
  for (const auto& [arg, index] : cases) {
    state().setLighting(presets[index == 0 ? 1 : 0]);
    ASSERT_TRUE(dispatch("/lighting/preset", {arg}));
    EXPECT_EQ(state().lighting(), presets[index]) << arg.printed();
  }
  // Saved in the settings store.
  SettingsStore::shared().reload();
  EXPECT_EQ(LightingSettings::load(SettingsStore::shared()), presets[5]);

  const std::vector<OSCArgument> misses = {std::int32_t(6), -0.6f, std::string("Custom"), kNaN, kInf, -kInf,
                                           3.0e38f,         true,  std::int32_t(-1)};
  for (const OSCArgument& arg : misses) {
    state().setLighting(presets[4]);
    ASSERT_TRUE(dispatch("/velmora/lighting/preset", {arg}));
    EXPECT_EQ(state().lighting(), presets[4]) << arg.printed();
  }
  dispatch("/velmora/lighting/preset");
  EXPECT_EQ(state().lighting(), presets[4]);
}

TEST_F(CatalogTest, LightCommandsClampIntoTheirFieldAndSave) {
  struct Case {
    const char* address;
    OSCArgument arg;
    double LightingSettings::*field;
    double expected;
  };
  const std::vector<Case> cases = {
      {"/velmora/lighting/key", 10.0f, &LightingSettings::key, 3.0},
      {"/lighting/key", -1.0f, &LightingSettings::key, 0.0},
      {"/lighting/fill", 2.5f, &LightingSettings::fill, 2.5},
      {"/lighting/rim", 4.0f, &LightingSettings::rim, 3.0},
      {"/lighting/ambient", std::int32_t(2), &LightingSettings::ambient, 2.0},
      {"/lighting/keyheight", -5.0f, &LightingSettings::keyHeight, -3.0},
      {"/lighting/keyside", 3.5f, &LightingSettings::keySide, 3.0},
      {"/lighting/keyside", -kInf, &LightingSettings::keySide, -3.0},
      {"/lighting/warmth", -2.0f, &LightingSettings::warmth, -1.0},
      {"/lighting/color", kInf, &LightingSettings::warmth, 1.0},
      {"/velmora/lighting/colour", 0.5f, &LightingSettings::warmth, 0.5},
      {"/lighting/shadow", 1.5f, &LightingSettings::shadow, 1.0},
      {"/lighting/shadow", 0.25, &LightingSettings::shadow, 0.25},
  };
  for (const Case& c : cases) {
    state().setLighting(LightingSettings::theatrical());
    ASSERT_TRUE(dispatch(c.address, {c.arg}));
    LightingSettings expected = LightingSettings::theatrical();
    expected.*(c.field) = c.expected;
    EXPECT_EQ(state().lighting(), expected) << c.address << " " << c.arg.printed();
    SettingsStore::shared().reload();
    EXPECT_EQ(LightingSettings::load(SettingsStore::shared()), expected) << c.address;
  }
  // The float is widened to double: 0.65f, not 0.65.
  dispatch("/lighting/colour", {0.65f});
  EXPECT_EQ(state().lighting().warmth, static_cast<double>(0.65f));

  state().setLighting(LightingSettings::theatrical());
  for (const OSCArgument& unusable : {OSCArgument(kNaN), OSCArgument("2"), OSCArgument(true)}) {
    dispatch("/lighting/key", {unusable});
    EXPECT_EQ(state().lighting(), LightingSettings::theatrical()) << unusable.printed();
  }
  dispatch("/lighting/key");
  EXPECT_EQ(state().lighting(), LightingSettings::theatrical());
}

TEST_F(CatalogTest, LightingResetRestoresTheTheatricalLookAndMaster) {
  dispatch("/lighting/preset", {std::int32_t(5)});
  dispatch("/lighting", {3.0f});
  ASSERT_TRUE(dispatch("/lighting/reset"));
  EXPECT_EQ(state().lighting(), LightingSettings::theatrical());
  EXPECT_EQ(state().lightIntensity(), 1.2f);
  SettingsStore::shared().reload();
  EXPECT_EQ(LightingSettings::load(SettingsStore::shared()), LightingSettings::theatrical());
}

// ---------------------------------------------------------------------------
// [SECTION] Cues
// ---------------------------------------------------------------------------

TEST_F(CatalogTest, CueCommandsStartTheirCueWithTheDefaultDurationOnTheirCharacter) {
  const std::vector<std::pair<const char*, AnimationCue>> cues = {
      {"/velmora/ghost/flyin", AnimationCue::make(K::ghostFlyIn, 2.5)},
      {"/ghost/out", AnimationCue::make(K::ghostFlyOut, 2.2)},
      {"/ghost/boo", AnimationCue::make(K::ghostSpook, 1.8)},
      {"/ghost/pirouette", AnimationCue::make(K::ghostSpin, 2.0)},
      {"/velmora/ghost/float", AnimationCue::make(K::ghostWobble, 2.4)},
      {"/ghost/peek", AnimationCue::make(K::ghostPeek, 2.8)},
      {"/ghost/chuckle", AnimationCue::make(K::ghostLaugh, 2.2)},
      {"/ghost/scared", AnimationCue::make(K::ghostShiver, 2.0)},
      {"/bow", AnimationCue::make(K::maskBow, 2.5)},
      {"/gasp", AnimationCue::make(K::maskGasp, 1.8)},
      {"/velmora/nod", AnimationCue::make(K::maskNod, 1.6)},
      {"/shake", AnimationCue::make(K::maskShake, 1.6)},
      {"/velmora/laugh", AnimationCue::make(K::maskLaugh, 2.4)},
      {"/mask/weep", AnimationCue::make(K::maskSob, 2.6)},
      {"/mask/scowl", AnimationCue::make(K::maskGlare, 2.2)},
  };
  for (const auto& [address, cue] : cues) {
    SCOPED_TRACE(address);
    const bool ghost = AnimationCue::isGhostCue(cue.kind);
    EXPECT_EQ(AnimationCue::character(cue.kind),
              ghost ? CharacterModelType::cartoonGhost : CharacterModelType::theatricalMask);
    // Start on the other character: the command switches first.
    state().setCharacterModel(ghost ? CharacterModelType::theatricalMask : CharacterModelType::cartoonGhost);
    ASSERT_TRUE(dispatch(address));
    EXPECT_EQ(state().characterModel(), AnimationCue::character(cue.kind));
    ASSERT_TRUE(controller().activeCue());
    EXPECT_EQ(*controller().activeCue(), cue);
    EXPECT_EQ(controller().activeCueName(), cue.name());
  }
}

TEST_F(CatalogTest, CueDurationsArePassedUnclamped) {
  dispatch("/velmora/ghost/flyin", {4.0f});
  EXPECT_EQ(*controller().activeCue(), AnimationCue::make(K::ghostFlyIn, 4.0));
  dispatch("/velmora/ghost/flyin", {0.0f});
  EXPECT_EQ(controller().activeCue()->requestedDuration, 0.0);
  dispatch("/mask/gasp", {std::int32_t(-3)});
  EXPECT_EQ(*controller().activeCue(), AnimationCue::make(K::maskGasp, -3.0));
  dispatch("/mask/gasp", {kNaN});
  EXPECT_TRUE(std::isnan(controller().activeCue()->requestedDuration));
  dispatch("/mask/gasp", {std::string("3")});  // text: the default
  EXPECT_EQ(*controller().activeCue(), AnimationCue::make(K::maskGasp, 1.8));
  dispatch("/mask/nod", {1e30f});
  EXPECT_EQ(controller().activeCue()->requestedDuration, static_cast<double>(1e30f));
  EXPECT_EQ(controller().sample(uptime() + 1).blendWeight, 0.0f);  // sampling such a cue is harmless
}

TEST_F(CatalogTest, StopCommandsFadeOutWithoutChangingTheModel) {
  for (const char* stop : {"/velmora/ghost/reset", "/ghost/stop", "/velmora/mask/reset", "/mask/stop"}) {
    SCOPED_TRACE(stop);
    dispatch("/ghost/spin");
    controller().sample(uptime());
    ASSERT_TRUE(dispatch(stop));
    EXPECT_FALSE(controller().activeCue());
    EXPECT_EQ(controller().activeCueName(), "Idle");
    EXPECT_TRUE(controller().isFadingOut());
    EXPECT_EQ(state().characterModel(), CharacterModelType::cartoonGhost);
  }
  controller().reset(false, uptime());
  ASSERT_TRUE(dispatch("/mask/stop"));  // nothing playing: no fade
  EXPECT_FALSE(controller().isFadingOut());
}

// ---------------------------------------------------------------------------
// [SECTION] Bad input on every command
// ---------------------------------------------------------------------------

TEST_F(CatalogTest, HostileArgumentsOnEveryCommandKeepTheStateFiniteAndInRange) {
  const double dNaN = std::numeric_limits<double>::quiet_NaN();
  const std::vector<std::vector<OSCArgument>> hostile = {
      {},
      {kNaN},
      {kInf},
      {-kInf},
      {3.4e38f},
      {-3.4e38f},
      {-0.0f},
      {dNaN},
      {1e308},
      {std::numeric_limits<std::int32_t>::max()},
      {std::numeric_limits<std::int32_t>::min()},
      {std::string("")},
      {std::string(5000, 'g')},
      {std::string("\xE2\x80\x93")},
      {false},
      {kNaN, 1.0f, std::string("x")},
  };
  auto inRange = [](double v, double lo, double hi) { return std::isfinite(v) && v >= lo && v <= hi; };
  for (const OSCCommand& command : OSCCommandCatalog::all()) {
    for (const auto& args : hostile) {
      const std::string where = command.address + " " + msg("", args).printedArguments().substr(0, 40);
      ASSERT_TRUE(dispatch(command.address, args)) << where;
      const FaceTrackingState& s = state();
      EXPECT_TRUE(inRange(s.globalSensitivity(), 0.1, 5.0)) << where;
      EXPECT_TRUE(inRange(s.smoothing(), 0, 1)) << where;
      EXPECT_TRUE(inRange(s.maskOpacity(), 0, 1)) << where;
      EXPECT_TRUE(inRange(s.lightIntensity(), 0, 5)) << where;
      const LightingSettings& l = s.lighting();
      for (double v : {l.key, l.fill, l.rim, l.ambient}) EXPECT_TRUE(inRange(v, 0, 3)) << where;
      for (double v : {l.keyHeight, l.keySide}) EXPECT_TRUE(inRange(v, -3, 3)) << where;
      EXPECT_TRUE(inRange(l.warmth, -1, 1)) << where;
      EXPECT_TRUE(inRange(l.shadow, 0, 1)) << where;
      const AnimationOutput o = controller().sample(uptime());
      for (float v : {o.positionOffset.x, o.positionOffset.y, o.positionOffset.z, o.rotationOffset.x,
                      o.rotationOffset.y, o.rotationOffset.z, o.scaleMultiplier.x, o.opacityMultiplier,
                      o.blendWeight}) {
        EXPECT_TRUE(std::isfinite(v)) << where;
      }
    }
  }
}

}  // namespace
}  // namespace velmora
