// The scene manager's per-frame update on the CPU: model switching, the
// expression blend, pose, opacity and lighting rules, and the frame
// description it captures. No GL: nothing here renders.
//
// Index of this file:
//   [SECTION] Fixture
//   [SECTION] Building and switching characters
//   [SECTION] Live tracking and cues on the character
//   [SECTION] Lighting and frame descriptions
//   [SECTION] Rendering only when someone takes the frame

#include <gtest/gtest.h>

#include <cmath>

#include "animation/CharacterAnimationController.h"
#include "base/SettingsStore.h"
#include "scene/MaskSceneManager.h"
#include "support/StateFixture.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

// ---------------------------------------------------------------------------
// [SECTION] Fixture
// ---------------------------------------------------------------------------

class SceneManagerTest : public ::testing::Test, protected test::StateFixture {
 protected:
  SceneManagerTest() : test::StateFixture(false, 10.0) {}
  CharacterAnimationController animation;
  MaskSceneManager scene{state, animation, [this] { return now; }};

  float weightOf(const char* name) {
    auto index = scene.targetIndex(name);
    EXPECT_TRUE(index.has_value()) << name;
    return index ? scene.morpher()->weight(static_cast<std::size_t>(*index)) : -1.0f;
  }
  // The controller's output for the same cue at the same time, from a second
  // player, so the expectations follow the curves without restating them.
  AnimationOutput referenceOutput(AnimationCue cue, double start, double at) {
    CharacterAnimationController reference;
    reference.trigger(cue, start);
    return reference.sample(at);
  }
};

// ---------------------------------------------------------------------------
// [SECTION] Building and switching characters
// ---------------------------------------------------------------------------

TEST_F(SceneManagerTest, InitBuildsTheStateModelAndTheRig) {
  ASSERT_TRUE(scene.currentModelType().has_value());
  EXPECT_EQ(*scene.currentModelType(), CharacterModelType::theatricalMask);
  ASSERT_TRUE(scene.maskNode());
  EXPECT_EQ(scene.maskNode()->parent(), scene.scene().get());
  EXPECT_FALSE(scene.ghostRootNode());
  EXPECT_EQ(scene.cameraNode()->position, float3(0.0f, 0.0f, 3.2f));
  EXPECT_EQ(scene.camera().verticalFieldOfViewDegrees, 45.0f);
  EXPECT_EQ(scene.camera().nearPlane, 0.1f);
  EXPECT_EQ(scene.camera().farPlane, 100.0f);
  // init applied the state's lighting at its level.
  ASSERT_TRUE(scene.appliedLighting().has_value());
  EXPECT_EQ(*scene.appliedLighting(), state.lighting());
  EXPECT_EQ(*scene.appliedMaster(), state.lightIntensity());
  EXPECT_EQ(scene.lightRig(), LightRig::applied(state.lighting(), state.lightIntensity()));
  for (const auto& light : {scene.keyLightNode(), scene.fillLightNode(), scene.rimLightNode()})
    EXPECT_EQ(light->parent(), scene.scene().get());
  EXPECT_TRUE(scene.environment());
}

TEST_F(SceneManagerTest, SwitchingToTheGhostAndBackRebuildsAndDropsTheEyes) {
  const auto maskMap = scene.targetNameToIndex();
  const auto mask = scene.maskNode();
  scene.switchModel(CharacterModelType::theatricalMask);  // same model: nothing happens
  EXPECT_EQ(scene.maskNode(), mask);

  state.setCharacterModel(CharacterModelType::cartoonGhost);
  scene.updateTracking(state);
  EXPECT_EQ(*scene.currentModelType(), CharacterModelType::cartoonGhost);
  ASSERT_TRUE(scene.ghostRootNode());
  EXPECT_EQ(scene.ghostRootNode(), scene.maskNode());
  ASSERT_TRUE(scene.ghostLeftEyeNode());
  ASSERT_TRUE(scene.ghostRightEyeNode());
  EXPECT_EQ(scene.ghostLeftEyeNode()->name, "LeftEye");
  EXPECT_EQ(scene.ghostRightEyeNode()->name, "RightEye");
  EXPECT_EQ(mask->parent(), nullptr);  // the mask left the scene
  EXPECT_NE(scene.targetNameToIndex(), maskMap);

  state.setCharacterModel(CharacterModelType::theatricalMask);
  scene.updateTracking(state);
  EXPECT_EQ(*scene.currentModelType(), CharacterModelType::theatricalMask);
  EXPECT_FALSE(scene.ghostRootNode());
  EXPECT_FALSE(scene.ghostLeftEyeNode());
  EXPECT_FALSE(scene.ghostRightEyeNode());
  EXPECT_EQ(scene.targetNameToIndex(), maskMap);
  EXPECT_NE(scene.maskNode(), mask);  // a fresh node
  int characters = 0;
  for (const auto& child : scene.scene()->children()) characters += child->geometry || !child->children().empty();
  EXPECT_EQ(characters, 1);
}

