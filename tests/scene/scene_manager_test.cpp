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
#include "scene/MaskSceneManager.h"
#include "scene/StandInRenderer.h"  // tests/scene
#include "support/StateFixture.h"

namespace velmora {
namespace {

// ---------------------------------------------------------------------------
// [SECTION] Fixture
// ---------------------------------------------------------------------------

class SceneManagerTest : public ::testing::Test, protected test::StateFixture {
 protected:
  SceneManagerTest() : test::StateFixture(true, 10.0) {}  // one clock for the state and the cues
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
  EXPECT_EQ(scene.currentModelType(), CharacterModelType::theatricalMask);
  ASSERT_TRUE(scene.maskNode());
  EXPECT_EQ(scene.maskNode()->parent(), scene.scene().get());
  EXPECT_FALSE(scene.ghostRootNode());
  EXPECT_EQ(scene.cameraNode()->position, float3(0.0f, 0.0f, 3.2f));
  EXPECT_EQ(scene.camera().verticalFieldOfViewDegrees, 45.0f);
  EXPECT_EQ(scene.camera().nearPlane, 0.1f);
  EXPECT_EQ(scene.camera().farPlane, 100.0f);
  // init applied the state's lighting at its level.
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
  EXPECT_EQ(scene.currentModelType(), CharacterModelType::cartoonGhost);
  ASSERT_TRUE(scene.ghostRootNode() && scene.ghostLeftEyeNode() && scene.ghostRightEyeNode());
  EXPECT_EQ(scene.ghostRootNode(), scene.maskNode());
  EXPECT_EQ(mask->parent(), nullptr);  // the mask left the scene
  EXPECT_NE(scene.targetNameToIndex(), maskMap);

