#include "app/SelfTestRunner.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>
#include <vector>

#include "animation/CharacterAnimationController.h"
#include "base/Clock.h"
#include "base/Log.h"
#include "base/MainQueue.h"
#include "characters/CartoonGhost.h"
#include "characters/MaskExpressionTargets.h"
#include "control/OSCCommandCatalog.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

namespace {

FaceTrackingState& state() { return FaceTrackingState::shared(); }
CharacterAnimationController& cues() { return CharacterAnimationController::shared(); }

bool dispatch(std::string address, std::vector<OSCArgument> arguments = {}) {
  static CommandContext commands{state(), cues(), [] { return uptime(); }};
  return OSCCommandCatalog::dispatch(OSCMessage{std::move(address), std::move(arguments)}, commands);
}

// Seconds between samples when a check scans a whole cue.
constexpr double kScanStep = 1.0 / 120.0;

}  // namespace

std::string SelfTestRunner::withActual(std::string_view text, float value) {
  char buffer[32];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  return std::string(text) + std::string(buffer, end) + ")";
}

void SelfTestRunner::check(std::string_view name, bool condition) {
  if (condition) {
    ++result_.passed;
    logRaw("  \xE2\x9C\x93 PASS: " + std::string(name));  // ✓
  } else {
    ++result_.failed;
    logRaw("  \xE2\x9C\x97 FAIL: " + std::string(name));  // ✗
  }
}

SelfTestRunner::Result SelfTestRunner::run() {
  VELMORA_ASSERT_MAIN_THREAD();
  result_ = {};

  // What the suite changes and puts back afterwards (all persisted).
  const CharacterModelType savedModel = state().characterModel();
  const LightingSettings savedLighting = state().lighting();
  const bool savedOSCEnabled = state().isOSCEnabled();

  logRaw("\n=== RUNNING VELMORA VERIFICATION SUITE ===");
  sectionDispatch();
  sectionModelSwitching();
  sectionGhostCues();
  sectionMaskGestures();
  sectionBlending();
  sectionGeometry();
  sectionOSCToggle();
  logRaw("\n=== VERIFICATION RESULTS: " + std::to_string(result_.passed) + " PASSED, " +
         std::to_string(result_.failed) + " FAILED ===");

  cues().reset(false, uptime());
  if (state().characterModel() != savedModel) state().setCharacterModel(savedModel);
  if (!(state().lighting() == savedLighting)) state().setLighting(savedLighting);
  if (state().isOSCEnabled() != savedOSCEnabled) state().setIsOSCEnabled(savedOSCEnabled);
  return result_;
}

void SelfTestRunner::sectionDispatch() {
  logRaw("\n--- 1. UK English OSC Dispatch ---");
  check("Dispatch canonical /velmora/recentre", dispatch("/velmora/recentre"));
  check("State isCalibrated after recentre", state().isCalibrated());
  check("Dispatch /centre alias", dispatch("/centre"));
  check("Dispatch /recenter alias", dispatch("/recenter"));
  check("Dispatch UK English /lighting/colour", dispatch("/velmora/lighting/colour", {0.65f}));
  check("Warmth set to 0.65", std::fabs(state().lighting().warmth - 0.65) < 1e-4);
  check("Dispatch US English /lighting/color alias", dispatch("/lighting/color", {0.30f}));
  check("Warmth set to 0.30", std::fabs(state().lighting().warmth - 0.30) < 1e-4);
}

void SelfTestRunner::sectionModelSwitching() {
  logRaw("\n--- 2. Model Switching OSC Shortcuts ---");
  check("Dispatch /ghost", dispatch("/ghost"));
  check("Active model is Cartoon Ghost", state().characterModel() == CharacterModelType::cartoonGhost);
  check("Dispatch /mask", dispatch("/mask"));
  check("Active model is Theatrical Mask", state().characterModel() == CharacterModelType::theatricalMask);
}