// ---------------------------------------------------------------------------
// [SECTION] Live tracking and cues on the character
// ---------------------------------------------------------------------------

TEST_F(SceneManagerTest, WithoutACueTheMorphWeightsAreTheLiveValues) {
  EXPECT_EQ(scene.targetIndex("JAWOPEN"), scene.targetIndex("jawOpen"));  // any case
  EXPECT_FALSE(scene.targetIndex("tongueOut").has_value());  // the mask has no tongue
  // A sender's own spelling of a name still finds its target (any case).
  state.setBlendshapes({{"jawOpen", 0.3f}, {"browInnerUp", 0.7f}, {"tongueOut", 1.0f}, {"notAShape", 0.5f},
                        {"BROWDOWNLEFT", 0.4f}});
  scene.updateTracking(state);
  EXPECT_EQ(weightOf("jawOpen"), 0.3f);
  EXPECT_EQ(weightOf("browInnerUp"), 0.7f);
  EXPECT_EQ(weightOf("browDownLeft"), 0.4f);
  EXPECT_EQ(weightOf("mouthSmileLeft"), 0.0f);
  // Rest pose, full opacity.
  EXPECT_EQ(scene.maskNode()->eulerAngles, float3(0.0f));
  EXPECT_EQ(scene.maskNode()->position, float3(0.0f));
  EXPECT_EQ(scene.maskNode()->scale, float3(1.0f));
  EXPECT_EQ(scene.maskNode()->opacity, 1.0f);
}

TEST_F(SceneManagerTest, ACueBlendsItsChannelsOverLiveTrackingByItsWeight) {
  // Early in the gasp's rise the weight is strictly between 0 and 1.
  const auto cue = AnimationCue::make(AnimationCue::Kind::maskGasp, 2.0);
  const double start = now;
  animation.trigger(cue, start);
  now = start + 0.1;
  const AnimationOutput out = referenceOutput(cue, start, now);
  ASSERT_GT(out.blendWeight, 0.0f);
  ASSERT_LT(out.blendWeight, 1.0f);
  const float w = out.blendWeight;

  state.setBlendshapes({{"browInnerUp", 0.2f}, {"eyeBlinkLeft", 0.6f}});
  scene.updateTracking(state);
  // Driven and live: moved towards the cue by w.
  EXPECT_NEAR(weightOf("browInnerUp"), w * out.blendshapes.at("browInnerUp") + (1 - w) * 0.2f, 1e-6f);
  // Driven, absent from the live map: blends from 0.
  EXPECT_NEAR(weightOf("jawOpen"), w * out.blendshapes.at("jawOpen"), 1e-6f);
  // Live only: untouched.
  EXPECT_EQ(weightOf("eyeBlinkLeft"), 0.6f);
  // Pose: the head's zero plus the cue's offsets.
  EXPECT_NEAR(scene.maskNode()->eulerAngles.x, out.rotationOffset.x, 1e-6f);
  EXPECT_NEAR(scene.maskNode()->position.z, out.positionOffset.z, 1e-6f);
}

TEST_F(SceneManagerTest, ACueStoppedOrEndedLeavesNoWeightTheLiveMapDoesNotName) {
  // No phone: the live map is empty. A gasp reset mid-way (no fade) must not
  // leave the mask frozen in it.
  const auto gasp = AnimationCue::make(AnimationCue::Kind::maskGasp, 2.0);
  animation.trigger(gasp, now);
  now += 0.8;
  scene.updateTracking(state);
  ASSERT_GT(weightOf("jawOpen"), 0.1f);
  ASSERT_GT(weightOf("eyeWideLeft"), 0.1f);
  animation.reset(false, now);
  now += 10.0;
  scene.updateTracking(state);
  for (std::size_t i = 0; i < scene.morpher()->targetCount(); ++i)
    EXPECT_EQ(scene.morpher()->weight(i), 0.0f) << "target " << i;

  // A sender that sends only some names, and a cue that ends on its own:
  // the named targets are the live values, every other one is back at 0.
  state.setBlendshapes({{"browInnerUp", 0.25f}, {"eyeBlinkRight", 0.5f}});
  animation.trigger(gasp, now);
  now += 0.8;
  scene.updateTracking(state);
  ASSERT_GT(weightOf("jawOpen"), 0.1f);
  now += 10.0;  // well past the gasp's end
  scene.updateTracking(state);
  EXPECT_EQ(weightOf("browInnerUp"), 0.25f);
  EXPECT_EQ(weightOf("eyeBlinkRight"), 0.5f);
  EXPECT_EQ(weightOf("jawOpen"), 0.0f);
  EXPECT_EQ(weightOf("mouthFunnel"), 0.0f);
  EXPECT_EQ(weightOf("eyeWideLeft"), 0.0f);
}

