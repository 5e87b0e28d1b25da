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
#include <functional>
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
  ASSERT_EQ(all.size(), 46u);
  EXPECT_EQ(OSCCommandCatalog::groups(),
            (std::vector<std::string>{"Calibration & Tracking", "Output", "Lighting",
                                      "Ghost Animations (Cartoon Ghost)", "Mask Gestures (Theatrical Mask)",
                                      "Character Files", "Replies & Following"}));
  const std::size_t sizes[] = {8, 4, 11, 9, 8, 1, 5};
  std::size_t next = 0;
  for (std::size_t g = 0; g < 7; ++g) {
    const auto members = OSCCommandCatalog::commands(OSCCommandCatalog::groups()[g]);
    ASSERT_EQ(members.size(), sizes[g]);
    for (const OSCCommand* c : members) {
      EXPECT_EQ(c, &all[next++]);  // table order
      EXPECT_EQ(c->group, OSCCommandCatalog::groups()[g]);
    }
  }
  EXPECT_TRUE(OSCCommandCatalog::commands("lighting").empty());  // exact title only
  std::set<std::string> addresses;
  std::map<std::string, const OSCCommand*> expected;  // later insertions win
  for (const OSCCommand& c : all) {
    EXPECT_EQ(c.id(), c.address);
    EXPECT_FALSE(c.summary.empty()) << c.address;
    EXPECT_TRUE(c.action) << c.address;
    addresses.insert(c.address);
    expected[c.address] = &c;
    for (const auto& alias : c.aliases) {
      EXPECT_TRUE(std::none_of(alias.begin(), alias.end(), ::isupper)) << alias;
      expected[alias] = &c;
    }
  }
  EXPECT_EQ(addresses.size(), 46u);
  EXPECT_EQ(OSCCommandCatalog::table(),
            (std::unordered_map<std::string, const OSCCommand*>(expected.begin(), expected.end())));
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

// Matching ignores case and nothing else; a dispatch logs the canonical address.
TEST_F(CatalogTest, AddressMatchingIsCaseInsensitiveExactAndLogged) {
  EXPECT_TRUE(dispatch("/VELMORA/RECENTRE"));
  EXPECT_TRUE(state().isCalibrated());
  state().resetCalibration();
  ASSERT_TRUE(dispatch("/Zero"));
  EXPECT_TRUE(state().isCalibrated());
  state().resetCalibration();
  ASSERT_TRUE(dispatch("/Sensitivity", {2.5f}));
  ASSERT_TRUE(dispatch("/lighting/preset", {std::string("Top Light")}));
  for (const char* miss : {"/velmora/recentre/", " /velmora/recentre", "/velmora/recentre ", "/velmora/*", "",
                           "velmora/recentre", "/velmora//recentre", "/velmora/nothing"}) {
    EXPECT_FALSE(dispatch(miss, {1.0f})) << '"' << miss << '"';
  }
  EXPECT_FALSE(state().isCalibrated());
  EXPECT_EQ(log, (std::vector<std::string>{"[OSC] /velmora/recentre []", "[OSC] /velmora/recentre []",
                                           "[OSC] /velmora/sensitivity [2.5]",
                                           "[OSC] /velmora/lighting/preset [\"Top Light\"]"}));
}

// ---------------------------------------------------------------------------
// [SECTION] Calibration & Tracking
// ---------------------------------------------------------------------------

TEST_F(CatalogTest, ResetCommandsRestoreDefaultsAndStopTheCueAtOnce) {
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
  // The lighting reset restores the theatrical look and master, and saves them.
  dispatch("/lighting/preset", {std::int32_t(5)});
  dispatch("/lighting", {3.0f});
  ASSERT_TRUE(dispatch("/lighting/reset"));
  EXPECT_EQ(state().lighting(), LightingSettings::theatrical());
  EXPECT_EQ(state().lightIntensity(), 1.2f);
  SettingsStore::shared().reload();
  EXPECT_EQ(LightingSettings::load(SettingsStore::shared()), LightingSettings::theatrical());
}

// One value of the state as a number, so one table holds every command
// that sets a value: floats, switches (0/1), the model (0 mask, 1 ghost),
// the preset (its index, -1 for none) and the light fields (the rest of the
// look must stay theatrical).
struct Field {
  const char* name;
  std::function<double()> get;
  std::function<void(double)> set;
  double LightingSettings::*light = nullptr;
  bool single = false;  // a float: compared as one
};

