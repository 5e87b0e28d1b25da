#include "control/OSCCommandCatalog.h"

// Index of this file:
//   [SECTION] Reading a message
//   [SECTION] Entry builders
//   [SECTION] The table, in display order
//   [SECTION] Lookup and dispatch
//   [SECTION] Lighting and toggle entries, preset texts

#include <cmath>
#include <cstdio>
#include <cstdint>
#include <string>

#include "animation/CharacterAnimationController.h"
#include "base/Log.h"
#include "base/MainQueue.h"
#include "control/RemoteReplies.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

namespace {

using K = AnimationCue::Kind;

const char* const kCalibration = "Calibration & Tracking";
const char* const kOutput = "Output";
const char* const kLighting = "Lighting";
const char* const kGhost = "Ghost Animations (Cartoon Ghost)";
const char* const kMask = "Mask Gestures (Theatrical Mask)";
const char* const kReplies = "Replies & Following";

// ---------------------------------------------------------------------------
// [SECTION] Reading a message
// ---------------------------------------------------------------------------

std::string lowercased(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

// The message's first argument as a number, NaN dropped. Infinities are
// kept: every numeric setter clamps them with its ordinary comparisons
// (+inf to the top of the range, -inf to the bottom), so "out of range is
// clamped, never refused" holds for them too. NaN has no place in a range
// and would pass every comparison unclamped, so it is ignored.
std::optional<float> numberArgument(const OSCMessage& message) {
  const auto v = message.floatValue();
  if (!v || std::isnan(*v)) return std::nullopt;
  return v;
}

// The first argument when it is text, or a number (int32, float32, double)
// widened to double. Booleans are neither.
struct TextOrNumber {
  std::optional<std::string> text;
  std::optional<double> number;
};
TextOrNumber textOrNumber(const OSCMessage& message) {
  TextOrNumber out;
  if (message.arguments.empty()) return out;
  const OSCArgument& first = message.arguments.front();
  if (const auto* s = first.get<std::string>()) {
    out.text = *s;
  } else if (const auto* f = first.get<float>()) {
    out.number = *f;
  } else if (const auto* i = first.get<std::int32_t>()) {
    out.number = *i;
  } else if (const auto* d = first.get<double>()) {
    out.number = *d;
  }
  return out;
}

// ---------------------------------------------------------------------------
// [SECTION] Entry builders
// ---------------------------------------------------------------------------

// Assigns the model and runs the state's model-change handling exactly once,
// even when the model does not change (the setter runs it on a change).
void selectModel(FaceTrackingState& state, CharacterModelType model) {
  if (state.characterModel() == model) {
    state.handleCharacterModelChange();
  } else {
    state.setCharacterModel(model);
  }
}

// The lighting setter saves the record in the state's settings store.
void storeLighting(FaceTrackingState& state, const LightingSettings& lighting) { state.setLighting(lighting); }

OSCCommand plain(const char* group, std::string address, std::vector<std::string> aliases, std::string arguments,
                 std::string summary, OSCCommand::Action action) {
  return OSCCommand{group, std::move(address), std::move(arguments), std::move(summary), std::move(aliases),
                    std::move(action)};
}

// The cue commands: switch to the cue's character when needed, then start
// the cue now. The duration is passed unclamped: the cue itself raises it to
// its minimum (NaN included); an infinite one holds the cue's first frame
// until a reset or another cue, which is what the operator asked for.
OSCCommand cueCommand(K kind, std::string address, std::vector<std::string> aliases, std::string summary) {
  char arguments[64];
  std::snprintf(arguments, sizeof arguments, "none or float duration (default %.1fs)",
                AnimationCue::defaultDuration(kind));
  return plain(AnimationCue::isGhostCue(kind) ? kGhost : kMask, std::move(address), std::move(aliases), arguments,
               std::move(summary), [kind](const OSCMessage& message, CommandContext& context) {
                 const CharacterModelType model = AnimationCue::character(kind);
                 if (context.state.characterModel() != model) context.state.setCharacterModel(model);
                 const auto value = message.floatValue();
                 const double duration = value ? static_cast<double>(*value) : AnimationCue::defaultDuration(kind);
                 context.cues.trigger(AnimationCue::make(kind, duration), context.clock());
               });
}

OSCCommand stopCueCommand(const char* group, std::string address, std::vector<std::string> aliases,
                          std::string summary) {
  return plain(group, std::move(address), std::move(aliases), "none", std::move(summary),
               [](const OSCMessage&, CommandContext& context) { context.cues.reset(true, context.clock()); });
}

// ---------------------------------------------------------------------------
// [SECTION] The table, in display order
// ---------------------------------------------------------------------------

std::vector<OSCCommand> buildAll() {
  std::vector<OSCCommand> c;
  c.reserve(45);

  // --- Calibration & Tracking ---
  c.push_back(plain(kCalibration, "/velmora/recentre",
                    {"/velmora/recenter", "/velmora/centre", "/velmora/center", "/recentre", "/recenter", "/centre",
                     "/center", "/zero"},
                    "none", "Recalibrate the performer's current pose as neutral.",
                    [](const OSCMessage&, CommandContext& context) { context.state.recentreNeutralPose(); }));
  c.push_back(plain(kCalibration, "/velmora/reset", {"/reset"}, "none",
                    "Clear calibration and active animations; reset sensitivity, smoothing and opacity to defaults.",
                    [](const OSCMessage&, CommandContext& context) {
                      FaceTrackingState& state = context.state;
                      state.resetCalibration();
                      state.setGlobalSensitivity(1.0f);
                      state.setSmoothing(0.45f);
                      state.updateFilterParameters();
                      state.setMaskOpacity(1.0f);
                      context.cues.reset(false, context.clock());
                    }));
  c.push_back(plain(kCalibration, "/velmora/sensitivity", {"/sensitivity"}, "float 0.1 – 5.0",
                    "Expression sensitivity multiplier (1.0 = normal).",
                    [](const OSCMessage& message, CommandContext& context) {
                      FaceTrackingState& state = context.state;
                      const auto v = numberArgument(message);
                      if (!v) return;
                      state.setGlobalSensitivity(*v <= 0.1f ? 0.1f : (*v > 5.0f ? 5.0f : *v));
                    }));
  c.push_back(plain(kCalibration, "/velmora/smoothing", {"/smoothing"}, "float 0.0 – 1.0",
                    "Jitter filter strength (higher = smoother but slower).",
                    [](const OSCMessage& message, CommandContext& context) {
                      FaceTrackingState& state = context.state;
                      const auto v = numberArgument(message);
                      if (!v) return;
                      state.setSmoothing(*v <= 0 ? 0.0f : (*v > 1.0f ? 1.0f : *v));
                      state.updateFilterParameters();
                    }));
  c.push_back(plain(kCalibration, "/velmora/lockrotation", {"/lockrotation"}, "1 or 0",
                    "Lock (1) or unlock (0) the mask's rotation.",
                    [](const OSCMessage& message, CommandContext& context) {
                      FaceTrackingState& state = context.state;
                      // A boolean as it is, a number above 0.5 locks; text,
                      // nothing or NaN is not usable.
                      if (const auto f = message.floatValue(); f && std::isnan(*f)) return;
                      if (const auto b = message.boolValue()) state.setLockRotation(*b);
                    }));
  c.push_back(plain(kCalibration, "/velmora/model", {"/model", "/velmora/character", "/character"},
                    "theatrical_mask or cartoon_ghost (or 0 / 1)",
                    "Switch active 3D character avatar: 'theatrical_mask' (0) or 'cartoon_ghost' (1).",
                    [](const OSCMessage& message, CommandContext& context) {
                      FaceTrackingState& state = context.state;
                      const TextOrNumber arg = textOrNumber(message);
                      std::optional<CharacterModelType> choice;
                      if (arg.text) {
                        const std::string text = lowercased(*arg.text);
                        if (text.find("ghost") != std::string::npos) {
                          choice = CharacterModelType::cartoonGhost;
                        } else if (text.find("mask") != std::string::npos ||
                                   text.find("theat") != std::string::npos) {
                          choice = CharacterModelType::theatricalMask;
                        }
                      } else if (arg.number && std::isfinite(*arg.number)) {
                        // Truncated toward zero: only 1 is the ghost. Non-finite
                        // numbers have no integer and are ignored.
                        choice = std::trunc(*arg.number) == 1.0 ? CharacterModelType::cartoonGhost
                                                                : CharacterModelType::theatricalMask;
                      }
                      if (choice) selectModel(state, *choice);
                    }));
  c.push_back(plain(kCalibration, "/velmora/ghost", {"/ghost"}, "none",
                    "Direct shortcut: switch active 3D character avatar to Cartoon Ghost.",
                    [](const OSCMessage&, CommandContext& context) {
                      selectModel(context.state, CharacterModelType::cartoonGhost);
                    }));
  c.push_back(plain(kCalibration, "/velmora/theatricalmask", {"/velmora/mask", "/mask", "/theatricalmask"}, "none",
                    "Direct shortcut: switch active 3D character avatar to Theatrical Mask.",
                    [](const OSCMessage&, CommandContext& context) {
                      selectModel(context.state, CharacterModelType::theatricalMask);
                    }));

  // --- Output ---
  c.push_back(plain(kOutput, "/velmora/opacity", {"/opacity"}, "float 0.0 – 1.0",
                    "Fade the mask in (1.0) or out (0.0).",
                    [](const OSCMessage& message, CommandContext& context) {
                      FaceTrackingState& state = context.state;
                      const auto v = numberArgument(message);
                      if (!v) return;
                      state.setMaskOpacity(*v <= 0 ? 0.0f : (*v > 1.0f ? 1.0f : *v));
                    }));
  c.push_back(OSCCommandCatalog::toggleCommand("/velmora/syphon", "Turn Syphon output on or off.", {"/syphon"},
                                               &FaceTrackingState::isSyphonActive,
                                               &FaceTrackingState::setIsSyphonActive));
  c.push_back(OSCCommandCatalog::toggleCommand("/velmora/ndi", "Turn NDI output on or off.", {"/ndi"},
                                               &FaceTrackingState::isNDIActive, &FaceTrackingState::setIsNDIActive));
  c.push_back(OSCCommandCatalog::toggleCommand("/velmora/osc", "Turn OSC remote cue reception on or off.",
                                               {"/osc", "/velmora/osc/enable", "/osc/enable"},
                                               &FaceTrackingState::isOSCEnabled,
                                               &FaceTrackingState::setIsOSCEnabled));

  // --- Lighting ---
  c.push_back(plain(kLighting, "/velmora/lighting", {"/lighting"}, "float 0.0 – 5.0",
                    "Master light intensity (1.2 = default); scales every light.",
                    [](const OSCMessage& message, CommandContext& context) {
                      FaceTrackingState& state = context.state;
                      const auto v = numberArgument(message);
                      if (!v) return;
                      state.setLightIntensity(*v <= 0 ? 0.0f : (*v > 5.0f ? 5.0f : *v));
                    }));
  c.push_back(plain(kLighting, "/velmora/lighting/preset", {"/lighting/preset"},
                    OSCCommandCatalog::presetArgumentText(), OSCCommandCatalog::presetSummaryText(),
                    [](const OSCMessage& message, CommandContext& context) {
                      FaceTrackingState& state = context.state;
                      const TextOrNumber arg = textOrNumber(message);
                      std::string text;
                      if (arg.text) {
                        text = *arg.text;
                      } else if (arg.number && std::isfinite(*arg.number)) {
                        // Halves away from zero. Beyond the int64 range no
                        // preset index can match, so such numbers are ignored.
                        const double rounded = std::round(*arg.number);
                        if (std::fabs(rounded) > 9.0e18) return;
                        text = std::to_string(static_cast<long long>(rounded));
                      } else {
                        return;  // no argument, a boolean, or NaN / infinity
                      }
                      if (const auto preset = LightingSettings::presetMatching(text)) storeLighting(state, *preset);
                    }));
  c.push_back(OSCCommandCatalog::lightCommand("/velmora/lighting/key", "float 0.0 – 3.0",
                                              "Key light level (front spotlight, casts the nose shadow).", 0, 3,
                                              {"/lighting/key"}, &LightingSettings::key));
  c.push_back(OSCCommandCatalog::lightCommand("/velmora/lighting/fill", "float 0.0 – 3.0",
                                              "Fill light level (soft light from above-left).", 0, 3,
                                              {"/lighting/fill"}, &LightingSettings::fill));
  c.push_back(OSCCommandCatalog::lightCommand("/velmora/lighting/rim", "float 0.0 – 3.0",
                                              "Rim light level (top/back accent on the mask's edge).", 0, 3,
                                              {"/lighting/rim"}, &LightingSettings::rim));
  c.push_back(OSCCommandCatalog::lightCommand("/velmora/lighting/ambient", "float 0.0 – 3.0",
                                              "Ambient light level (soft all-round light).", 0, 3,
                                              {"/lighting/ambient"}, &LightingSettings::ambient));
  c.push_back(OSCCommandCatalog::lightCommand("/velmora/lighting/keyheight", "float -3.0 – 3.0",
                                              "Key light height (negative = below the face, positive = above).", -3,
                                              3, {"/lighting/keyheight"}, &LightingSettings::keyHeight));
  c.push_back(OSCCommandCatalog::lightCommand("/velmora/lighting/keyside", "float -3.0 – 3.0",
                                              "Key light sideways position (negative = left, positive = right).", -3,
                                              3, {"/lighting/keyside"}, &LightingSettings::keySide));
  c.push_back(OSCCommandCatalog::lightCommand(
      "/velmora/lighting/warmth", "float -1.0 – 1.0",
      "Colour temperature of key and fill (-1 cool, 0 neutral, +1 warm).", -1, 1,
      {"/lighting/warmth", "/velmora/lighting/color", "/lighting/color", "/velmora/lighting/colour",
       "/lighting/colour"},
      &LightingSettings::warmth));
  c.push_back(OSCCommandCatalog::lightCommand("/velmora/lighting/shadow", "float 0.0 – 1.0",
                                              "Cast shadow darkness (0 = none, 1 = very dark).", 0, 1,
                                              {"/lighting/shadow"}, &LightingSettings::shadow));
  c.push_back(plain(kLighting, "/velmora/lighting/reset", {"/lighting/reset"}, "none",
                    "Back to the Theatrical look at default master intensity.",
                    [](const OSCMessage&, CommandContext& context) {
                      FaceTrackingState& state = context.state;
                      storeLighting(state, LightingSettings::theatrical());
                      state.setLightIntensity(1.2f);
                    }));

  // --- Ghost Animations ---
  c.push_back(cueCommand(K::ghostFlyIn, "/velmora/ghost/flyin", {"/ghost/flyin", "/ghost/in", "/velmora/ghost/in"},
                         "Ghost swoops in from the sky/background with eerie wobble and gracefully settles onto "
                         "live performer tracking."));
  c.push_back(cueCommand(K::ghostFlyOut, "/velmora/ghost/flyout",
                         {"/ghost/flyout", "/ghost/out", "/velmora/ghost/out"},
                         "Ghost swoops upwards and into the distance, fading out to black (remains offstage until "
                         "fly-in or reset)."));
  c.push_back(cueCommand(K::ghostSpook, "/velmora/ghost/spook", {"/ghost/spook", "/velmora/ghost/boo", "/ghost/boo"},
                         "Sudden theatrical spook / boo jump towards camera with wide eyes and open jaw, then "
                         "gracefully relaxes back to live tracking."));
  c.push_back(cueCommand(K::ghostSpin, "/velmora/ghost/spin",
                         {"/ghost/spin", "/velmora/ghost/pirouette", "/ghost/pirouette"},
                         "Ghost performs a 360° pirouette spin while floating, smoothly re-aligning with live head "
                         "rotation."));
  c.push_back(cueCommand(K::ghostWobble, "/velmora/ghost/wobble",
                         {"/ghost/wobble", "/ghost/hover", "/velmora/ghost/hover", "/ghost/float",
                          "/velmora/ghost/float"},
                         "Eerie undulating ghostly hover wave with wide curious eyes, smoothly settling back to live "
                         "capture."));
  c.push_back(cueCommand(K::ghostPeek, "/velmora/ghost/peek", {"/ghost/peek", "/velmora/ghost/peek"},
                         "Ghost glides to stage-left and peeks in curiously with tilted head, then glides back to "
                         "center tracking."));
  c.push_back(cueCommand(K::ghostLaugh, "/velmora/ghost/laugh",
                         {"/ghost/laugh", "/ghost/chuckle", "/velmora/ghost/chuckle"},
                         "Joyful ghost chuckle: bobs up and down with squinty eyes and wide laughing grin, then "
                         "relaxes back to live tracking."));
  c.push_back(cueCommand(K::ghostShiver, "/velmora/ghost/shiver",
                         {"/ghost/shiver", "/ghost/scared", "/velmora/ghost/scared"},
                         "Ghost gets the chills / spooked: trembles with rapid fright shiver and wide startled eyes, "
                         "then calms down."));
  c.push_back(stopCueCommand(kGhost, "/velmora/ghost/reset", {"/ghost/reset", "/ghost/stop", "/velmora/ghost/stop"},
                             "Stop any active ghost animation and smoothly cross-fade back to live tracking."));

  // --- Mask Gestures ---
  c.push_back(cueCommand(K::maskBow, "/velmora/mask/bow", {"/mask/bow", "/velmora/bow", "/bow"},
                         "Dramatic respectful bow forward with closed eyes, smoothly rising back to live tracking."));
  c.push_back(cueCommand(K::maskGasp, "/velmora/mask/gasp", {"/mask/gasp", "/velmora/gasp", "/gasp"},
                         "Theatrical gasp: head recoils back with wide eyes and dropped jaw, then relaxes back to "
                         "live tracking."));
  c.push_back(cueCommand(K::maskNod, "/velmora/mask/nod", {"/mask/nod", "/velmora/nod", "/nod"},
                         "Theatrical double-nod of assent, smoothly returning to live performer tracking."));
  c.push_back(cueCommand(K::maskShake, "/velmora/mask/shake", {"/mask/shake", "/velmora/shake", "/shake"},
                         "Theatrical double head-shake side-to-side, smoothly returning to live performer "
                         "tracking."));
  c.push_back(cueCommand(K::maskLaugh, "/velmora/mask/laugh", {"/mask/laugh", "/velmora/laugh", "/velmora/laugh"},
                         "Theatrical comedy mask belly laugh: head tilts back with rhythmic pulses and wide grinning "
                         "mouth."));
  c.push_back(cueCommand(K::maskSob, "/velmora/mask/sob", {"/mask/sob", "/mask/weep", "/velmora/weep", "/velmora/weep"},
                         "Theatrical tragedy mask weeping: head drops in despair with deep sorrowful mouth and "
                         "furrowed brow."));
  c.push_back(cueCommand(K::maskGlare, "/velmora/mask/glare",
                         {"/mask/glare", "/mask/scowl", "/velmora/scowl", "/velmora/scowl"},
                         "Theatrical menacing scowl: head tilts forward in stern glare with intensely furrowed brow "
                         "and tight mouth."));
  c.push_back(stopCueCommand(kMask, "/velmora/mask/reset", {"/mask/reset", "/mask/stop", "/velmora/mask/stop"},
                             "Stop any active mask gesture and smoothly cross-fade back to live tracking."));

  // --- Replies & Following --- (answered to the sender; see RemoteReplies)
  c.push_back(plain(kReplies, "/velmora/state", {}, "none",
                    "Reply with every operator-visible value as one JSON object.",
                    [](const OSCMessage&, CommandContext& context) {
                      if (context.remote) context.remote->answerState(context);
                    }));
  c.push_back(plain(kReplies, "/velmora/get", {}, "string name (as in /velmora/state, e.g. sensitivity)",
                    "Reply with one value by name.", [](const OSCMessage& message, CommandContext& context) {
                      if (context.remote) context.remote->answerGet(message, context);
                    }));
  c.push_back(plain(kReplies, "/velmora/replyport", {}, "int port (0 = the port you send from)",
                    "Send replies and events for your address to this port.",
                    [](const OSCMessage& message, CommandContext& context) {
                      if (context.remote) context.remote->setReplyPort(message);
                    }));
  c.push_back(plain(kReplies, "/velmora/thump", {}, "none",
                    "Heartbeat: replies \"thump\" and keeps your subscription alive.",
                    [](const OSCMessage&, CommandContext& context) {
                      if (context.remote) context.remote->thump();
                    }));
  c.push_back(plain(kReplies, "/velmora/updates", {}, "1 or 0",
                    "Subscribe (1) to pushed events or end it (0); lapses after 60 s without a message from you.",
                    [](const OSCMessage& message, CommandContext& context) {
                      if (context.remote) context.remote->updates(message, context);
                    }));
  return c;
}

}  // namespace

// ---------------------------------------------------------------------------
// [SECTION] Lookup and dispatch
// ---------------------------------------------------------------------------

const std::vector<OSCCommand>& OSCCommandCatalog::all() {
  static const std::vector<OSCCommand> commands = buildAll();
  return commands;
}

const std::vector<std::string>& OSCCommandCatalog::groups() {
  static const std::vector<std::string> titles = {kCalibration, kOutput, kLighting, kGhost, kMask, kReplies};
  return titles;
}

const std::unordered_map<std::string, const OSCCommand*>& OSCCommandCatalog::table() {
  static const std::unordered_map<std::string, const OSCCommand*> map = [] {
    std::unordered_map<std::string, const OSCCommand*> m;
    for (const OSCCommand& command : all()) {
      m[lowercased(command.address)] = &command;
      for (const std::string& alias : command.aliases) m[lowercased(alias)] = &command;
    }
    return m;
  }();
  return map;
}

std::vector<const OSCCommand*> OSCCommandCatalog::commands(std::string_view group) {
  std::vector<const OSCCommand*> out;
  for (const OSCCommand& command : all()) {
    if (command.group == group) out.push_back(&command);
  }
  return out;
}

const OSCCommand* OSCCommandCatalog::find(std::string_view address) {
  const auto& map = table();
  const auto it = map.find(lowercased(address));
  return it == map.end() ? nullptr : it->second;
}

bool OSCCommandCatalog::dispatch(const OSCMessage& message, CommandContext& context) {
  VELMORA_ASSERT_MAIN_THREAD();
  const OSCCommand* command = find(message.address);
  if (!command) return false;
  if (command->action) command->action(message, context);
  logLine("OSC", command->address + " " + message.printedArguments());
  return true;
}

// ---------------------------------------------------------------------------
// [SECTION] Lighting and toggle entries, preset texts
// ---------------------------------------------------------------------------

OSCCommand OSCCommandCatalog::lightCommand(std::string address, std::string arguments, std::string summary,
                                           double lo, double hi, std::vector<std::string> aliases,
                                           double LightingSettings::*field) {
  return plain(kLighting, std::move(address), std::move(aliases), std::move(arguments), std::move(summary),
               [lo, hi, field](const OSCMessage& message, CommandContext& context) {
                 FaceTrackingState& state = context.state;
                 const auto v = numberArgument(message);
                 if (!v) return;
                 double value = static_cast<double>(*v);
                 if (value < lo) value = lo;
                 if (value > hi) value = hi;
                 LightingSettings lighting = state.lighting();
                 lighting.*field = value;
                 storeLighting(state, lighting);
               });
}

OSCCommand OSCCommandCatalog::toggleCommand(std::string address, std::string summary,
                                            std::vector<std::string> aliases, bool (FaceTrackingState::*get)() const,
                                            void (FaceTrackingState::*set)(bool)) {
  return plain(kOutput, std::move(address), std::move(aliases), "1 or 0 (none = toggle)", std::move(summary),
               [get, set](const OSCMessage& message, CommandContext& context) {
                 FaceTrackingState& state = context.state;
                 const auto b = message.boolValue();
                 (state.*set)(b ? *b : !(state.*get)());
               });
}

std::string OSCCommandCatalog::presetArgumentText() { return "int 0 – 5, or name"; }

std::string OSCCommandCatalog::presetSummaryText() {
  std::string text = "Load a lighting look: ";
  const auto& names = LightingSettings::presetNames();
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i > 0) text += ", ";
    text += std::to_string(i) + " " + names[i];
  }
  text += ".";
  return text;
}

}  // namespace velmora