TEST_F(SceneManagerTest, TheGhostsMouthBackingFollowsItsBodyBackToRest) {
  state.setCharacterModel(CharacterModelType::cartoonGhost);
  scene.updateTracking(state);
  ASSERT_FALSE(scene.morpher()->followers.empty());
  const auto& backing = *scene.morpher()->followers.front();
  animation.trigger(AnimationCue::make(AnimationCue::Kind::ghostSpook, 2.0), now);
  now += 0.5;
  scene.updateTracking(state);
  ASSERT_GT(weightOf("jawOpen"), 0.1f);
  EXPECT_EQ(backing.weight(*scene.targetIndex("jawOpen")), weightOf("jawOpen"));
  animation.reset(false, now);
  scene.updateTracking(state);
  for (std::size_t i = 0; i < backing.targetCount(); ++i) EXPECT_EQ(backing.weight(i), 0.0f) << "target " << i;
}

TEST_F(SceneManagerTest, ARotationOnlyCueTurnsTheHeadAtWeightZero) {
  const auto cue = AnimationCue::make(AnimationCue::Kind::maskNod, 1.0);
  animation.trigger(cue, now);
  const double start = now;
  now += 0.13;
  const AnimationOutput out = referenceOutput(cue, start, now);
  ASSERT_EQ(out.blendWeight, 0.0f);
  ASSERT_GT(std::fabs(out.rotationOffset.x), 0.01f);
  state.setHeadRotation({0.1f, 0.2f, 0.3f});
  state.setBlendshapes({{"jawOpen", 0.4f}});
  scene.updateTracking(state);
  EXPECT_NEAR(scene.maskNode()->eulerAngles.x, 0.1f + out.rotationOffset.x, 1e-6f);
  EXPECT_NEAR(scene.maskNode()->eulerAngles.y, 0.2f, 1e-6f);
  EXPECT_NEAR(scene.maskNode()->eulerAngles.z, 0.3f, 1e-6f);
  EXPECT_EQ(weightOf("jawOpen"), 0.4f);  // the performer keeps every channel
}

TEST_F(SceneManagerTest, PositionScalesTheHeadAndTheGhostFloats) {
  state.setHeadPosition({0.1f, -0.2f, 0.05f});
  scene.updateTracking(state);
  EXPECT_NEAR(scene.maskNode()->position.x, 0.15f, 1e-6f);
  EXPECT_NEAR(scene.maskNode()->position.y, -0.3f, 1e-6f);
  EXPECT_NEAR(scene.maskNode()->position.z, 0.075f, 1e-6f);

  state.setCharacterModel(CharacterModelType::cartoonGhost);
  now = 0.7;
  scene.updateTracking(state);
  EXPECT_NEAR(scene.maskNode()->position.y, -0.3f + std::sin(1.8 * 0.7) * 0.025, 1e-6);
  EXPECT_NEAR(scene.maskNode()->eulerAngles.z, std::sin(1.2 * 0.7) * 0.015, 1e-6);
}

TEST_F(SceneManagerTest, OpacityIsClampedAndTheOffstageGhostIsHidden) {
  state.setMaskOpacity(1.7f);
  scene.updateTracking(state);
  EXPECT_EQ(scene.maskNode()->opacity, 1.0f);
  state.setMaskOpacity(-0.4f);
  scene.updateTracking(state);
  EXPECT_EQ(scene.maskNode()->opacity, 0.0f);
  state.setMaskOpacity(std::nanf(""));
  scene.updateTracking(state);
  EXPECT_EQ(scene.maskNode()->opacity, 0.0f);
  state.setMaskOpacity(0.5f);
  scene.updateTracking(state);
  EXPECT_EQ(scene.maskNode()->opacity, 0.5f);

  // After a fly-out the player keeps the ghost away with opacity 0.
  state.setMaskOpacity(1.0f);
  state.setCharacterModel(CharacterModelType::cartoonGhost);
  animation.trigger(AnimationCue::make(AnimationCue::Kind::ghostFlyOut, 0.5), now);
  now += 1.0;
  scene.updateTracking(state);  // the cue completes
  scene.updateTracking(state);
  EXPECT_EQ(scene.maskNode()->opacity, 0.0f);
}