// A float or a switch of the state, through its getter and setter.
template <class T>
Field member(const char* name, T (FaceTrackingState::*get)() const, void (FaceTrackingState::*set)(T)) {
  return {name, [=] { return double((FaceTrackingState::shared().*get)()); },
          [=](double v) { (FaceTrackingState::shared().*set)(static_cast<T>(v)); }, nullptr, std::is_same_v<T, float>};
}
Field light(const char* name, double LightingSettings::*field) {
  return {name, [=] { return FaceTrackingState::shared().lighting().*field; },
          [](double) { FaceTrackingState::shared().setLighting(LightingSettings::theatrical()); }, field};
}

TEST_F(CatalogTest, ArgumentsSetTheirFieldClampedOrAreIgnored) {
  const auto& presets = LightingSettings::presets();
  const Field sens = member("sensitivity", &FaceTrackingState::globalSensitivity, &FaceTrackingState::setGlobalSensitivity);
  const Field smooth = member("smoothing", &FaceTrackingState::smoothing, &FaceTrackingState::setSmoothing);
  const Field opacity = member("opacity", &FaceTrackingState::maskOpacity, &FaceTrackingState::setMaskOpacity);
  const Field master = member("intensity", &FaceTrackingState::lightIntensity, &FaceTrackingState::setLightIntensity);
  const Field lock = member("lock", &FaceTrackingState::lockRotation, &FaceTrackingState::setLockRotation);
  const Field syphon = member("syphon", &FaceTrackingState::isSyphonActive, &FaceTrackingState::setIsSyphonActive);
  const Field ndi = member("ndi", &FaceTrackingState::isNDIActive, &FaceTrackingState::setIsNDIActive);
  const Field osc = member("osc", &FaceTrackingState::isOSCEnabled, &FaceTrackingState::setIsOSCEnabled);
  const Field model{"model", [] { return double(state().characterModel() == CharacterModelType::cartoonGhost); },
                    [](double v) {
                      state().setCharacterModel(v != 0 ? CharacterModelType::cartoonGhost
                                                       : CharacterModelType::theatricalMask);
                    }};
  const Field preset{"preset",
                     [&] {
                       const auto it = std::find(presets.begin(), presets.end(), state().lighting());
                       return it == presets.end() ? -1.0 : double(it - presets.begin());
                     },
                     [&](double i) { state().setLighting(presets[std::size_t(i)]); }};
  const Field key = light("key", &LightingSettings::key), fill = light("fill", &LightingSettings::fill),
              rim = light("rim", &LightingSettings::rim), ambient = light("ambient", &LightingSettings::ambient),
              height = light("keyHeight", &LightingSettings::keyHeight),
              side = light("keySide", &LightingSettings::keySide), warmth = light("warmth", &LightingSettings::warmth),
              shadow = light("shadow", &LightingSettings::shadow);
  const std::vector<OSCArgument> none;
  struct Row {
    const char* address;
    std::vector<OSCArgument> args;
    const Field& field;
    double start, expected;
  };
  const Row rows[] = {
      // Numbers clamp into their range; NaN and none keep the value. Which
      // arguments read as a number (int, double, not text or booleans) is
      // the message accessors' (OSCMessageTest.AccessorsAndPrintedArguments).
      {"/velmora/sensitivity", {7.5f}, sens, 1.7, 5.0}, {"/sensitivity", {0.05f}, sens, 1.7, 0.1},
      {"/sensitivity", {0.1f}, sens, 1.7, 0.1f}, {"/sensitivity", {5.0f}, sens, 1.7, 5.0},
      {"/sensitivity", {2.25f}, sens, 1.7, 2.25}, {"/sensitivity", {-4.0f}, sens, 1.7, 0.1f},
      {"/sensitivity", {kInf}, sens, 1.7, 5.0}, {"/sensitivity", {-kInf}, sens, 1.7, 0.1f},
      {"/sensitivity", {1e30f}, sens, 1.7, 5.0}, {"/sensitivity", {"2"}, sens, 1.7, 1.7f},
      {"/sensitivity", {kNaN}, sens, 1.7, 1.7f}, {"/sensitivity", none, sens, 1.7, 1.7f},
      {"/smoothing", {1.5f}, smooth, 0.25, 1.0}, {"/smoothing", {-0.3f}, smooth, 0.25, 0.0},
      {"/smoothing", {0.25f}, smooth, 0.25, 0.25}, {"/smoothing", none, smooth, 0.25, 0.25},
      {"/opacity", {-1.0f}, opacity, 0.5, 0.0}, {"/opacity", {0.4f}, opacity, 0.5, 0.4f},
      {"/opacity", {1.0f}, opacity, 0.5, 1.0}, {"/opacity", {3.0f}, opacity, 0.5, 1.0},
      {"/opacity", {kInf}, opacity, 0.5, 1.0}, {"/opacity", {std::int32_t(0)}, opacity, 0.5, 0.0},
      {"/opacity", none, opacity, 0.5, 0.5},
      {"/lighting", {-2.0f}, master, 1.2, 0.0}, {"/lighting", {2.5f}, master, 1.2, 2.5},
      {"/lighting", {5.0f}, master, 1.2, 5.0}, {"/lighting", {9.0f}, master, 1.2, 5.0},
      {"/lighting", {1e30f}, master, 1.2, 5.0}, {"/lighting", {-kInf}, master, 1.2, 0.0},
      {"/lighting", none, master, 1.2, 1.2f},
      // Lock rotation: booleans and numbers above 0.5; text, NaN and none keep it.
      {"/velmora/lockrotation", {true}, lock, 0, 1}, {"/velmora/lockrotation", {0.5f}, lock, 1, 0},
      {"/velmora/lockrotation", {std::int32_t(1)}, lock, 0, 1}, {"/velmora/lockrotation", {"0"}, lock, 1, 1},
      {"/velmora/lockrotation", {kNaN}, lock, 1, 1}, {"/velmora/lockrotation", none, lock, 1, 1},
      {"/velmora/lockrotation", {false}, lock, 1, 0},
      // Toggles: no boolean or number inverts; otherwise set (which numbers
      // read as true is the message accessors', 0.5 not above 0.5).
      {"/velmora/syphon", none, syphon, 1, 0}, {"/velmora/syphon", none, syphon, 0, 1},
      {"/velmora/syphon", {"1"}, syphon, 1, 0}, {"/velmora/syphon", {std::int32_t(1)}, syphon, 0, 1},
      {"/velmora/syphon", {0.5f}, syphon, 1, 0}, {"/velmora/syphon", {true}, syphon, 1, 1},
      // NDI and OSC share the toggle's rules: their rows check their own field both ways.
      {"/ndi", none, ndi, 0, 1}, {"/ndi", {"1"}, ndi, 1, 0}, {"/ndi", {true}, ndi, 0, 1}, {"/ndi", {0.5f}, ndi, 1, 0},
      {"/osc/enable", none, osc, 1, 0}, {"/osc/enable", {"1"}, osc, 0, 1}, {"/osc/enable", {std::int32_t(1)}, osc, 0, 1},
      // The model: text by name (never as a number), numbers by >= 1; from either character.
      {"/velmora/model", {"cartoon_ghost"}, model, 0, 1}, {"/character", {"GHOST"}, model, 0, 1},
      {"/velmora/model", {"my Ghostly mask"}, model, 0, 1}, {"/velmora/model", {"theatrical_mask"}, model, 1, 0},
      {"/velmora/model", {"MASK"}, model, 1, 0}, {"/character", {"Theatre"}, model, 1, 0},
      {"/velmora/model", {"robot"}, model, 0, 0}, {"/character", {"robot"}, model, 1, 1},
      {"/velmora/model", {""}, model, 1, 1}, {"/velmora/model", {""}, model, 0, 0}, {"/velmora/model", {"1"}, model, 0, 0},
      {"/velmora/model", {std::int32_t(1)}, model, 0, 1}, {"/velmora/model", {std::int32_t(0)}, model, 1, 0},
      {"/velmora/model", {std::int32_t(2)}, model, 1, 0}, {"/velmora/model", {std::int32_t(-1)}, model, 1, 0},
      {"/velmora/model", {1.9f}, model, 0, 1}, {"/velmora/model", {1.0}, model, 0, 1},
      {"/velmora/model", {0.99f}, model, 1, 0}, {"/velmora/model", {-0.5f}, model, 1, 0},
      {"/velmora/model", {1e30f}, model, 1, 0}, {"/velmora/model", {kNaN}, model, 0, 0},
      {"/velmora/model", {kNaN}, model, 1, 1}, {"/character", {kInf}, model, 1, 1},
      {"/character", {kInf}, model, 0, 0}, {"/character", {-kInf}, model, 0, 0}, {"/character", {-kInf}, model, 1, 1}, {"/character", {true}, model, 0, 0}, {"/character", {true}, model, 1, 1},
      // Presets by index (rounded away from zero) or by name; misses keep the look.
      {"/lighting/preset", {std::int32_t(2)}, preset, 0, 2}, {"/lighting/preset", {1.5f}, preset, 0, 2},
      {"/lighting/preset", {1.4f}, preset, 0, 1}, {"/lighting/preset", {2.5}, preset, 0, 3},
      {"/lighting/preset", {4.6f}, preset, 0, 5}, {"/lighting/preset", {-0.4f}, preset, 1, 0},
      {"/lighting/preset", {"+4"}, preset, 0, 4}, {"/lighting/preset", {"FLAT-EVEN"}, preset, 0, 5},
      {"/velmora/lighting/preset", {std::int32_t(6)}, preset, 4, 4}, {"/lighting/preset", {-0.6f}, preset, 4, 4},
      {"/lighting/preset", {"Custom"}, preset, 4, 4}, {"/lighting/preset", {kNaN}, preset, 4, 4},
      {"/lighting/preset", {kInf}, preset, 4, 4}, {"/lighting/preset", {-kInf}, preset, 4, 4},
      {"/lighting/preset", {3.0e38f}, preset, 4, 4}, {"/lighting/preset", {true}, preset, 4, 4},
      {"/lighting/preset", {std::int32_t(-1)}, preset, 4, 4}, {"/lighting/preset", none, preset, 4, 4},
      // Light fields clamp into their range; the float is widened (0.65f, not 0.65).
      {"/velmora/lighting/key", {10.0f}, key, 0, 3.0}, {"/lighting/key", {-1.0f}, key, 0, 0.0},
      {"/lighting/fill", {2.5f}, fill, 0, 2.5}, {"/lighting/rim", {4.0f}, rim, 0, 3.0},
      {"/lighting/ambient", {std::int32_t(2)}, ambient, 0, 2.0}, {"/lighting/keyheight", {-5.0f}, height, 0, -3.0},
      {"/lighting/keyside", {3.5f}, side, 0, 3.0}, {"/lighting/keyside", {-kInf}, side, 0, -3.0},
      {"/lighting/warmth", {-2.0f}, warmth, 0, -1.0}, {"/lighting/color", {kInf}, warmth, 0, 1.0},
      {"/velmora/lighting/colour", {0.5f}, warmth, 0, 0.5}, {"/lighting/colour", {0.65f}, warmth, 0, double(0.65f)},
      {"/lighting/shadow", {1.5f}, shadow, 0, 1.0}, {"/lighting/shadow", {0.25}, shadow, 0, 0.25},
      {"/lighting/key", none, key, 0, LightingSettings::theatrical().key},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.address) + " " + msg("", row.args).printedArguments() + " on " + row.field.name);
    row.field.set(row.start);
    ASSERT_TRUE(dispatch(row.address, row.args));
    if (row.field.single) EXPECT_EQ(float(row.field.get()), float(row.expected));
    else EXPECT_EQ(row.field.get(), row.expected);
    if (row.field.light) {
      LightingSettings rest = state().lighting();
      rest.*(row.field.light) = LightingSettings::theatrical().*(row.field.light);
      EXPECT_EQ(rest, LightingSettings::theatrical());
      // Saved in the settings store.
      SettingsStore::shared().reload();
      EXPECT_EQ(LightingSettings::load(SettingsStore::shared()), state().lighting());
    }
  }
  // A preset is saved too; the OSC switch's status text follows.
  dispatch("/lighting/preset", {std::int32_t(5)});
  SettingsStore::shared().reload();
  EXPECT_EQ(LightingSettings::load(SettingsStore::shared()), presets[5]);
  dispatch("/osc", {false});
  EXPECT_EQ(state().oscStatus(), "OSC cues: disabled");
}

