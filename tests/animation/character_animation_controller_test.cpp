#include "animation/CharacterAnimationController.h"

// Index of this file:
//   [SECTION] Idle and trigger
//   [SECTION] Curves of the cues
//   [SECTION] Completion, minimums, fades and restarts
//   [SECTION] Threads

#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <thread>

#include "base/MainQueue.h"

namespace velmora {
namespace {

using K = AnimationCue::Kind;
constexpr float kTol = 1e-5f;
constexpr float kPi = 3.14159265358979f;

void expectVec(const float3& actual, float x, float y, float z, float tol = kTol) {
  EXPECT_NEAR(actual.x, x, tol);
  EXPECT_NEAR(actual.y, y, tol);
  EXPECT_NEAR(actual.z, z, tol);
}

float bs(const AnimationOutput& out, const char* name) {
  auto it = out.blendshapes.find(name);
  return it == out.blendshapes.end() ? NAN : it->second;
}

// Samples a fresh controller with a cue started at `start` (duration 2 s
// unless given) at normalised time p.
AnimationOutput sampleAt(K kind, double p, double duration = 2.0, double start = 10.0) {
  CharacterAnimationController c;
  c.trigger(AnimationCue::make(kind, duration), start);
  return c.sample(start + p * AnimationCue::make(kind, duration).duration());
}

// ---------------------------------------------------------------------------
// [SECTION] Idle and trigger
// ---------------------------------------------------------------------------

TEST(CharacterAnimationController, IdleIsNeutralAndTriggerPublishesTheCue) {
  CharacterAnimationController c;
  EXPECT_EQ(c.sample(0.5), AnimationOutput::neutral());
  EXPECT_FALSE(c.activeCue());
  EXPECT_EQ(c.activeCueName(), "Idle");
  int notified = 0;
  c.observe([&] { ++notified; });
  c.trigger(AnimationCue::make(K::maskSob, 2.6), 1.0);
  ASSERT_TRUE(c.activeCue());
  EXPECT_EQ(*c.activeCue(), AnimationCue::make(K::maskSob, 2.6));
  EXPECT_EQ(c.activeCueName(), "Mask Tragedy Sob");
  EXPECT_TRUE(c.isPlaying());
  EXPECT_GE(notified, 1);
}

// ---------------------------------------------------------------------------
// [SECTION] Curves of the cues
// ---------------------------------------------------------------------------

TEST(CharacterAnimationController, GhostFlyInSwoopAndSettle) {
  // Start of the swoop: far up and behind, small and invisible, cue owns everything.
  AnimationOutput o = sampleAt(K::ghostFlyIn, 0.0);
  expectVec(o.positionOffset, 0, 3.2f, -7.0f);
  expectVec(o.rotationOffset, -0.35f, 0, 0);
  expectVec(o.scaleMultiplier, 0.3f, 0.3f, 0.3f);
  EXPECT_NEAR(o.opacityMultiplier, 0, kTol);
  EXPECT_EQ(o.blendWeight, 1.0f);

  // Half-way through the swoop: S = 0.5.
  o = sampleAt(K::ghostFlyIn, 0.325);
  expectVec(o.positionOffset, 0.15f * std::sin(1.3f) * 0.5f, 1.6f - 0.1f, 0.15f - 3.5f);
  expectVec(o.rotationOffset, -0.175f, 0.12f * std::sin(0.975f) * 0.5f, 0.18f);
  const float c65 = 0.65f * 0.65f * (3 - 1.3f);
  EXPECT_NEAR(o.scaleMultiplier.y, 0.3f + 0.7f * c65, kTol);
  EXPECT_EQ(o.opacityMultiplier, 1.0f);  // C(p / 0.3) clamps above 1

  // Settle begins: no bounce yet, full weight, full size.
  o = sampleAt(K::ghostFlyIn, 0.65);
  expectVec(o.positionOffset, 0, 0, 0);
  expectVec(o.scaleMultiplier, 1, 1, 1);
  EXPECT_NEAR(o.blendWeight, 1.0f, kTol);

  // Middle of the settle: weight 0.5, damped bounce B = sin(18q) exp(-8q).
  o = sampleAt(K::ghostFlyIn, 0.825);
  const float q = 0.175f, b = std::sin(18 * q) * std::exp(-8 * q);
  EXPECT_NEAR(o.blendWeight, 0.5f, kTol);
  expectVec(o.positionOffset, 0, 0.05f * b * 0.5f, 0.04f * b * 0.5f);
  expectVec(o.rotationOffset, 0.05f * b * 0.5f, 0, 0);
  EXPECT_NEAR(bs(o, "jawOpen"), 0.15f, kTol);
  EXPECT_EQ(o.blendshapes.size(), 5u);
}

TEST(CharacterAnimationController, GhostFlyOutCrouchSwoopAndStaysOffstage) {
  AnimationOutput o = sampleAt(K::ghostFlyOut, 0.1);  // a = C(0.5) = 0.5
  expectVec(o.positionOffset, 0, -0.1f, 0);
  expectVec(o.rotationOffset, 0.06f, 0, 0);
  EXPECT_NEAR(o.blendWeight, 0.25f, kTol);
  EXPECT_EQ(o.blendshapes.size(), 2u);

  o = sampleAt(K::ghostFlyOut, 0.6);  // S = S(0.5) = 0.5
  expectVec(o.positionOffset, 0.2f * std::sin(1.0f), 1.9f, -4.0f);
  expectVec(o.rotationOffset, -0.125f, 0.15f, 0.175f);
  expectVec(o.scaleMultiplier, 0.625f, 0.625f, 0.625f);
  const float u = 0.2f / 0.55f;
  EXPECT_NEAR(o.opacityMultiplier, 1 - u * u * u * (u * (6 * u - 15) + 10), kTol);
  EXPECT_EQ(o.blendWeight, 1.0f);
  EXPECT_EQ(o.blendshapes.size(), 4u);

  CharacterAnimationController c;
  c.trigger(AnimationCue::make(K::ghostFlyOut, 2.2), 0);
  o = c.sample(2.2);  // last frame of the cue
  expectVec(o.scaleMultiplier, 0.25f, 0.25f, 0.25f);
  EXPECT_NEAR(o.opacityMultiplier, 0, kTol);
  EXPECT_TRUE(c.isOffstage());
  EXPECT_EQ(c.activeCueName(), "Idle");
  for (double t : {2.3, 100.0}) {
    o = c.sample(t);
    EXPECT_EQ(o.opacityMultiplier, 0.0f);
    EXPECT_EQ(o.blendWeight, 0.0f);
    expectVec(o.positionOffset, 0, 0, 0);
  }
  // Any trigger brings the ghost back; so does a reset.
  c.trigger(AnimationCue::make(K::ghostSpin, 2), 200);
  EXPECT_FALSE(c.isOffstage());
  c.trigger(AnimationCue::make(K::ghostFlyOut, 0.5), 300);
  c.sample(301);
  ASSERT_TRUE(c.isOffstage());
  c.reset(true, 302);
  EXPECT_FALSE(c.isOffstage());
  EXPECT_EQ(c.sample(303), AnimationOutput::neutral());
}

TEST(CharacterAnimationController, GhostSpookPhases) {
  AnimationOutput o = sampleAt(K::ghostSpook, 0.09);  // rise, w = 0.5
  expectVec(o.positionOffset, 0, -0.02f, 0.16f);
  expectVec(o.rotationOffset, -0.05f, 0, 0);
  expectVec(o.scaleMultiplier, 1.01f, 1.01f, 1.01f);
  EXPECT_NEAR(o.blendWeight, 0.5f, kTol);
  EXPECT_NEAR(bs(o, "jawOpen"), 0.95f, kTol);  // not scaled by w

  // Hold: jitter on absolute time t (as a 32-bit float).
  const double start = 3.0, time = start + 0.3 * 2.0;
  CharacterAnimationController c;
  c.trigger(AnimationCue::make(K::ghostSpook, 2.0), start);
  o = c.sample(time);
  const float t = static_cast<float>(time);
  expectVec(o.positionOffset, 0.012f * std::sin(45 * t), 0.01f * std::cos(50 * t) - 0.04f, 0.32f);
  expectVec(o.scaleMultiplier, 1.02f, 1.02f, 1.02f);
  EXPECT_EQ(o.blendWeight, 1.0f);

  o = sampleAt(K::ghostSpook, 0.71);  // release, w = 0.5
  expectVec(o.positionOffset, 0, -0.02f, 0.16f);
  EXPECT_NEAR(o.blendWeight, 0.5f, kTol);

  // The forward offset never exceeds 0.32 m, so the body stays in frame.
  CharacterAnimationController d;
  d.trigger(AnimationCue::make(K::ghostSpook, 1.8), 0);
  float maxZ = 0;
  for (int i = 0; i <= 180; ++i) maxZ = std::max(maxZ, d.sample(i * 0.01).positionOffset.z);
  EXPECT_LE(maxZ, 0.3200001f);
  EXPECT_GT(maxZ, 0.3f);
}

TEST(CharacterAnimationController, SineEnvelopeCuesAtMidPoint) {
  // p = 0.5: e = sin(pi/2) = 1.
  AnimationOutput o = sampleAt(K::ghostSpin, 0.5);
  EXPECT_NEAR(o.rotationOffset.y, kPi, 1e-5f);
  expectVec(o.positionOffset, 0, 0.14f, 0);
  EXPECT_NEAR(o.blendWeight, 1, kTol);
  EXPECT_NEAR(sampleAt(K::ghostSpin, 1.0).rotationOffset.y, 2 * kPi, 1e-5f);  // one full turn

  o = sampleAt(K::ghostPeek, 0.5);  // glide g = 1 - 0 = 1
  expectVec(o.positionOffset, -0.55f, -0.04f, 0.05f);
  expectVec(o.rotationOffset, 0, 0.15f, 0.24f);
  EXPECT_NEAR(bs(o, "eyeLookInLeft"), 0.8f, kTol);
  EXPECT_NEAR(sampleAt(K::ghostPeek, 0.2).positionOffset.x, -0.55f * 0.5f, kTol);  // S(0.5)

  o = sampleAt(K::ghostLaugh, 0.5);
  expectVec(o.positionOffset, 0, 0.06f * std::sin(3 * kPi), 0, 1e-5f);
  expectVec(o.rotationOffset, 0, 0, 0.08f);
  EXPECT_NEAR(bs(o, "mouthSmileLeft"), 1, kTol);
  EXPECT_NEAR(bs(o, "cheekSquintRight"), 0.6f, kTol);

  o = sampleAt(K::maskLaugh, 0.25);  // e = sin(pi/4), sin(6 pi p) = sin(1.5 pi) = -1
  const float e = std::sin(kPi / 4);
  expectVec(o.positionOffset, 0, -0.05f * e, 0);
  expectVec(o.rotationOffset, -0.22f * e, 0, 0);
  EXPECT_NEAR(bs(o, "jawOpen"), 0.6f * e, kTol);

  o = sampleAt(K::maskGlare, 0.5);
  expectVec(o.positionOffset, 0, 0, 0.16f);
  expectVec(o.rotationOffset, 0.18f, 0, 0);
  ASSERT_TRUE(o.blendshapes.count("browInnerUp"));
  EXPECT_EQ(bs(o, "browInnerUp"), 0.0f);
  EXPECT_NEAR(bs(o, "mouthPressLeft"), 0.8f, kTol);
}

TEST(CharacterAnimationController, AbsoluteTimeCues) {
  const double start = 7.0, time = 8.0;  // p = 0.5 of a 2 s cue
  const float t = static_cast<float>(time);
  CharacterAnimationController c;
  c.trigger(AnimationCue::make(K::ghostWobble, 2.0), start);
  AnimationOutput o = c.sample(time);
  expectVec(o.positionOffset, 0.08f * std::sin(3.5f * t), 0.12f * std::sin(6.5f * t), 0);
  expectVec(o.rotationOffset, 0.08f * std::sin(3.5f * t), 0.12f * std::sin(6.5f * t), 0.15f * std::cos(4.8f * t));
  EXPECT_NEAR(bs(o, "mouthFunnel"), 0.25f, kTol);

  c.trigger(AnimationCue::make(K::ghostShiver, 2.0), start);
  o = c.sample(time);
  expectVec(o.positionOffset, 0.014f * std::sin(50 * t), 0.01f * std::cos(45 * t), -0.15f);
  expectVec(o.scaleMultiplier, 0.92f, 0.92f, 0.92f);
  EXPECT_NEAR(bs(o, "browInnerUp"), 0.85f, kTol);

  c.trigger(AnimationCue::make(K::maskSob, 2.0), start);  // p = 0.5 is the hold
  o = c.sample(time);
  expectVec(o.positionOffset, 0, 0.008f * std::sin(30 * t) - 0.1f, 0);
  expectVec(o.rotationOffset, 0.35f, 0, 0);
  EXPECT_NEAR(bs(o, "mouthFrownLeft"), 0.85f, kTol);
}

TEST(CharacterAnimationController, MaskBowGaspAndSobEnvelopes) {
  AnimationOutput o = sampleAt(K::maskBow, 0.225);  // rise, w = 0.5
  expectVec(o.rotationOffset, 0.25f, 0, 0);
  expectVec(o.positionOffset, 0, -0.07f, 0);
  EXPECT_NEAR(bs(o, "eyeBlinkLeft"), 0.475f, kTol);
  o = sampleAt(K::maskBow, 0.5);  // hold
  expectVec(o.rotationOffset, 0.5f, 0, 0);
  EXPECT_EQ(o.blendWeight, 1.0f);
  EXPECT_NEAR(sampleAt(K::maskBow, 0.8).blendWeight, 0.5f, kTol);  // release
  EXPECT_NEAR(sampleAt(K::maskBow, 0.45).blendWeight, 1.0f, kTol);  // boundary

  o = sampleAt(K::maskGasp, 0.11);  // rise, w = 0.5
  expectVec(o.positionOffset, 0, 0.06f, -0.14f);
  expectVec(o.rotationOffset, 0.11f, 0, 0);
  EXPECT_NEAR(bs(o, "jawOpen"), 0.75f, kTol);  // not scaled by w
  EXPECT_NEAR(sampleAt(K::maskGasp, 0.22).blendWeight, 1.0f, kTol);
  EXPECT_NEAR(sampleAt(K::maskGasp, 0.61).blendWeight, 0.5f, kTol);

  o = sampleAt(K::maskSob, 0.2);  // rise, w = 0.5
  expectVec(o.positionOffset, 0, -0.05f, 0);
  expectVec(o.rotationOffset, 0.175f, 0, 0);
  EXPECT_NEAR(bs(o, "mouthPucker"), 0.15f, kTol);
  EXPECT_NEAR(sampleAt(K::maskSob, 0.825).blendWeight, 0.5f, kTol);
}

TEST(CharacterAnimationController, NodAndShakeTurnTheHeadWithZeroWeight) {
  for (double p : {0.0, 0.125, 0.3, 0.5, 0.875, 1.0}) {
    const AnimationOutput nod = sampleAt(K::maskNod, p);
    const AnimationOutput shake = sampleAt(K::maskShake, p);
    EXPECT_EQ(nod.blendWeight, 0.0f);
    EXPECT_EQ(shake.blendWeight, 0.0f);
    EXPECT_TRUE(nod.blendshapes.empty());
    EXPECT_EQ(nod.positionOffset, float3(0));
    const float pf = static_cast<float>(p), e = std::sin(kPi * pf), w = std::sin(4 * kPi * pf);
    expectVec(nod.rotationOffset, 0.22f * w * e, 0, 0);
    expectVec(shake.rotationOffset, 0, 0.25f * w * e, 0);
  }
  EXPECT_NEAR(sampleAt(K::maskNod, 0.125).rotationOffset.x, 0.22f * std::sin(kPi / 8), kTol);
}

// ---------------------------------------------------------------------------
// [SECTION] Completion, minimums, fades and restarts
// ---------------------------------------------------------------------------

TEST(CharacterAnimationController, EveryCueCompletesAndReturnsToNeutral) {
  const std::set<std::string> allowed = {
      "jawOpen",        "mouthFunnel",     "mouthSmileLeft", "mouthSmileRight", "mouthFrownLeft",
      "mouthFrownRight", "mouthPressLeft", "mouthPressRight", "mouthPucker",    "eyeWideLeft",
      "eyeWideRight",   "eyeBlinkLeft",    "eyeBlinkRight",  "eyeLookInLeft",   "cheekSquintLeft",
      "cheekSquintRight", "browInnerUp",   "browDownLeft",   "browDownRight"};
  for (K kind : AnimationCue::allKinds) {
    SCOPED_TRACE(AnimationCue::name(kind));
    CharacterAnimationController c;
    const AnimationCue cue = AnimationCue::make(kind, 1.5);
    c.trigger(cue, 4.0);
    for (int i = 0; i < 150; ++i) {
      const AnimationOutput o = c.sample(4.0 + i * 0.01);
      for (const auto& [name, value] : o.blendshapes) {
        EXPECT_TRUE(allowed.count(std::string(name))) << name;
        EXPECT_TRUE(value >= 0 && value <= 1) << name << " " << value;
      }
      EXPECT_TRUE(c.isPlaying());
    }
    c.sample(5.5);  // e == D: the last frame of the cue
    EXPECT_FALSE(c.isPlaying());
    EXPECT_FALSE(c.activeCue());
    EXPECT_EQ(c.activeCueName(), "Idle");
    const AnimationOutput after = c.sample(5.51);
    EXPECT_EQ(after.blendWeight, 0.0f);
    EXPECT_EQ(after.positionOffset, float3(0));
    EXPECT_EQ(after.rotationOffset, float3(0));
    EXPECT_EQ(after.opacityMultiplier, kind == K::ghostFlyOut ? 0.0f : 1.0f);
  }
}

TEST(CharacterAnimationController, DurationBelowMinimumPlaysForTheMinimum) {
  CharacterAnimationController c;
  c.trigger(AnimationCue::make(K::maskNod, 0), 0.0);
  c.sample(0.39);
  EXPECT_TRUE(c.isPlaying());
  c.sample(0.4);
  EXPECT_FALSE(c.isPlaying());

  c.trigger(AnimationCue::make(K::maskBow, std::nan("")), 10.0);
  EXPECT_NEAR(c.sample(10.25).blendWeight, 1.0f, kTol);  // p = 0.5 of 0.5 s: the hold
}

TEST(CharacterAnimationController, FadeOutEasesTheCapturedOutputToNeutral) {
  CharacterAnimationController c;
  c.trigger(AnimationCue::make(K::ghostFlyIn, 2.0), 0);
  const AnimationOutput captured = c.sample(0.0);  // scale 0.3, opacity 0, pitch -0.35
  c.reset(true, 0.0);
  EXPECT_FALSE(c.activeCue());
  EXPECT_EQ(c.activeCueName(), "Idle");
  EXPECT_TRUE(c.isFadingOut());

  // f = 1 at the fade's start: the captured output unchanged.
  AnimationOutput o = c.sample(0.0);
  expectVec(o.positionOffset, captured.positionOffset.x, captured.positionOffset.y, captured.positionOffset.z);
  expectVec(o.scaleMultiplier, 0.3f, 0.3f, 0.3f);
  EXPECT_NEAR(o.opacityMultiplier, 0, kTol);
  EXPECT_EQ(o.blendWeight, 1.0f);
  EXPECT_EQ(o.blendshapes, captured.blendshapes);

  // Half-way (S(0.5) = 0.5): f = 0.5.
  o = c.sample(0.175);
  expectVec(o.positionOffset, 0, 1.6f, -3.5f);
  expectVec(o.rotationOffset, -0.175f, 0, 0);
  expectVec(o.scaleMultiplier, 0.65f, 0.65f, 0.65f);
  EXPECT_NEAR(o.opacityMultiplier, 0.5f, kTol);
  EXPECT_NEAR(o.blendWeight, 0.5f, kTol);
  EXPECT_EQ(o.blendshapes, captured.blendshapes);  // its effect falls with the weight
  EXPECT_TRUE(c.isPlaying());

  // At 0.35 s the fade is over.
  EXPECT_EQ(c.sample(0.35), AnimationOutput::neutral());
  EXPECT_FALSE(c.isPlaying());
  EXPECT_FALSE(c.isFadingOut());
  EXPECT_EQ(c.sample(0.36), AnimationOutput::neutral());
}

TEST(CharacterAnimationController, ResetWithoutFadeOrWhileIdleStopsAtOnce) {
  CharacterAnimationController c;
  c.reset(true, 1.0);  // nothing playing: same as no fade
  EXPECT_FALSE(c.isFadingOut());
  EXPECT_EQ(c.sample(1.0), AnimationOutput::neutral());

  c.trigger(AnimationCue::make(K::maskBow, 2.5), 2.0);
  c.reset(false, 3.0);
  EXPECT_FALSE(c.isPlaying());
  EXPECT_EQ(c.activeCueName(), "Idle");
  EXPECT_EQ(c.sample(3.0), AnimationOutput::neutral());
}

TEST(CharacterAnimationController, TriggerWhilePlayingRestartsWithoutCrossFade) {
  CharacterAnimationController c;
  c.trigger(AnimationCue::make(K::maskBow, 2.0), 0);
  EXPECT_NEAR(c.sample(1.0).rotationOffset.x, 0.5f, kTol);
  c.trigger(AnimationCue::make(K::maskGasp, 2.0), 1.0);
  const AnimationOutput o = c.sample(1.0);  // gasp at p = 0: w = 0
  EXPECT_EQ(o.rotationOffset, float3(0));
  EXPECT_EQ(o.blendWeight, 0.0f);
  EXPECT_EQ(c.activeCueName(), "Mask Gasp");

  // A trigger during a fade cancels the fade.
  c.reset(true, 1.2);
  c.trigger(AnimationCue::make(K::maskGlare, 2.0), 1.3);
  EXPECT_FALSE(c.isFadingOut());
  EXPECT_NEAR(c.sample(2.3).blendWeight, 1.0f, kTol);
}

// ---------------------------------------------------------------------------
// [SECTION] Threads
// ---------------------------------------------------------------------------

TEST(CharacterAnimationController, CallsFromOtherThreadsRunOnTheMainQueue) {
  CharacterAnimationController c;
  MainQueue::shared().drain();
  std::thread([&] { c.trigger(AnimationCue::make(K::ghostSpin, 2.0), 1.0); }).join();
  EXPECT_FALSE(c.activeCue());  // not yet: posted
  MainQueue::shared().drain();
  ASSERT_TRUE(c.activeCue());
  EXPECT_EQ(c.activeCueName(), "Ghost 360\xC2\xB0 Spin");

  std::thread([&] { c.reset(false, 2.0); }).join();
  EXPECT_TRUE(c.activeCue());
  MainQueue::shared().drain();
  EXPECT_FALSE(c.activeCue());
}

}  // namespace
}  // namespace velmora