TEST_F(SceneManagerTest, GhostEyesFollowLookAndBlink) {
  auto left = Node::make("LeftEye"), right = Node::make("RightEye");
  MaskSceneManager::updateGhostEyes(*left, *right,
                                    {{"eyeLookOutLeft", 1.0f}, {"eyeLookInRight", 1.0f}, {"eyeLookDownLeft", 0.5f},
                                     {"eyeBlinkLeft", 1.0f}, {"eyeBlinkRight", 0.5f}});
  EXPECT_NEAR(left->eulerAngles.x, 0.175f, 1e-6f);
  EXPECT_NEAR(left->eulerAngles.y, 0.35f, 1e-6f);
  EXPECT_NEAR(right->eulerAngles.y, 0.35f, 1e-6f);  // both eyes turn the same way
  EXPECT_EQ(right->eulerAngles.x, 0.0f);
  EXPECT_NEAR(left->scale.y, 0.08f, 1e-6f);  // closed eyes keep 8 %
  EXPECT_NEAR(right->scale.y, 0.54f, 1e-6f);
  MaskSceneManager::updateGhostEyes(*left, *right, {});
  EXPECT_EQ(left->eulerAngles, float3(0.0f));
  EXPECT_EQ(left->scale, float3(1.0f));

  // Through the per-frame update, with the ghost active.
  state.setCharacterModel(CharacterModelType::cartoonGhost);
  state.setBlendshapes({{"eyeBlinkRight", 1.0f}});
  scene.updateTracking(state);
  EXPECT_NEAR(scene.ghostRightEyeNode()->scale.y, 0.08f, 1e-6f);
  EXPECT_EQ(scene.ghostLeftEyeNode()->scale.y, 1.0f);
}

// ---------------------------------------------------------------------------
// [SECTION] Lighting and frame descriptions
// ---------------------------------------------------------------------------

TEST_F(SceneManagerTest, LightingIsAppliedOnlyWhenSettingsOrMasterChange) {
  const LightingSettings soft = *LightingSettings::presetMatching("Soft Front");
  scene.applyLighting(soft, 1.0f);
  EXPECT_EQ(scene.lightRig(), LightRig::applied(soft, 1.0f));
  EXPECT_EQ(scene.keyLightNode()->position, float3(0.0f, 0.0f, 3.0f));
  // The same again touches nothing: a light moved by hand stays where it is.
  scene.keyLightNode()->position = float3(9.0f);
  scene.applyLighting(soft, 1.0f);
  EXPECT_EQ(scene.keyLightNode()->position, float3(9.0f));
  // A new master level applies.
  scene.applyLighting(soft, 0.0f);
  EXPECT_EQ(scene.keyLightNode()->position, float3(0.0f, 0.0f, 3.0f));
  EXPECT_EQ(scene.lightRig().keyIntensity, 0.0f);
  EXPECT_EQ(scene.lightRig().environmentIntensity, 0.0f);
  // The per-frame update applies the state's lighting.
  state.setLightIntensity(2.0f);
  scene.updateTracking(state);
  EXPECT_EQ(*scene.appliedMaster(), 2.0f);
  EXPECT_EQ(scene.lightRig(), LightRig::applied(state.lighting(), 2.0f));
}

TEST_F(SceneManagerTest, TheFrameDescriptionIsASnapshotOfTheScene) {
  state.setBlendshapes({{"jawOpen", 0.5f}});
  state.setMaskOpacity(0.25f);
  scene.updateTracking(state);
  auto frame = scene.makeFrameDescription();
  EXPECT_EQ(frame->width, 1920);
  EXPECT_EQ(frame->height, 1080);
  EXPECT_EQ(frame->camera.position, float3(0.0f, 0.0f, 3.2f));
  EXPECT_EQ(frame->lights, scene.lightRig());
  EXPECT_EQ(frame->environment, scene.environment());
  ASSERT_FALSE(frame->items.empty());
  const auto& item = frame->items.front();
  EXPECT_EQ(item.geometry, scene.maskNode()->geometry);
  EXPECT_EQ(item.opacity, 0.25f);
  ASSERT_EQ(item.morphIndices.size(), 1u);  // only the non-zero weights travel
  EXPECT_EQ(item.morphIndices[0], *scene.targetIndex("jawOpen"));
  EXPECT_EQ(item.morphWeights[0], 0.5f);
  // Later changes do not reach a captured frame.
  state.setBlendshapes({{"jawOpen", 0.9f}});
  scene.updateTracking(state);
  EXPECT_EQ(item.morphWeights[0], 0.5f);
  EXPECT_GT(scene.makeFrameDescription()->sequence, frame->sequence);

  state.setMaskOpacity(0.0f);
  scene.updateTracking(state);
  EXPECT_TRUE(scene.makeFrameDescription()->items.empty());
}

