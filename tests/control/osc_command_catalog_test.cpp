#include "control/OSCCommandCatalog.h"

// Index of this file:
//   [SECTION] The table and its texts
//   [SECTION] Calibration & Tracking, Output, Lighting
//   [SECTION] Cues
//   [SECTION] Bad input on every command

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "animation/CharacterAnimationController.h"
#include "base/Clock.h"
#include "support/LogCapture.h"
#include "support/StateFixture.h"

namespace velmora {
namespace {

using K = AnimationCue::Kind;
using S = const FaceTrackingState&;
const float kNaN = std::numeric_limits<float>::quiet_NaN();
const float kInf = std::numeric_limits<float>::infinity();

// Each test on a fresh state (default values, its own settings folder) and cue player.
class CatalogTest : public ::testing::Test, protected test::StateFixture {
 protected:
  bool dispatch(std::string address, std::vector<OSCArgument> args = {}) {
    return OSCCommandCatalog::dispatch(OSCMessage{std::move(address), std::move(args)}, context);
  }

  CharacterAnimationController cues;
  CommandContext context{state, cues, [] { return uptime(); }};
  test::LogCapture log;
};

// Every command that sets a number: its range and a value inside it.
struct Range {
  const char* address;
  std::function<double(S)> get;
  double lo, hi, inside;
};

std::function<double(S)> light(double LightingSettings::*field) {
  return [field](S s) { return s.lighting().*field; };
}

const std::vector<Range> kRanges = {
    {"/velmora/sensitivity", [](S s) { return s.globalSensitivity(); }, 0.1, 5.0, 2.25},
    {"/smoothing", [](S s) { return s.smoothing(); }, 0, 1, 0.25},
    {"/opacity", [](S s) { return s.maskOpacity(); }, 0, 1, 0.5},
    {"/lighting", [](S s) { return s.lightIntensity(); }, 0, 5, 2.5},
    {"/lighting/key", light(&LightingSettings::key), 0, 3, 2.5},
    {"/lighting/fill", light(&LightingSettings::fill), 0, 3, 0.5},
    {"/lighting/rim", light(&LightingSettings::rim), 0, 3, 1.5},
    {"/lighting/ambient", light(&LightingSettings::ambient), 0, 3, 2.0},
    {"/lighting/keyheight", light(&LightingSettings::keyHeight), -3, 3, -2.5},
    {"/lighting/keyside", light(&LightingSettings::keySide), -3, 3, 1.25},
    {"/lighting/colour", light(&LightingSettings::warmth), -1, 1, 0.5},
    {"/lighting/shadow", light(&LightingSettings::shadow), 0, 1, 0.75},
};

// ---------------------------------------------------------------------------
// [SECTION] The table and its texts
// ---------------------------------------------------------------------------

TEST_F(CatalogTest, TableOrderGroupsAndSpotChecksOfExactTexts) {
  const auto& all = OSCCommandCatalog::all();
  ASSERT_EQ(all.size(), 46u);
  EXPECT_EQ(OSCCommandCatalog::groups(),
            (std::vector<std::string>{"Calibration & Tracking", "Output", "Lighting",
                                      "Ghost Animations (Cartoon Ghost)", "Mask Gestures (Theatrical Mask)",
                                      "Character Files", "Replies & Following"}));
  // Each group's commands lie together, in the groups' order.
  const std::size_t sizes[] = {8, 4, 11, 9, 8, 1, 5};
  std::size_t next = 0;
  for (std::size_t g = 0; g < 7; ++g) {
    const auto members = OSCCommandCatalog::commands(OSCCommandCatalog::groups()[g]);
    ASSERT_EQ(members.size(), sizes[g]);
    for (const OSCCommand* c : members) EXPECT_EQ(c, &all[next++]);
  }
  // Every address and alias finds its own command (so none is taken twice).
  for (const OSCCommand& c : all) {
    EXPECT_TRUE(!c.summary.empty() && c.action) << c.address;
    EXPECT_EQ(OSCCommandCatalog::find(c.address), &c) << c.address;
    for (const auto& alias : c.aliases) EXPECT_EQ(OSCCommandCatalog::find(alias), &c) << alias;
  }
  EXPECT_EQ(OSCCommandCatalog::find("/zero")->address, "/velmora/recentre");
  EXPECT_EQ(OSCCommandCatalog::find("/lighting/colour")->address, "/velmora/lighting/warmth");
  EXPECT_EQ(OSCCommandCatalog::find("/osc/enable")->address, "/velmora/osc");
  EXPECT_EQ(OSCCommandCatalog::find("/velmora/mask")->address, "/velmora/theatricalmask");

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
  for (const auto& [index, address, arguments] : spots)
    EXPECT_EQ(std::pair(all[index].address, all[index].arguments), std::pair(std::string(address), arguments));
  EXPECT_EQ(all[13].summary,
            "Load a lighting look: 0 Theatrical, 1 Soft Front, 2 Under Light, 3 Top Light, 4 Side Light, "
            "5 Flat Even.");
  EXPECT_EQ(all[26].summary,
            "Ghost performs a 360\xC2\xB0 pirouette spin while floating, smoothly re-aligning with live head "
            "rotation.");
  EXPECT_EQ(all[5].summary, "Switch active 3D character avatar: 'theatrical_mask' (0) or 'cartoon_ghost' (1).");
}

// Matching ignores case and nothing else; a dispatch logs the canonical address.
TEST_F(CatalogTest, AddressMatchingIsCaseInsensitiveExactAndLogged) {
  for (const char* recentre : {"/VELMORA/RECENTRE", "/Zero"}) {
    EXPECT_TRUE(dispatch(recentre) && state.isCalibrated()) << recentre;
    state.resetCalibration();
  }
  ASSERT_TRUE(dispatch("/Sensitivity", {2.5f}));
  ASSERT_TRUE(dispatch("/lighting/preset", {std::string("Top Light")}));
  for (const char* miss : {"/velmora/recentre/", " /velmora/recentre", "/velmora/recentre ", "/velmora/*", "",
                           "velmora/recentre", "/velmora//recentre", "/velmora/nothing"}) {
    EXPECT_FALSE(dispatch(miss, {1.0f})) << '"' << miss << '"';
  }
  EXPECT_FALSE(state.isCalibrated());
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"[OSC] /velmora/recentre []", "[OSC] /velmora/recentre []",
                                           "[OSC] /velmora/sensitivity [2.5]",
                                           "[OSC] /velmora/lighting/preset [\"Top Light\"]"}));
}