  state.setCharacterModel(CharacterModelType::theatricalMask);
  scene.updateTracking(state);
  EXPECT_EQ(scene.currentModelType(), CharacterModelType::theatricalMask);
  EXPECT_FALSE(scene.ghostRootNode() || scene.ghostLeftEyeNode() || scene.ghostRightEyeNode());
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
  state.setBlendshapes({{"jawOpen", 0.3f}, {"tongueOut", 1.0f}, {"notAShape", 0.5f}, {"BROWDOWNLEFT", 0.4f}});
  scene.updateTracking(state);
  EXPECT_EQ(weightOf("jawOpen"), 0.3f);
  EXPECT_EQ(weightOf("browDownLeft"), 0.4f);
  // Rest pose, full opacity.
  EXPECT_EQ(scene.maskNode()->eulerAngles, float3(0.0f));
  EXPECT_EQ(scene.maskNode()->position, float3(0.0f));
  EXPECT_EQ(scene.maskNode()->scale, float3(1.0f));
  EXPECT_EQ(scene.maskNode()->opacity, 1.0f);
}

// Every target is live * (1 - w) + cue * w for the channels the cue drives
// and the live value (0 when the sender does not name it) for the others;
// the head turns by the live rotation plus the cue's offset. A cue stopped
// without a fade or ended on its own leaves no weight behind.
TEST_F(SceneManagerTest, ACueBlendsItsChannelsOverLiveTrackingByItsWeight) {
  struct Row {
    const char* what;
    AnimationCue::Kind kind;
    double duration, at;
    bool reset;
    double after;  // a second update this much later; 0: none
    BlendshapeMap live;
  };
  const Row rows[] = {
      {"early in a gasp's rise", AnimationCue::Kind::maskGasp, 2.0, 0.1, false, 0, {{"browInnerUp", 0.2f}, {"eyeBlinkLeft", 0.6f}}},
      {"a nod turns the head at weight 0", AnimationCue::Kind::maskNod, 1.0, 0.13, false, 0, {{"jawOpen", 0.4f}}},
      {"a gasp reset mid-way, no phone", AnimationCue::Kind::maskGasp, 2.0, 0.8, true, 10.0, {}},
      {"a gasp ended on its own", AnimationCue::Kind::maskGasp, 2.0, 0.8, false, 10.0, {{"browInnerUp", 0.25f}}},
  };
  const float3 head(0.1f, 0.2f, 0.3f);
  state.setHeadRotation(head);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const auto cue = AnimationCue::make(row.kind, row.duration);
    const double start = now;
    animation.trigger(cue, start);
    state.setBlendshapes(row.live);
    now = start + row.at;
    scene.updateTracking(state);
    if (row.after > 0) {
      ASSERT_GT(weightOf("jawOpen"), 0.1f);
      if (row.reset) animation.reset(false, now);
      now += row.after;
      scene.updateTracking(state);
    }
    const AnimationOutput out = row.reset ? AnimationOutput::neutral() : referenceOutput(cue, start, now);
    if (row.after == 0) {
      ASSERT_LT(out.blendWeight, 1.0f);
    }
    const float w = out.blendWeight;
    int driven = 0;
    for (ARKitBlendShape shape : allCases<ARKitBlendShape>()) {
      const std::string name(rawValue(shape));
      if (!scene.targetIndex(name)) continue;
      const float live = row.live.contains(name) ? row.live.at(name) : 0.0f;
      const bool isDriven = out.blendshapes.contains(name);
      driven += isDriven;
      EXPECT_NEAR(weightOf(name.c_str()), isDriven ? live * (1 - w) + out.blendshapes.at(name) * w : live, 1e-6f)
          << name;
    }
    EXPECT_EQ(driven > 0 && w > 0, row.after == 0 && row.kind == AnimationCue::Kind::maskGasp);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(scene.maskNode()->eulerAngles[c], head[c] + out.rotationOffset[c], 1e-6f);
    EXPECT_NEAR(scene.maskNode()->position.z, out.positionOffset.z, 1e-6f);
    if (row.kind == AnimationCue::Kind::maskNod) {
      EXPECT_GT(std::fabs(out.rotationOffset.x), 0.01f);
    }
    animation.reset(false, now);
  }
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

// Position is scaled by 1.5; the ghost floats (1.8 rad/s, 2.5 cm) and sways
// (1.2 rad/s, 0.015 rad); opacity is clamped to 0..1 (NaN: hidden), and the
// player keeps the ghost away with opacity 0 after a fly-out.
TEST_F(SceneManagerTest, PositionScalesTheHeadOpacityIsClampedAndTheGhostFloats) {
  state.setHeadPosition({0.1f, -0.2f, 0.05f});
  scene.updateTracking(state);
  EXPECT_LT(glm::length(scene.maskNode()->position - float3(0.15f, -0.3f, 0.075f)), 1e-6f);
  const std::pair<float, float> opacities[] = {{1.7f, 1.0f}, {-0.4f, 0.0f}, {std::nanf(""), 0.0f}, {0.5f, 0.5f}};
  for (const auto& [set, shown] : opacities) {
    state.setMaskOpacity(set);
    scene.updateTracking(state);
    EXPECT_EQ(scene.maskNode()->opacity, shown) << set;
  }

  state.setMaskOpacity(1.0f);
  state.setCharacterModel(CharacterModelType::cartoonGhost);
  now = 0.7;
  scene.updateTracking(state);
  EXPECT_NEAR(scene.maskNode()->position.y, -0.3f + std::sin(1.8 * 0.7) * 0.025, 1e-6);
  EXPECT_NEAR(scene.maskNode()->eulerAngles.z, std::sin(1.2 * 0.7) * 0.015, 1e-6);
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

// The tracking-loss stage as the scene shows it, on one injected clock for
// the state and the cues: the character eases to neutral when the phone
// stops, cues keep playing over the neutral face, and once packets flow
// again the character shows exactly the published values (bit for bit over
// many packets: tracking_loss_ease_test).
TEST_F(SceneManagerTest, TheFaceEasesToNeutralAndBackWhileCuesPlayOverIt) {
  const auto packet = [&] {
    state.ingestPacket(BlendshapeMap{{"jawOpen", 0.6f}, {"browInnerUp", 0.4f}}, float3(0.1f, 0.2f, -0.1f),
                       std::nullopt, "10.0.0.2:5000");
  };
  const auto tick = [&] {  // one tick of the application: the loss stage moves, then the scene
    state.updateTrackingLoss();
    scene.updateTracking(state);
  };
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
  const AnimationOutput cue = referenceOutput(AnimationCue::make(AnimationCue::Kind::maskGasp, 2.0), now - 0.3, now);
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
  EXPECT_EQ(scene.lightRig(), LightRig::applied(soft, 0.0f));
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
  auto root = Node::make("root"), child = Node::make("child"), hidden = Node::make("hidden");
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

// Nothing renders while nobody takes the frame. A live view (the projector)
// is served by the same renderer: it gets a frame every tick with the
// outputs off, shares the outputs' frame at their size, and only a view of
// another size costs a second frame. Each consumer gets frames of its size.
TEST_F(SceneManagerTest, LiveViewsShareTheOutputsFrameAtTheirSize) {
  auto owned = std::make_unique<test::StandInRenderer>();
  test::StandInRenderer* renderer = owned.get();
  scene.setRenderer(std::move(owned));
  using Size = std::pair<int, int>;
  const Size output{MaskSceneManager::outputWidth, MaskSceneManager::outputHeight}, other{1280, 720};
  std::vector<Size> previewGot, smallGot;
  const auto ticked = [&](bool syphon) {
    state.setIsSyphonActive(syphon);
    renderer->sizes.clear();
    scene.tick();
    return renderer->sizes;
  };
  const auto recordInto = [](std::vector<Size>& got) {
    return [&got](const std::shared_ptr<const RenderedFrame>& f) { got.emplace_back(f->width, f->height); };
  };
  state.setIsNDIActive(false);
  EXPECT_TRUE(ticked(true).empty());  // an output is on, but nothing takes frames yet
  const int preview = scene.addFrameConsumer(recordInto(previewGot));
  const int view = scene.addView(output.first, output.second, [](const std::shared_ptr<const RenderedFrame>&) {});
  EXPECT_EQ(ticked(false), (std::vector{output}));  // outputs off: the view still wants its frame
  EXPECT_EQ(ticked(true), (std::vector{output}));   // the consumer, the view and the output: one frame
  scene.removeFrameConsumer(view);
  const int small = scene.addView(other.first, other.second, recordInto(smallGot));
  EXPECT_EQ(ticked(true), (std::vector{output, other}));
  EXPECT_EQ(ticked(false), (std::vector{other}));
  scene.removeFrameConsumer(small);
  scene.removeFrameConsumer(preview);
  EXPECT_TRUE(ticked(false).empty());
  EXPECT_EQ(previewGot, (std::vector{output, output, output}));
  EXPECT_EQ(smallGot, (std::vector{other, other}));
}

}  // namespace
}  // namespace velmora