TEST_F(SceneManagerTest, HiddenNodesAndOpacityMultiplyDownTheTree) {
  auto root = Node::make("root");
  auto child = Node::make("child");
  auto hidden = Node::make("hidden");
  auto geometry = std::make_shared<Geometry>();
  child->geometry = geometry;
  hidden->geometry = geometry;
  hidden->hidden = true;
  root->addChild(child);
  root->addChild(hidden);
  root->opacity = 0.5f;
  child->opacity = 0.5f;
  child->position = float3(1.0f, 0.0f, 0.0f);
  root->position = float3(0.0f, 2.0f, 0.0f);
  FrameDescription frame;
  frame.addNodes(*root);
  ASSERT_EQ(frame.items.size(), 1u);
  EXPECT_EQ(frame.items[0].opacity, 0.25f);
  EXPECT_EQ(float3(frame.items[0].worldTransform[3]), float3(1.0f, 2.0f, 0.0f));
}

// ---------------------------------------------------------------------------
// [SECTION] Rendering only when someone takes the frame
// ---------------------------------------------------------------------------

// Counts what the scene hands over (and the sizes); renders nothing.
class CountingRenderer : public FrameRenderer {
 public:
  int submitted = 0;
  std::vector<std::pair<int, int>> sizes;
  void setFrameHandler(FrameHandler) override {}
  void submit(std::shared_ptr<const FrameDescription> frame) override {
    ++submitted;
    sizes.emplace_back(frame->width, frame->height);
  }
  Result renderNow(std::shared_ptr<const FrameDescription>) override { return {nullptr, "not here"}; }
  void stop() override {}
};

TEST_F(SceneManagerTest, TickWithoutAnOutputOrConsumerRendersNothing) {
  auto owned = std::make_unique<CountingRenderer>();
  CountingRenderer* renderer = owned.get();
  scene.setRenderer(std::move(owned));
  state.setIsSyphonActive(false);
  state.setIsNDIActive(false);
  scene.tick();
  state.setIsSyphonActive(true);
  scene.tick();  // an output is on, but nothing consumes frames yet
  EXPECT_EQ(renderer->submitted, 0);
  const int token = scene.addFrameConsumer([](const std::shared_ptr<const RenderedFrame>&) {});
  scene.tick();
  EXPECT_EQ(renderer->submitted, 1);
  scene.removeFrameConsumer(token);
}

// A live view (the projector) is served by the same renderer: it gets a
// frame every tick with the outputs off, shares the outputs' frame at their
// size, and only a view of another size costs a second frame.
TEST_F(SceneManagerTest, LiveViewsShareTheOutputsFrameAtTheirSize) {
  auto owned = std::make_unique<CountingRenderer>();
  CountingRenderer* renderer = owned.get();
  scene.setRenderer(std::move(owned));
  const std::pair<int, int> output{MaskSceneManager::outputWidth, MaskSceneManager::outputHeight};
  const std::pair<int, int> other{1280, 720};
  state.setIsSyphonActive(false);
  state.setIsNDIActive(false);
  const int preview = scene.addFrameConsumer([](const std::shared_ptr<const RenderedFrame>&) {});
  const int view = scene.addView(output.first, output.second, [](const std::shared_ptr<const RenderedFrame>&) {});
  scene.tick();  // outputs off: the view still wants its frame, the consumer alone would not
  EXPECT_EQ(renderer->sizes, (std::vector{output}));
  state.setIsSyphonActive(true);
  renderer->sizes.clear();
  scene.tick();  // the consumer, the view and the output: one frame
  EXPECT_EQ(renderer->sizes, (std::vector{output}));
  scene.removeFrameConsumer(view);
  const int small = scene.addView(other.first, other.second, [](const std::shared_ptr<const RenderedFrame>&) {});
  renderer->sizes.clear();
  scene.tick();
  EXPECT_EQ(renderer->sizes, (std::vector{output, other}));
  state.setIsSyphonActive(false);
  renderer->sizes.clear();
  scene.tick();
  EXPECT_EQ(renderer->sizes, (std::vector{other}));
  scene.removeFrameConsumer(small);
  scene.removeFrameConsumer(preview);
  renderer->sizes.clear();
  scene.tick();
  EXPECT_TRUE(renderer->sizes.empty());
}

}  // namespace
}  // namespace velmora