// ---------------------------------------------------------------------------
// [SECTION] Calibration & Tracking, Output, Lighting
// ---------------------------------------------------------------------------

TEST_F(CatalogTest, ResetCommandsRestoreDefaultsAndStopTheCueAtOnce) {
  dispatch("/velmora/recentre");
  state.setGlobalSensitivity(3.0f);
  state.setSmoothing(0.9f);
  state.setMaskOpacity(0.2f);
  cues.trigger(AnimationCue::make(K::maskBow, 2.5), uptime());
  ASSERT_TRUE(dispatch("/reset"));
  EXPECT_EQ(std::tuple(state.isCalibrated(), state.globalSensitivity(), state.smoothing(), state.maskOpacity()),
            std::tuple(false, 1.0f, 0.45f, 1.0f));
  EXPECT_NEAR(state.rotationFilter().x().minCutoff, 1.65f, 1e-5f);
  EXPECT_FALSE(cues.activeCue() || cues.isFadingOut());  // at once, no fade
  // The lighting reset restores the theatrical look and master (that the state
  // saves every look: TrackingSettingsTest.SettingsSurviveARestart...).
  dispatch("/lighting/preset", {std::int32_t(5)});
  dispatch("/lighting", {3.0f});
  ASSERT_TRUE(dispatch("/lighting/reset"));
  EXPECT_EQ(std::pair(state.lighting(), state.lightIntensity()), std::pair(LightingSettings::theatrical(), 1.2f));
}

