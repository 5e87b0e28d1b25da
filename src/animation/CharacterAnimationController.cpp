#include "animation/CharacterAnimationController.h"

// Index of this file:
//   [SECTION] Easing
//   [SECTION] Each cue's curves
//   [SECTION] Trigger, reset and sample
//   [SECTION] Published state and observers

#include <algorithm>
#include <cmath>
#include <vector>

#include "base/MainQueue.h"

namespace velmora {

namespace {

using K = AnimationCue::Kind;
constexpr float pi = 3.14159265358979323846f;

// ---------------------------------------------------------------------------
// [SECTION] Easing
// ---------------------------------------------------------------------------

// Both easings first clamp their argument to 0..1; NaN counts as 0.
float clampUnit(float u) {
  if (!(u > 0)) return 0;
  return u > 1 ? 1 : u;
}
// Quintic smootherstep u^3 (u (6u - 15) + 10).
float quintic(float u) {
  u = clampUnit(u);
  return u * u * u * (u * (6 * u - 15) + 10);
}
// Cubic smoothstep u^2 (3 - 2u).
float cubic(float u) {
  u = clampUnit(u);
  return u * u * (3 - 2 * u);
}

// ---------------------------------------------------------------------------
// [SECTION] Each cue's curves
// ---------------------------------------------------------------------------

// Fills `out` (which starts neutral) for normalised time p (0..1) and the
// absolute time t used for jitter and hover that must not restart per cue.
void fillCurves(K kind, float p, float t, AnimationOutput& out) {
  auto& bs = out.blendshapes;
  switch (kind) {
    case K::ghostFlyIn: {
      if (p < 0.65f) {
        const float s = quintic(p / 0.65f);
        const float r = 1 - s;
        out.positionOffset = {0.15f * std::sin(4 * p) * r, 3.2f * r - 0.1f * std::sin(pi * s),
                              0.15f * std::sin(pi * s) - 7 * r};
        out.rotationOffset = {-0.35f * r, 0.12f * std::sin(3 * p) * r, 0.18f * std::sin(pi * s)};
        const float scale = 0.3f + 0.7f * cubic(2 * p);
        out.scaleMultiplier = {scale, scale, scale};
        out.opacityMultiplier = cubic(p / 0.3f);
        out.blendWeight = 1;
      } else {
        const float q = p - 0.65f;
        const float w = 1 - quintic(q / 0.35f);
        const float bounce = std::sin(18 * q) * std::exp(-8 * q);
        out.positionOffset = {0, 0.05f * bounce * w, 0.04f * bounce * w};
        out.rotationOffset = {0.05f * bounce * w, 0, 0};
        out.blendWeight = w;
      }
      bs["mouthSmileLeft"] = 0.4f;
      bs["mouthSmileRight"] = 0.4f;
      bs["jawOpen"] = 0.15f;
      bs["eyeWideLeft"] = 0.3f;
      bs["eyeWideRight"] = 0.3f;
      break;
    }
    case K::ghostFlyOut: {
      if (p < 0.2f) {
        const float a = cubic(p / 0.2f);
        out.positionOffset = {0, -0.1f * std::sin(pi * a), 0};
        out.rotationOffset = {0.12f * a, 0, 0};
        out.blendWeight = 0.5f * a;
        bs["mouthSmileLeft"] = 0.35f;
        bs["mouthSmileRight"] = 0.35f;
      } else {
        const float s = quintic((p - 0.2f) / 0.8f);
        out.positionOffset = {0.2f * std::sin(2 * s), 3.8f * s, -8 * s};
        out.rotationOffset = {-0.25f * s, 0.3f * s, 0.35f * s};
        const float scale = std::max(1 - 0.75f * s, 0.15f);
        out.scaleMultiplier = {scale, scale, scale};
        out.opacityMultiplier = 1 - quintic((p - 0.4f) / 0.55f);
        out.blendWeight = 1;
        bs["mouthSmileLeft"] = 0.5f;
        bs["mouthSmileRight"] = 0.5f;
        bs["eyeWideLeft"] = 0.4f;
        bs["eyeWideRight"] = 0.4f;
      }
      break;
    }
    case K::ghostSpook: {
      if (p >= 0.18f && p < 0.42f) {
        out.positionOffset = {0.012f * std::sin(45 * t), 0.01f * std::cos(50 * t) - 0.04f, 0.32f};
        out.rotationOffset = {-0.1f, 0, 0};
        out.scaleMultiplier = {1.02f, 1.02f, 1.02f};
        out.blendWeight = 1;
      } else {
        const float w = p < 0.18f ? quintic(p / 0.18f) : 1 - quintic((p - 0.42f) / 0.58f);
        out.positionOffset = {0, -0.04f * w, 0.32f * w};
        out.rotationOffset = {-0.1f * w, 0, 0};
        const float scale = 1 + 0.02f * w;
        out.scaleMultiplier = {scale, scale, scale};
        out.blendWeight = w;
      }
      bs["jawOpen"] = 0.95f;
      bs["mouthFunnel"] = 0.7f;
      bs["eyeWideLeft"] = 1.0f;
      bs["eyeWideRight"] = 1.0f;
      bs["browInnerUp"] = 0.85f;
      break;
    }
    case K::ghostSpin: {
      const float e = std::sin(pi * p);
      out.positionOffset = {0.08f * std::sin(2 * pi * p), 0.14f * e, 0};
      out.rotationOffset = {0.08f * std::sin(2 * pi * p), 2 * pi * quintic(p), 0};
      out.blendWeight = e;
      bs["mouthSmileLeft"] = 0.45f;
      bs["mouthSmileRight"] = 0.45f;
      bs["eyeWideLeft"] = 0.2f;
      bs["eyeWideRight"] = 0.2f;
      break;
    }
    case K::ghostWobble: {
      const float e = std::sin(pi * p);
      out.positionOffset = {0.08f * std::sin(3.5f * t) * e, 0.12f * std::sin(6.5f * t) * e, 0};
      out.rotationOffset = {0.08f * std::sin(3.5f * t) * e, 0.12f * std::sin(6.5f * t) * e,
                            0.15f * std::cos(4.8f * t) * e};
      out.blendWeight = e;
      bs["eyeWideLeft"] = 0.4f * e;
      bs["eyeWideRight"] = 0.4f * e;
      bs["mouthFunnel"] = 0.25f * e;
      break;
    }
    case K::ghostPeek: {
      const float e = std::sin(pi * p);
      const float glide = quintic(p / 0.4f) - quintic((p - 0.65f) / 0.35f);
      out.positionOffset = {-0.55f * glide, -0.04f * e, 0.05f * e};
      out.rotationOffset = {0, 0.15f * e, 0.24f * e};
      out.blendWeight = e;
      bs["mouthPucker"] = 0.35f * e;
      bs["eyeWideLeft"] = 0.3f * e;
      bs["eyeWideRight"] = 0.3f * e;
      bs["eyeLookInLeft"] = 0.8f * e;
      break;
    }
    case K::ghostLaugh: {
      const float e = std::sin(pi * p);
      out.positionOffset = {0, 0.06f * std::sin(6 * pi * p) * e, 0};
      out.rotationOffset = {0, 0, 0.08f * std::cos(4 * pi * p) * e};
      out.blendWeight = e;
      bs["mouthSmileLeft"] = e;
      bs["mouthSmileRight"] = e;
      bs["jawOpen"] = 0.35f * e;
      bs["cheekSquintLeft"] = 0.6f * e;
      bs["cheekSquintRight"] = 0.6f * e;
      break;
    }
    case K::ghostShiver: {
      const float e = std::sin(pi * p);
      out.positionOffset = {0.014f * std::sin(50 * t) * e, 0.01f * std::cos(45 * t) * e, -0.15f * e};
      out.rotationOffset = {0.12f * e, 0, 0};
      const float scale = 1 - 0.08f * e;
      out.scaleMultiplier = {scale, scale, scale};
      out.blendWeight = e;
      bs["mouthFrownLeft"] = 0.65f * e;
      bs["mouthFrownRight"] = 0.65f * e;
      bs["jawOpen"] = 0.22f * e;
      bs["eyeWideLeft"] = 0.8f * e;
      bs["eyeWideRight"] = 0.8f * e;
      bs["browInnerUp"] = 0.85f * e;
      break;
    }
    case K::maskBow: {
      float w = 1;
      if (p < 0.45f) {
        w = quintic(p / 0.45f);
      } else if (p >= 0.6f) {
        w = 1 - quintic((p - 0.6f) / 0.4f);
      }
      out.positionOffset = {0, -0.14f * w, 0};
      out.rotationOffset = {0.5f * w, 0, 0};
      out.blendWeight = w;
      bs["eyeBlinkLeft"] = 0.95f * w;
      bs["eyeBlinkRight"] = 0.95f * w;
      break;
    }
    case K::maskGasp: {
      const float w = p < 0.22f ? quintic(p / 0.22f) : 1 - quintic((p - 0.22f) / 0.78f);
      out.positionOffset = {0, 0.12f * w, -0.28f * w};
      out.rotationOffset = {0.22f * w, 0, 0};
      out.blendWeight = w;
      bs["jawOpen"] = 0.75f;
      bs["mouthFunnel"] = 0.6f;
      bs["eyeWideLeft"] = 1.0f;
      bs["eyeWideRight"] = 1.0f;
      bs["browInnerUp"] = 0.9f;
      break;
    }
    case K::maskNod: {
      // Weight 0 on purpose: the nod adds rotation over live tracking and
      // takes no channel away from the performer.
      const float e = std::sin(pi * p);
      out.rotationOffset = {0.22f * std::sin(4 * pi * p) * e, 0, 0};
      out.blendWeight = 0;
      break;
    }
    case K::maskShake: {
      const float e = std::sin(pi * p);
      out.rotationOffset = {0, 0.25f * std::sin(4 * pi * p) * e, 0};
      out.blendWeight = 0;
      break;
    }
    case K::maskLaugh: {
      const float e = std::sin(pi * p);
      out.positionOffset = {0, 0.05f * std::sin(6 * pi * p) * e, 0};
      out.rotationOffset = {-0.22f * e, 0, 0};
      out.blendWeight = e;
      bs["mouthSmileLeft"] = 0.95f * e;
      bs["mouthSmileRight"] = 0.95f * e;
      bs["jawOpen"] = 0.6f * e;
      bs["cheekSquintLeft"] = 0.5f * e;
      bs["cheekSquintRight"] = 0.5f * e;
      break;
    }
    case K::maskSob: {
      float w = 1;
      if (p >= 0.4f && p < 0.65f) {
        // Held low with a sobbing tremor.
        out.positionOffset = {0, 0.008f * std::sin(30 * t) - 0.1f, 0};
        out.rotationOffset = {0.35f, 0, 0};
      } else {
        w = p < 0.4f ? quintic(p / 0.4f) : 1 - quintic((p - 0.65f) / 0.35f);
        out.positionOffset = {0, -0.1f * w, 0};
        out.rotationOffset = {0.35f * w, 0, 0};
      }
      out.blendWeight = w;
      bs["browInnerUp"] = 0.95f * w;
      bs["browDownLeft"] = 0.4f * w;
      bs["browDownRight"] = 0.4f * w;
      bs["mouthFrownLeft"] = 0.85f * w;
      bs["mouthFrownRight"] = 0.85f * w;
      bs["mouthPucker"] = 0.3f * w;
      break;
    }
    case K::maskGlare: {
      const float e = std::sin(pi * p);
      out.positionOffset = {0, 0, 0.16f * e};
      out.rotationOffset = {0.18f * e, 0, 0};
      out.blendWeight = e;
      bs["browDownLeft"] = e;
      bs["browDownRight"] = e;
      bs["browInnerUp"] = 0;  // held down explicitly against live tracking
      bs["mouthPressLeft"] = 0.8f * e;
      bs["mouthPressRight"] = 0.8f * e;
      bs["mouthFrownLeft"] = 0.3f * e;
      bs["mouthFrownRight"] = 0.3f * e;
      break;
    }
  }
}

}  // namespace

// ---------------------------------------------------------------------------
// [SECTION] Trigger, reset and sample
// ---------------------------------------------------------------------------

CharacterAnimationController& CharacterAnimationController::shared() {
  static CharacterAnimationController controller;
  return controller;
}

void CharacterAnimationController::trigger(const AnimationCue& cue, double time) {
  if (!MainQueue::shared().isMainThread()) {
    MainQueue::shared().post([this, cue, time] { triggerOnMain(cue, time); });
    return;
  }
  triggerOnMain(cue, time);
}

void CharacterAnimationController::reset(bool fadeOut, double time) {
  if (!MainQueue::shared().isMainThread()) {
    MainQueue::shared().post([this, fadeOut, time] { resetOnMain(fadeOut, time); });
    return;
  }
  resetOnMain(fadeOut, time);
}

void CharacterAnimationController::triggerOnMain(const AnimationCue& cue, double time) {
  cueStartTime_ = time;
  isPlaying_ = true;
  isFadingOut_ = false;
  isOffstage_ = false;
  setActive(cue);
}

void CharacterAnimationController::resetOnMain(bool fadeOut, double time) {
  if (fadeOut && isPlaying_) {
    // Captured before the flags change, so a reset during a running fade
    // starts the new fade from where the old one was.
    fadeFromOutput_ = sample(time);
    fadeStartTime_ = time;
    fadeDuration_ = defaultFadeDuration;
    isFadingOut_ = true;
  } else {
    isPlaying_ = false;
    isFadingOut_ = false;
  }
  isOffstage_ = false;
  setActive(std::nullopt);
}

AnimationOutput CharacterAnimationController::sample(double time) {
  VELMORA_ASSERT_MAIN_THREAD();

  // 1. Cross-fade from the captured output back to neutral.
  if (isFadingOut_) {
    const double elapsed = time - fadeStartTime_;
    if (elapsed >= fadeDuration_) {
      isFadingOut_ = false;
      isPlaying_ = false;
      return AnimationOutput::neutral();
    }
    const double d = std::max(fadeDuration_, 0.00001);
    const float f = 1 - quintic(static_cast<float>(elapsed / d));
    AnimationOutput out = fadeFromOutput_;
    out.positionOffset = fadeFromOutput_.positionOffset * f;
    out.rotationOffset = fadeFromOutput_.rotationOffset * f;
    out.scaleMultiplier = (fadeFromOutput_.scaleMultiplier - 1.0f) * f + 1.0f;
    out.opacityMultiplier = 1 - f * (1 - fadeFromOutput_.opacityMultiplier);
    out.blendWeight = fadeFromOutput_.blendWeight * f;
    return out;
  }

  // 2. Nothing playing: live tracking only, or the ghost kept offstage.
  if (!isPlaying_ || !activeCue_) {
    if (isOffstage_) {
      AnimationOutput out = AnimationOutput::neutral();
      out.opacityMultiplier = 0;
      return out;
    }
    return AnimationOutput::neutral();
  }

  // 3. The playing cue's curves at normalised time p.
  const AnimationCue cue = *activeCue_;
  const double duration = cue.duration();
  const double elapsed = time - cueStartTime_;
  double progress = elapsed / duration;
  if (!(progress > 0)) progress = 0;  // not positive, or not a number
  if (progress > 1) progress = 1;
  AnimationOutput out = AnimationOutput::neutral();
  fillCurves(cue.kind, static_cast<float>(progress), static_cast<float>(time), out);

  // 4. Completion: this frame is still the cue's; the next one is idle.
  if (elapsed >= duration) {
    isPlaying_ = false;
    if (AnimationCue::facts(cue.kind).leavesCharacterOffstage) isOffstage_ = true;
    setActive(std::nullopt);
  }
  return out;
}

// ---------------------------------------------------------------------------
// [SECTION] Published state and observers
// ---------------------------------------------------------------------------

void CharacterAnimationController::setActive(std::optional<AnimationCue> cue) {
  activeCue_ = cue;
  activeCueName_ = cue ? cue->name() : std::string("Idle");
  notify();
}

int CharacterAnimationController::observe(std::function<void()> observer) {
  const int token = nextObserverToken_++;
  observers_[token] = std::move(observer);
  return token;
}

void CharacterAnimationController::unobserve(int token) { observers_.erase(token); }

void CharacterAnimationController::notify() {
  // A copy, so an observer may unobserve itself while being told.
  std::vector<std::function<void()>> current;
  current.reserve(observers_.size());
  for (const auto& [token, observer] : observers_) current.push_back(observer);
  for (const auto& observer : current) {
    if (observer) observer();
  }
}

}  // namespace velmora
