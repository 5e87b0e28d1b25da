// The tracking-loss stage as the scene shows it, on one injected clock for
// the state and the cues: the character eases to neutral when the phone
// stops, cues keep playing over the neutral face, and once packets flow
// again the character shows exactly the published values (bit for bit over
// many packets: tracking_loss_ease_test).
#include <gtest/gtest.h>

#include "animation/CharacterAnimationController.h"
#include "scene/MaskSceneManager.h"
#include "support/StateFixture.h"

namespace velmora {
namespace {

class SceneTrackingLossTest : public ::testing::Test, protected test::StateFixture {
 protected:
  SceneTrackingLossTest() : test::StateFixture(true, 50.0) {}
  CharacterAnimationController animation;
  MaskSceneManager scene{state, animation, [this] { return now; }};

  float weightOf(const char* name) {
    return scene.morpher()->weight(static_cast<std::size_t>(*scene.targetIndex(name)));
  }
  void packet() {
    state.ingestPacket(BlendshapeMap{{"jawOpen", 0.6f}, {"browInnerUp", 0.4f}}, float3(0.1f, 0.2f, -0.1f),
                       std::nullopt, "10.0.0.2:5000");
  }
  // One tick of the application: the loss stage moves, then the scene.
  void tick() {
    state.updateTrackingLoss();
    scene.updateTracking(state);
  }
};

TEST_F(SceneTrackingLossTest, TheFaceEasesToNeutralAndBackWhileCuesPlayOverIt) {
  packet();
  tick();
  const float jaw = state.blendshapes().at("jawOpen");
  const float3 head = state.headRotation();
  ASSERT_GT(jaw, 0.5f);
  ASSERT_NE(head, float3(0.0f));

  // Half-way through the ease (0.5 s timeout, then half of the second).
  now += 1.0;
  tick();
  EXPECT_TRUE(state.isTrackingLost());
  EXPECT_NEAR(weightOf("jawOpen"), 0.5f * jaw, 1e-6f);
  EXPECT_NEAR(scene.maskNode()->eulerAngles.y, 0.5f * head.y, 1e-6f);
  // The published values are untouched by the stage.
  EXPECT_EQ(state.blendshapes().at("jawOpen"), jaw);
  EXPECT_EQ(state.headRotation(), head);

  // Neutral, and a cue plays over it as it would over a live face.
  now += 1.0;
  tick();
  EXPECT_EQ(weightOf("jawOpen"), 0.0f);
  EXPECT_EQ(weightOf("browInnerUp"), 0.0f);
  EXPECT_EQ(scene.maskNode()->eulerAngles, float3(0.0f));
  animation.trigger(AnimationCue::make(AnimationCue::Kind::maskGasp, 2.0), now);
  now += 0.3;
  tick();
  CharacterAnimationController reference;
  reference.trigger(AnimationCue::make(AnimationCue::Kind::maskGasp, 2.0), now - 0.3);
  const AnimationOutput cue = reference.sample(now);
  ASSERT_GT(cue.blendWeight, 0.0f);
  EXPECT_NEAR(weightOf("jawOpen"), cue.blendWeight * cue.blendshapes.at("jawOpen"), 1e-6f);
  EXPECT_NEAR(scene.maskNode()->eulerAngles.x, cue.rotationOffset.x, 1e-6f);
  EXPECT_TRUE(state.isTrackingLost());

  // The phone is back: a quarter second later the live face shows fully.
  animation.reset(false, now);
  packet();
  tick();
  EXPECT_FALSE(state.isTrackingLost());
  EXPECT_EQ(weightOf("jawOpen"), 0.0f);  // the ease in starts from neutral
  now += 0.125;
  packet();
  tick();
  EXPECT_NEAR(weightOf("jawOpen"), 0.5f * state.blendshapes().at("jawOpen"), 1e-6f);
  now += 0.125;
  packet();
  tick();
  EXPECT_EQ(weightOf("jawOpen"), state.blendshapes().at("jawOpen"));

  // A timeout of 0 keeps the last face however long the phone is away.
  state.setTrackingTimeout(0.0);
  now += 30.0;
  tick();
  EXPECT_FALSE(state.isTrackingLost());
  EXPECT_EQ(weightOf("jawOpen"), state.blendshapes().at("jawOpen"));
}

}  // namespace
}  // namespace velmora