// Numbers clamp into the command's range, infinities to its ends; NaN and no
// argument keep the value. Which arguments read as a
// number (int, double, not text or booleans) is the message accessors'
// (OSCMessageTest.AccessorsAndPrintedArguments).
TEST_F(CatalogTest, NumbersClampIntoTheirRangeAndNaNOrNoneKeepTheValue) {
  for (const Range& r : kRanges) {
    SCOPED_TRACE(r.address);
    const std::pair<std::vector<OSCArgument>, double> steps[] = {
        {{float(r.lo - 1)}, r.lo},     {{kNaN}, r.lo},   {{float(r.hi + 1)}, r.hi}, {{}, r.hi},
        {{float(r.inside)}, r.inside}, {{-kInf}, r.lo}, {{kInf}, r.hi}};
    for (const auto& [args, expected] : steps) {
      ASSERT_TRUE(dispatch(r.address, args));
      EXPECT_EQ(float(r.get(state)), float(expected)) << OSCMessage{"", args}.printedArguments();
    }
  }
}

// One value of the state as a number: switches 0/1, the model 0 mask and
// 1 ghost, the preset its index (-1 for none).
struct Field {
  std::function<double(S)> get;
  std::function<void(FaceTrackingState&, double)> set;
};

Field flag(bool (FaceTrackingState::*get)() const, void (FaceTrackingState::*set)(bool)) {
  return {[=](S s) { return double((s.*get)()); }, [=](FaceTrackingState& s, double v) { (s.*set)(v != 0); }};
}

TEST_F(CatalogTest, SwitchesModelAndPresetFollowTheirArgumentOrKeepTheValue) {
  const auto& presets = LightingSettings::presets();
  const Field lock = flag(&FaceTrackingState::lockRotation, &FaceTrackingState::setLockRotation);
  const Field syphon = flag(&FaceTrackingState::isSyphonActive, &FaceTrackingState::setIsSyphonActive);
  const Field ndi = flag(&FaceTrackingState::isNDIActive, &FaceTrackingState::setIsNDIActive);
  const Field osc = flag(&FaceTrackingState::isOSCEnabled, &FaceTrackingState::setIsOSCEnabled);
  const Field model{[](S s) { return double(s.characterModel() == CharacterModelType::cartoonGhost); },
                    [](FaceTrackingState& s, double v) {
                      s.setCharacterModel(v ? CharacterModelType::cartoonGhost : CharacterModelType::theatricalMask);
                    }};
  const Field preset{[&](S s) {
                       const auto it = std::find(presets.begin(), presets.end(), s.lighting());
                       return it == presets.end() ? -1.0 : double(it - presets.begin());
                     },
                     [&](FaceTrackingState& s, double i) { s.setLighting(presets[std::size_t(i)]); }};
  struct Row {
    const char* address;
    std::vector<OSCArgument> args;
    const Field& field;
    double start, expected;
  };
  const Row rows[] = {
      // Lock rotation: a boolean or a number above 0.5 (the accessors'); NaN and none keep it.
      {"/velmora/lockrotation", {true}, lock, 0, 1}, {"/velmora/lockrotation", {false}, lock, 1, 0},
      {"/velmora/lockrotation", {kNaN}, lock, 1, 1}, {"/velmora/lockrotation", {}, lock, 1, 1},
      // Toggles: none inverts, a boolean sets. NDI and OSC start where the
      // other switches' getters would give the wrong answer.
      {"/velmora/syphon", {}, syphon, 1, 0}, {"/velmora/syphon", {}, syphon, 0, 1},
      {"/velmora/syphon", {true}, syphon, 1, 1}, {"/ndi", {}, ndi, 0, 1}, {"/osc/enable", {}, osc, 0, 1},
      // The model: text by name (never as a number), numbers truncated (only 1 is the ghost).
      {"/velmora/model", {"my Ghostly mask"}, model, 0, 1}, {"/velmora/model", {"MASK"}, model, 1, 0},
      {"/character", {"Theatre"}, model, 1, 0}, {"/velmora/model", {"robot"}, model, 1, 1},
      {"/velmora/model", {""}, model, 0, 0}, {"/velmora/model", {"1"}, model, 0, 0},
      {"/velmora/model", {std::int32_t(1)}, model, 0, 1}, {"/velmora/model", {std::int32_t(2)}, model, 1, 0},
      {"/velmora/model", {1.9f}, model, 0, 1}, {"/velmora/model", {1.0}, model, 0, 1},
      {"/velmora/model", {0.99f}, model, 1, 0}, {"/velmora/model", {kNaN}, model, 1, 1},
      {"/velmora/model", {kInf}, model, 1, 1}, {"/velmora/model", {true}, model, 0, 0},
      // Presets by index, numbers rounded half away from zero, or by name
      // (LightingSettingsTest.PresetMatchingByIndexOrName); misses keep the look.
      {"/lighting/preset", {std::int32_t(2)}, preset, 0, 2}, {"/lighting/preset", {1.5f}, preset, 0, 2},
      {"/lighting/preset", {1.4f}, preset, 0, 1}, {"/lighting/preset", {2.5}, preset, 0, 3},
      {"/lighting/preset", {-0.4f}, preset, 1, 0}, {"/lighting/preset", {-0.6f}, preset, 4, 4},
      {"/lighting/preset", {"FLAT-EVEN"}, preset, 0, 5}, {"/lighting/preset", {kNaN}, preset, 4, 4},
      {"/lighting/preset", {kInf}, preset, 4, 4}, {"/lighting/preset", {true}, preset, 4, 4},
      {"/lighting/preset", {}, preset, 4, 4},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.address) + " " + (OSCMessage{"", row.args}).printedArguments());
    row.field.set(state, row.start);
    ASSERT_TRUE(dispatch(row.address, row.args));
    EXPECT_EQ(row.field.get(state), row.expected);
  }
  // A preset is saved too.
  dispatch("/lighting/preset", {std::int32_t(5)});
  store.reload();
  EXPECT_EQ(LightingSettings::load(store), presets[5]);
}