TEST_F(CatalogTest, ModelCommandsRunTheModelChangeEvenWhenUnchangedAndPutACharacterFileAway) {
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

  // A character file's name is handed on; a built-in choice puts the file away.
  std::vector<std::string> opened;
  CommandContext context{state(), controller(), [] { return uptime(); }};
  context.openCharacterFile = [&](const std::string& file) { opened.push_back(file); };
  OSCCommandCatalog::dispatch(msg("/velmora/character/file", {std::string("Head")}), context);
  OSCCommandCatalog::dispatch(msg("/VELMORA/CHARACTER/FILE", {std::string("/x/y.glb")}), context);
  OSCCommandCatalog::dispatch(msg("/velmora/character/file", {1.0f}), context);  // not a name: nothing
  EXPECT_EQ(opened, (std::vector<std::string>{"Head", "/x/y.glb"}));

  // The state names a file only once it has read (the application's doing);
  // then a mask command, even for the model already chosen, puts it away.
  state().setCharacterFile("/x/y.glb");
  dispatch("/velmora/mask");
  EXPECT_EQ(state().characterFile(), "");
  SettingsStore::shared().reload();
  EXPECT_EQ(SettingsStore::shared().string("characterFile"), "");
}


// ---------------------------------------------------------------------------
// [SECTION] Cues
// ---------------------------------------------------------------------------

