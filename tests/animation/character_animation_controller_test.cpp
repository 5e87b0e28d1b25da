#include "animation/CharacterAnimationController.h"

// Index of this file:
//   [SECTION] Curves of the cues
//   [SECTION] Completion, minimums, fades and restarts
//   [SECTION] Idle, trigger and threads

#include <gtest/gtest.h>

#include <cmath>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/MainQueue.h"

namespace velmora {
namespace {

using K = AnimationCue::Kind;
constexpr float kTol = 1e-5f;
constexpr float kPi = 3.14159265358979f;

// ---------------------------------------------------------------------------
// [SECTION] Curves of the cues
// ---------------------------------------------------------------------------

// Keyframes of every cue at its phase anchors (a 2 s cue started at 10 s, so
// the absolute-time jitter is at t = 10 + 2p). NaN: not checked.
TEST(CharacterAnimationController, KeyframesOfEveryCue) {
  constexpr float N = NAN;
  const float3 X(N);
  struct Key {
    K kind;
    double p;
    float3 pos, rot, scale;
    float opacity, weight;
    std::vector<std::pair<const char*, float>> shapes;
    int shapeCount;  // -1: not checked
  };
  const float e4 = 0.70710678f;  // sin(pi / 4)
  const Key keys[] = {
      {K::ghostFlyIn, 0.0, {0, 3.2f, -7}, {-0.35f, 0, 0}, float3(0.3f), 0, 1, {}, -1},  // far up, behind, invisible
      {K::ghostFlyIn, 0.325, {0.0722669f, 1.5f, -3.35f}, {-0.175f, 0.0496621f, 0.18f}, {N, 0.802775f, N}, 1, N, {}, -1},
      {K::ghostFlyIn, 0.65, float3(0), X, float3(1), N, 1, {}, -1},  // settle begins
      {K::ghostFlyIn, 0.825, {0, -5.18300e-5f, -4.14640e-5f}, {-5.18300e-5f, 0, 0}, X, N, 0.5f, {{"jawOpen", 0.15f}}, 5},
      {K::ghostFlyOut, 0.1, {0, -0.1f, 0}, {0.06f, 0, 0}, X, N, 0.25f, {}, 2},  // crouch
      {K::ghostFlyOut, 0.6, {0.168294f, 1.9f, -4}, {-0.125f, 0.15f, 0.175f}, float3(0.625f), 0.743286f, 1, {}, 4},
      {K::ghostSpook, 0.09, {0, -0.02f, 0.16f}, {-0.05f, 0, 0}, float3(1.01f), N, 0.5f, {{"jawOpen", 0.95f}}, -1},
      {K::ghostSpook, 0.3, {-0.00598407f, -0.0459852f, 0.32f}, X, float3(1.02f), N, 1, {}, -1},  // hold: jitter
      {K::ghostSpook, 0.71, {0, -0.02f, 0.16f}, X, X, N, 0.5f, {}, -1},
      {K::ghostSpin, 0.5, {0, 0.14f, 0}, {N, kPi, N}, X, N, 1, {}, -1},
      {K::ghostSpin, 1.0, X, {N, 2 * kPi, N}, X, N, N, {}, -1},  // one full turn
      {K::ghostPeek, 0.2, {-0.275f, N, N}, X, X, N, N, {}, -1},
      {K::ghostPeek, 0.5, {-0.55f, -0.04f, 0.05f}, {0, 0.15f, 0.24f}, X, N, N, {{"eyeLookInLeft", 0.8f}}, -1},
      {K::ghostLaugh, 0.5, float3(0), {0, 0, 0.08f}, X, N, N, {{"mouthSmileLeft", 1}, {"cheekSquintRight", 0.6f}}, -1},
      {K::maskLaugh, 0.25, {0, -0.05f * e4, 0}, {-0.22f * e4, 0, 0}, X, N, N, {{"jawOpen", 0.6f * e4}}, -1},
      {K::maskGlare, 0.5, {0, 0, 0.16f}, {0.18f, 0, 0}, X, N, N, {{"browInnerUp", 0}, {"mouthPressLeft", 0.8f}}, -1},
      {K::ghostWobble, 0.5, {0.0574380f, 0.0823771f, 0}, {0.0574380f, 0.0823771f, -0.123198f}, X, N, N,
       {{"mouthFunnel", 0.25f}}, -1},
      {K::ghostShiver, 0.5, {-0.00307278f, 0.00197843f, -0.15f}, X, float3(0.92f), N, N, {{"browInnerUp", 0.85f}}, -1},
      {K::maskSob, 0.2, {0, -0.05f, 0}, {0.175f, 0, 0}, X, N, N, {{"mouthPucker", 0.15f}}, -1},  // rise
      {K::maskSob, 0.5, {0, -0.101059f, 0}, {0.35f, 0, 0}, X, N, N, {{"mouthFrownLeft", 0.85f}}, -1},  // hold
      {K::maskSob, 0.825, X, X, X, N, 0.5f, {}, -1},
      {K::maskBow, 0.225, {0, -0.07f, 0}, {0.25f, 0, 0}, X, N, N, {{"eyeBlinkLeft", 0.475f}}, -1},
      {K::maskBow, 0.45, X, X, X, N, 1, {}, -1},
      {K::maskBow, 0.5, X, {0.5f, 0, 0}, X, N, 1, {}, -1},
      {K::maskBow, 0.8, X, X, X, N, 0.5f, {}, -1},
      {K::maskGasp, 0.11, {0, 0.06f, -0.14f}, {0.11f, 0, 0}, X, N, N, {{"jawOpen", 0.75f}}, -1},
      {K::maskGasp, 0.22, X, X, X, N, 1, {}, -1},
      {K::maskGasp, 0.61, X, X, X, N, 0.5f, {}, -1},
      // Nod and shake turn the head with zero weight: 0.22 / 0.25 sin(4 pi p) sin(pi p).
      {K::maskNod, 0.0, float3(0), float3(0), X, N, 0, {}, 0},
      {K::maskNod, 0.125, float3(0), {0.0841904f, 0, 0}, X, N, 0, {}, 0},
      {K::maskNod, 0.3, float3(0), {-0.104616f, 0, 0}, X, N, 0, {}, 0},
      {K::maskNod, 0.875, float3(0), {-0.0841904f, 0, 0}, X, N, 0, {}, 0},
      {K::maskShake, 0.125, X, {0, 0.0956709f, 0}, X, N, 0, {}, 0},
      {K::maskShake, 0.3, X, {0, -0.118882f, 0}, X, N, 0, {}, 0},
      {K::maskShake, 1.0, X, float3(0), X, N, 0, {}, 0},
  };
  for (const Key& k : keys) {
    SCOPED_TRACE(std::string(AnimationCue::name(k.kind)) + " at p = " + std::to_string(k.p));
    CharacterAnimationController c;
    c.trigger(AnimationCue::make(k.kind, 2.0), 10.0);  // 2 s: above every kind's minimum
    const AnimationOutput o = c.sample(10.0 + 2.0 * k.p);
    // Position, rotation, scale, (opacity, weight): each component within kTol unless not checked.
    const float3 got[] = {o.positionOffset, o.rotationOffset, o.scaleMultiplier, {o.opacityMultiplier, o.blendWeight, 0}};
    const float3 expected[] = {k.pos, k.rot, k.scale, {k.opacity, k.weight, N}};
    for (int f = 0; f < 4; ++f)
      for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(std::isnan(expected[f][i]) || std::fabs(got[f][i] - expected[f][i]) <= kTol)
            << "field " << f << "[" << i << "] is " << got[f][i] << ", not " << expected[f][i];
    // Not scaled by the weight; at() throws when missing.
    for (const auto& [name, value] : k.shapes) EXPECT_NEAR(o.blendshapes.at(name), value, kTol) << name;
    EXPECT_TRUE(k.shapeCount < 0 || o.blendshapes.size() == static_cast<std::size_t>(k.shapeCount)) << o.blendshapes.size();
  }
}

// After its last frame the flown-out ghost stays offstage (scale 0.25,
// opacity 0, no weight) until any trigger or a reset brings it back.
TEST(CharacterAnimationController, GhostFlyOutStaysOffstageUntilATriggerOrReset) {
  CharacterAnimationController c;
  c.trigger(AnimationCue::make(K::ghostFlyOut, 2.2), 0);
  EXPECT_EQ(c.sample(2.2).scaleMultiplier, float3(0.25f));  // last frame of the cue
  for (double t : {2.3, 100.0}) {
    const AnimationOutput o = c.sample(t);
    EXPECT_EQ(std::tuple(o.opacityMultiplier, o.blendWeight, o.positionOffset, o.rotationOffset),
              std::tuple(0.0f, 0.0f, float3(0), float3(0))) << t;
  }
  EXPECT_TRUE(c.isOffstage());
  c.trigger(AnimationCue::make(K::ghostSpin, 2), 200);
  EXPECT_FALSE(c.isOffstage());
  c.trigger(AnimationCue::make(K::ghostFlyOut, 0.5), 300);
  c.sample(301);
  ASSERT_TRUE(c.isOffstage());
  c.reset(true, 302);
  EXPECT_EQ((std::tuple{c.isOffstage(), c.sample(303)}), std::tuple(false, AnimationOutput::neutral()));
}

// ---------------------------------------------------------------------------
// [SECTION] Completion, minimums, fades and restarts
// ---------------------------------------------------------------------------

// Every cue, sampled finely: finite, weight and opacity in [0, 1], only the
// listed expressions in [0, 1], no jump between neighbouring samples (a
// wrong phase boundary or a missing clamp), and neutral after its end
// (ghostFlyOut stays offstage). The ghost's forward spook stays in frame.
TEST(CharacterAnimationController, EveryCueIsContinuousBoundedAndEndsNeutral) {
  const std::set<std::string> allowed = {
      "jawOpen",        "mouthFunnel",     "mouthSmileLeft", "mouthSmileRight", "mouthFrownLeft",
      "mouthFrownRight", "mouthPressLeft", "mouthPressRight", "mouthPucker",    "eyeWideLeft",
      "eyeWideRight",   "eyeBlinkLeft",    "eyeBlinkRight",  "eyeLookInLeft",   "cheekSquintLeft",
      "cheekSquintRight", "browInnerUp",   "browDownLeft",   "browDownRight"};
  float maxSpookZ = 0;
  for (K kind : AnimationCue::allKinds) {
    SCOPED_TRACE(AnimationCue::name(kind));
    CharacterAnimationController c;
    c.trigger(AnimationCue::make(kind, 1.5), 4.0);
    AnimationOutput previous = c.sample(4.0);
    for (int i = 1; i < 512; ++i) {
      const AnimationOutput o = c.sample(4.0 + 1.5 * i / 512.0);
      ASSERT_TRUE(c.isPlaying()) << i;
      for (const auto& [name, value] : o.blendshapes) {
        EXPECT_TRUE(allowed.count(std::string(name))) << name;
        ASSERT_TRUE(value >= 0 && value <= 1) << name << " " << value << " at " << i;
      }
      for (float v : {o.blendWeight, o.opacityMultiplier})
        ASSERT_TRUE(v >= -1e-6f && v <= 1 + 1e-6f) << v << " at " << i;  // rounding
      const float jumps[] = {glm::length(o.positionOffset - previous.positionOffset),
                             glm::length(o.rotationOffset - previous.rotationOffset),
                             glm::length(o.scaleMultiplier - previous.scaleMultiplier),
                             std::fabs(o.opacityMultiplier - previous.opacityMultiplier),
                             std::fabs(o.blendWeight - previous.blendWeight)};
      // The one step the curves have: ghostFlyOut's crouch ends pitched 0.12
      // at weight 0.5, its swoop starts from 0 at weight 1 (p = 0.2).
      const bool crouchEnd = kind == K::ghostFlyOut && i == 103;
      for (int f = 0; f < 5 && !crouchEnd; ++f) ASSERT_LT(jumps[f], 0.05f) << "field " << f << " at " << i;  // NaN fails too
      if (kind == K::ghostSpook) maxSpookZ = std::max(maxSpookZ, o.positionOffset.z);
      previous = o;
    }
    c.sample(5.5);  // e == D: the last frame of the cue
    EXPECT_EQ(std::tuple(c.isPlaying(), c.activeCue(), c.activeCueName()), std::tuple(false, std::nullopt, "Idle"));
    EXPECT_TRUE(kind == K::ghostFlyOut || c.sample(5.51) == AnimationOutput::neutral());  // offstage: its own test
  }
  EXPECT_TRUE(maxSpookZ > 0.3f && maxSpookZ <= 0.3200001f) << maxSpookZ;
}

// A fade eases the output captured at reset (here the fly-in's first frame:
// scale 0.3, opacity 0, pitch -0.35, at (0, 3.2, -7)) to neutral over
// 0.35 s by S(t); the expressions stay and fall with the weight. Without a
// fade, or with nothing playing, reset stops at once; a trigger restarts
// without cross-fade and cancels a running fade; a duration below the cue's
// minimum plays for the minimum.
TEST(CharacterAnimationController, ResetFadesOrStopsAndTriggerRestartsWithoutCrossFadeForAtLeastTheMinimum) {
  CharacterAnimationController c;
  c.trigger(AnimationCue::make(K::ghostFlyIn, 2.0), 0);
  const AnimationOutput captured = c.sample(0.0);
  c.reset(true, 0.0);
  EXPECT_TRUE(!c.activeCue() && c.isFadingOut());
  struct Row {
    double t;
    float3 pos, rot;
    float scale, opacity, weight;
  };
  const Row rows[] = {{0.0, {0, 3.2f, -7}, {-0.35f, 0, 0}, 0.3f, 0, 1},  // f = 1: the captured output
                      {0.175, {0, 1.6f, -3.5f}, {-0.175f, 0, 0}, 0.65f, 0.5f, 0.5f}};  // S(0.5) = 0.5
  for (const Row& r : rows) {
    const AnimationOutput o = c.sample(r.t);
    const float3 got[] = {o.positionOffset, o.rotationOffset, o.scaleMultiplier, {o.opacityMultiplier, o.blendWeight, 0}};
    const float3 expected[] = {r.pos, r.rot, float3(r.scale), {r.opacity, r.weight, 0}};
    for (int f = 0; f < 4; ++f) EXPECT_NEAR(glm::length(got[f] - expected[f]), 0, kTol) << r.t << ", field " << f;
    EXPECT_EQ(o.blendshapes, captured.blendshapes) << r.t;
    EXPECT_TRUE(c.isPlaying());
  }
  EXPECT_EQ(c.sample(0.35), AnimationOutput::neutral());
  EXPECT_FALSE(c.isPlaying() || c.isFadingOut());

  c.reset(true, 1.0);  // nothing playing: same as no fade
  EXPECT_FALSE(c.isFadingOut());
  c.trigger(AnimationCue::make(K::maskBow, 2.5), 2.0);
  c.reset(false, 3.0);
  EXPECT_EQ((std::tuple{c.isPlaying(), c.activeCueName(), c.sample(3.0)}),
            std::tuple(false, "Idle", AnimationOutput::neutral()));

  c.trigger(AnimationCue::make(K::maskBow, 2.0), 10);
  EXPECT_NEAR(c.sample(11).rotationOffset.x, 0.5f, kTol);
  c.trigger(AnimationCue::make(K::maskGasp, 2.0), 11);
  const AnimationOutput o = c.sample(11);  // gasp at p = 0: w = 0
  EXPECT_EQ(std::pair(o.rotationOffset, o.blendWeight), std::pair(float3(0), 0.0f));
  EXPECT_EQ(c.activeCueName(), "Mask Gasp");
  c.reset(true, 11.2);
  c.trigger(AnimationCue::make(K::maskGlare, 2.0), 11.3);
  EXPECT_FALSE(c.isFadingOut());
  EXPECT_NEAR(c.sample(12.3).blendWeight, 1.0f, kTol);

  c.trigger(AnimationCue::make(K::maskNod, 0), 64.0);  // a power of two: 64.4 - 64 is not below 0.4
  c.sample(64.39);
  EXPECT_TRUE(c.isPlaying());
  c.sample(64.4);
  EXPECT_FALSE(c.isPlaying());
  c.trigger(AnimationCue::make(K::maskBow, std::nan("")), 128.0);
  EXPECT_NEAR(c.sample(128.25).blendWeight, 1.0f, kTol);  // p = 0.5 of 0.5 s: the hold
}

// ---------------------------------------------------------------------------
// [SECTION] Idle, trigger and threads
// ---------------------------------------------------------------------------

// Idle until a trigger, which publishes the cue; calls from other threads
// are posted to the main queue.
TEST(CharacterAnimationController, IdleUntilATriggerAndCallsFromOtherThreadsRunOnTheMainQueue) {
  CharacterAnimationController c;
  EXPECT_EQ((std::tuple{c.sample(0.5), c.activeCue(), c.activeCueName()}),
            std::tuple(AnimationOutput::neutral(), std::nullopt, "Idle"));
  int notified = 0;
  c.observe([&] { ++notified; });
  MainQueue::shared().drain();
  std::thread([&] { c.trigger(AnimationCue::make(K::maskSob, 2.6), 1.0); }).join();
  EXPECT_FALSE(c.activeCue());  // not yet: posted
  MainQueue::shared().drain();
  EXPECT_EQ(std::tuple(c.activeCue(), c.activeCueName(), c.isPlaying(), notified > 0),
            std::tuple(AnimationCue::make(K::maskSob, 2.6), "Mask Tragedy Sob", true, true));

  std::thread([&] { c.reset(false, 2.0); }).join();
  EXPECT_TRUE(c.activeCue());
  MainQueue::shared().drain();
  EXPECT_FALSE(c.activeCue());
}

}  // namespace
}  // namespace velmora