TEST_F(CatalogTest, ModelCommandsRunTheModelChangeEvenWhenUnchangedAndPutACharacterFileAway) {
  int changes = 0;
  state.observe([&](FaceTrackingState::Property p) { changes += p == FaceTrackingState::Property::characterModel; });
  // Already the mask: the model change still runs (and with it the state's
  // save: TrackingSettingsTest.SettingsSurviveARestart...); the empty model
  // command changes nothing.
  std::vector<int> counted;  // the changes after each command
  dispatch("/velmora/model", {std::string("mask")});
  counted.push_back(changes);
  dispatch("/velmora/ghost");
  counted.push_back(changes);
  dispatch("/ghost");
  counted.push_back(changes);
  const CharacterModelType ghost = state.characterModel();
  dispatch("/velmora/mask");
  counted.push_back(changes);
  dispatch("/velmora/model");  // no argument: nothing
  counted.push_back(changes);
  EXPECT_EQ(std::tuple(counted, ghost, state.characterModel()),
            std::tuple(std::vector{1, 2, 3, 4, 4}, CharacterModelType::cartoonGhost,
                       CharacterModelType::theatricalMask));

  // A character file's name is handed on; a built-in choice puts the file away.
  std::vector<std::string> opened;
  context.openCharacterFile = [&](const std::string& file) { opened.push_back(file); };
  dispatch("/velmora/character/file", {std::string("Head")});
  dispatch("/VELMORA/CHARACTER/FILE", {std::string("/x/y.glb")});
  dispatch("/velmora/character/file", {1.0f});  // not a name: nothing
  EXPECT_EQ(opened, (std::vector<std::string>{"Head", "/x/y.glb"}));

  // The state names a file only once it has read (the application's doing);
  // then a mask command, even for the model already chosen, puts it away.
  state.setCharacterFile("/x/y.glb");
  dispatch("/velmora/mask");
  EXPECT_EQ(state.characterFile(), "");
  store.reload();
  EXPECT_EQ(store.string("characterFile"), "");
}


// ---------------------------------------------------------------------------
// [SECTION] Cues
// ---------------------------------------------------------------------------