void SelfTestRunner::sectionGhostCues() {
  logRaw("\n--- 3. Ghost Animation Cues & Auto-Selection ---");
  auto activeIs = [](AnimationCue::Kind kind) { return cues().activeCueName() == AnimationCue::name(kind); };

  check("Dispatch /ghost/flyin", dispatch("/ghost/flyin"));
  check("Auto-switched to Cartoon Ghost", state().characterModel() == CharacterModelType::cartoonGhost);
  check("Active cue is Ghost Fly In", activeIs(AnimationCue::Kind::ghostFlyIn));

  check("Dispatch /ghost/spook", dispatch("/ghost/spook"));
  check("Active cue is Ghost Spook", activeIs(AnimationCue::Kind::ghostSpook));
  {
    // The largest forward offset over the whole cue, sampled from now on.
    const double start = uptime();
    const double duration = cues().activeCue() ? cues().activeCue()->duration() : 0.0;
    float maxZ = 0;
    for (double t = 0; t <= duration + kScanStep; t += kScanStep) {
      maxZ = std::max(maxZ, cues().sample(start + t).positionOffset.z);
    }
    check(withActual("Ghost Spook Z offset stays <= 0.35m (body fully inside frame, actual: ", maxZ),
          maxZ <= 0.35f);
  }

  const std::pair<const char*, AnimationCue::Kind> rest[] = {
      {"/ghost/peek", AnimationCue::Kind::ghostPeek},     {"/ghost/laugh", AnimationCue::Kind::ghostLaugh},
      {"/ghost/shiver", AnimationCue::Kind::ghostShiver}, {"/ghost/spin", AnimationCue::Kind::ghostSpin},
      {"/ghost/wobble", AnimationCue::Kind::ghostWobble}, {"/ghost/flyout", AnimationCue::Kind::ghostFlyOut},
  };
  for (const auto& [address, kind] : rest) {
    check(std::string("Dispatch ") + address, dispatch(address));
    check("Active cue is " + AnimationCue::name(kind), activeIs(kind));
  }
}

void SelfTestRunner::sectionMaskGestures() {
  logRaw("\n--- 4. Mask Gestures & Auto-Selection ---");
  auto activeIs = [](AnimationCue::Kind kind) { return cues().activeCueName() == AnimationCue::name(kind); };

  check("Dispatch /velmora/mask/bow", dispatch("/velmora/mask/bow"));
  check("Auto-switched to Theatrical Mask", state().characterModel() == CharacterModelType::theatricalMask);
  check("Active cue is Mask Dramatic Bow", activeIs(AnimationCue::Kind::maskBow));
  {
    // Mid-cue: the bow's hold, head fully down.
    const double duration = cues().activeCue() ? cues().activeCue()->duration() : 0.0;
    const float pitch = cues().sample(uptime() + duration / 2).rotationOffset.x;
    check(withActual("Mask bow tilts head DOWN (pitch > 0, actual: ", pitch), pitch > 0);
  }

  const std::pair<const char*, AnimationCue::Kind> rest[] = {
      {"/mask/gasp", AnimationCue::Kind::maskGasp},   {"/mask/nod", AnimationCue::Kind::maskNod},
      {"/mask/shake", AnimationCue::Kind::maskShake}, {"/mask/laugh", AnimationCue::Kind::maskLaugh},
      {"/mask/sob", AnimationCue::Kind::maskSob},     {"/mask/glare", AnimationCue::Kind::maskGlare},
  };
  for (const auto& [address, kind] : rest) {
    check(std::string("Dispatch ") + address, dispatch(address));
    check("Active cue is " + AnimationCue::name(kind), activeIs(kind));
  }
}

void SelfTestRunner::sectionBlending() {
  logRaw("\n--- 5. Graceful Blending & Return Verification ---");
  // The spook: weighted, and moving the body, half-way through.
  const AnimationCue cue = AnimationCue::make(AnimationCue::Kind::ghostSpook, 1.8);
  const double start = uptime();
  cues().trigger(cue, start);
  const AnimationOutput mid = cues().sample(start + cue.duration() / 2);
  check("Mid-animation has active blendWeight > 0", mid.blendWeight > 0);
  check("Mid-animation has active positionOffset", mid.positionOffset != float3(0));
  const AnimationOutput done = cues().sample(start + cue.duration() + 0.1);
  check("Completed animation returns blendWeight to 0.0", done.blendWeight == 0.0f);
  check("Completed animation returns position offset to 0.0", glm::length(done.positionOffset) < 1e-6f);
  check("Completed animation returns rotation offset to 0.0", glm::length(done.rotationOffset) < 1e-6f);
}

void SelfTestRunner::sectionGeometry() {
  logRaw("\n--- 6. Geometry & Holes Verification ---");
  const float halfWidth = ghostHeadTopHalfWidth();
  check(withActual("Ghost head top is rounded dome (hw >= 0.08, actual: ", halfWidth), halfWidth >= 0.08f);
  const float nostril = maskNostrilOcclusionMetric();
  check(withActual("Nostril occlusion is natural (> 0.50, no artificial black shading, actual: ", nostril),
        nostril > 0.50f);
  check("Nostril metric identifies openings (< 1.0)", nostril < 1.0f);
}

void SelfTestRunner::sectionOSCToggle() {
  logRaw("\n--- 7. OSC Master Toggle ---");
  state().setIsOSCEnabled(false);
  check("OSC is disabled in state", !state().isOSCEnabled());
  check("OSC status reflects disabled", state().oscStatus().find("disabled") != std::string::npos);
  state().setIsOSCEnabled(true);
  check("OSC is re-enabled in state", state().isOSCEnabled());
  check("Dispatch /velmora/osc toggle", dispatch("/velmora/osc"));
  check("OSC disabled via OSC command", !state().isOSCEnabled());
}

}  // namespace velmora