TEST_F(CatalogTest, CueCommandsStartTheirCueWithTheDefaultDurationOnTheirCharacter) {
  struct Row {
    const char* address;
    std::vector<OSCArgument> args;  // a duration, passed on unclamped; text means the default
    AnimationCue cue;
  };
  const Row cues[] = {
      {"/velmora/ghost/flyin", {}, AnimationCue::make(K::ghostFlyIn, 2.5)},
      {"/ghost/out", {}, AnimationCue::make(K::ghostFlyOut, 2.2)},
      {"/ghost/boo", {}, AnimationCue::make(K::ghostSpook, 1.8)},
      {"/ghost/pirouette", {}, AnimationCue::make(K::ghostSpin, 2.0)},
      {"/velmora/ghost/float", {}, AnimationCue::make(K::ghostWobble, 2.4)},
      {"/ghost/peek", {}, AnimationCue::make(K::ghostPeek, 2.8)},
      {"/ghost/chuckle", {}, AnimationCue::make(K::ghostLaugh, 2.2)},
      {"/ghost/scared", {}, AnimationCue::make(K::ghostShiver, 2.0)},
      {"/bow", {}, AnimationCue::make(K::maskBow, 2.5)},
      {"/gasp", {}, AnimationCue::make(K::maskGasp, 1.8)},
      {"/velmora/nod", {}, AnimationCue::make(K::maskNod, 1.6)},
      {"/shake", {}, AnimationCue::make(K::maskShake, 1.6)},
      {"/velmora/laugh", {}, AnimationCue::make(K::maskLaugh, 2.4)},
      {"/mask/weep", {}, AnimationCue::make(K::maskSob, 2.6)},
      {"/mask/scowl", {}, AnimationCue::make(K::maskGlare, 2.2)},
      {"/velmora/ghost/flyin", {4.0f}, AnimationCue::make(K::ghostFlyIn, 4.0)},
      {"/velmora/ghost/flyin", {0.0f}, AnimationCue::make(K::ghostFlyIn, 0.0)},
      {"/mask/gasp", {std::int32_t(-3)}, AnimationCue::make(K::maskGasp, -3.0)},
      {"/mask/gasp", {std::string("3")}, AnimationCue::make(K::maskGasp, 1.8)},
      {"/mask/nod", {1e30f}, AnimationCue::make(K::maskNod, static_cast<double>(1e30f))},
  };
  for (const auto& [address, args, cue] : cues) {
    SCOPED_TRACE(address + msg("", args).printedArguments());
    const bool ghost = AnimationCue::isGhostCue(cue.kind);
    EXPECT_EQ(AnimationCue::character(cue.kind),
              ghost ? CharacterModelType::cartoonGhost : CharacterModelType::theatricalMask);
    // Start on the other character: the command switches first.
    state().setCharacterModel(ghost ? CharacterModelType::theatricalMask : CharacterModelType::cartoonGhost);
    ASSERT_TRUE(dispatch(address, args));
    EXPECT_EQ(state().characterModel(), AnimationCue::character(cue.kind));
    ASSERT_TRUE(controller().activeCue());
    EXPECT_EQ(*controller().activeCue(), cue);
    EXPECT_EQ(controller().activeCueName(), cue.name());
  }
  EXPECT_EQ(controller().sample(uptime() + 1).blendWeight, 0.0f);  // sampling a 1e30 s cue is harmless
  dispatch("/mask/gasp", {kNaN});
  EXPECT_TRUE(std::isnan(controller().activeCue()->requestedDuration));
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
      {}, {kNaN}, {kInf}, {-kInf}, {3.4e38f}, {-3.4e38f}, {-0.0f}, {dNaN}, {1e308},
      {std::numeric_limits<std::int32_t>::max()}, {std::numeric_limits<std::int32_t>::min()},
      {std::string("")}, {std::string(5000, 'g')}, {std::string("\xE2\x80\x93")}, {false},
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