TEST_F(CatalogTest, CueCommandsStartTheirCueOnTheirCharacterAndStopCommandsFadeItOut) {
  struct Row {
    const char* address;
    std::vector<OSCArgument> args;  // a duration, passed on unclamped; text means the default
    K kind;
    double duration;
  };
  const Row rows[] = {
      {"/velmora/ghost/flyin", {}, K::ghostFlyIn, 2.5},  {"/ghost/out", {}, K::ghostFlyOut, 2.2},
      {"/ghost/boo", {}, K::ghostSpook, 1.8},            {"/ghost/pirouette", {}, K::ghostSpin, 2.0},
      {"/velmora/ghost/float", {}, K::ghostWobble, 2.4}, {"/ghost/peek", {}, K::ghostPeek, 2.8},
      {"/ghost/chuckle", {}, K::ghostLaugh, 2.2},        {"/ghost/scared", {}, K::ghostShiver, 2.0},
      {"/bow", {}, K::maskBow, 2.5},                     {"/gasp", {}, K::maskGasp, 1.8},
      {"/velmora/nod", {}, K::maskNod, 1.6},             {"/shake", {}, K::maskShake, 1.6},
      {"/velmora/laugh", {}, K::maskLaugh, 2.4},         {"/mask/weep", {}, K::maskSob, 2.6},
      {"/mask/scowl", {}, K::maskGlare, 2.2},            {"/velmora/ghost/flyin", {4.0f}, K::ghostFlyIn, 4.0},
      {"/mask/gasp", {0.0f}, K::maskGasp, 0.0},          {"/mask/gasp", {std::string("3")}, K::maskGasp, 1.8},
  };
  for (const auto& [address, args, kind, duration] : rows) {
    SCOPED_TRACE(address + (OSCMessage{"", args}).printedArguments());
    // Start on the other character: the command switches first.
    const bool ghost = AnimationCue::isGhostCue(kind);
    state.setCharacterModel(ghost ? CharacterModelType::theatricalMask : CharacterModelType::cartoonGhost);
    ASSERT_TRUE(dispatch(address, args));
    EXPECT_EQ(state.characterModel(), ghost ? CharacterModelType::cartoonGhost : CharacterModelType::theatricalMask);
    EXPECT_EQ(cues.activeCue(), AnimationCue::make(kind, duration));
  }
  dispatch("/mask/gasp", {kNaN});
  EXPECT_TRUE(std::isnan(cues.activeCue()->requestedDuration));

  // The stop commands fade out whichever cue plays and leave the model as it is.
  for (const char* stop : {"/velmora/ghost/reset", "/mask/stop"}) {
    SCOPED_TRACE(stop);
    dispatch("/ghost/spin");
    cues.sample(uptime());
    ASSERT_TRUE(dispatch(stop));
    EXPECT_EQ(std::tuple(cues.activeCue(), cues.isFadingOut(), state.characterModel()),
              std::tuple(std::nullopt, true, CharacterModelType::cartoonGhost));
  }
  // With nothing playing there is no fade: CharacterAnimationController.ResetStopsAtOnce...
}

// ---------------------------------------------------------------------------
// [SECTION] Bad input on every command
// ---------------------------------------------------------------------------

TEST_F(CatalogTest, HostileArgumentsOnEveryCommandKeepTheStateFiniteAndInRange) {
  const std::vector<std::vector<OSCArgument>> hostile = {
      {}, {kNaN}, {kInf}, {-kInf}, {3.4e38f}, {-3.4e38f}, {-0.0f}, {std::nan("")}, {1e308},
      {std::numeric_limits<std::int32_t>::max()}, {std::numeric_limits<std::int32_t>::min()},
      {std::string("")}, {std::string(5000, 'g')}, {std::string("\xE2\x80\x93")}, {false},
      {kNaN, 1.0f, std::string("x")},
  };

  for (const OSCCommand& command : OSCCommandCatalog::all()) {
    for (const auto& args : hostile) {
      const std::string where = command.address + " " + OSCMessage{"", args}.printedArguments().substr(0, 40);
      ASSERT_TRUE(dispatch(command.address, args)) << where;
      // Every number in its range (so finite too).
      for (const Range& r : kRanges) EXPECT_TRUE(r.get(state) >= r.lo && r.get(state) <= r.hi) << where << r.address;
      const AnimationOutput o = cues.sample(uptime());  // every field finite: NaN and infinities carry into the sum
      const float3 pose = o.positionOffset + o.rotationOffset;
      EXPECT_TRUE(std::isfinite(pose.x + pose.y + pose.z + o.scaleMultiplier.x + o.opacityMultiplier + o.blendWeight))
          << where;
    }
  }
}

}  // namespace
}  // namespace velmora
