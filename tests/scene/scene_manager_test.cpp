// The scene manager's per-frame update on the CPU: model switching, the
// expression blend, pose, opacity and lighting rules, and the frame
// description it captures; output synchronisation over the VideoOutput seam
// (switches, status texts and how often they are written, which frames are
// rendered and handed to which output, latency). No GL: the renderer is a
// stand-in that "renders" a blank frame at once.
//
// Index of this file:
//   [SECTION] Fixture
//   [SECTION] Building and switching characters
//   [SECTION] Live tracking and cues on the character
//   [SECTION] Lighting and frame descriptions
//   [SECTION] Rendering only when someone takes the frame
//   [SECTION] Outputs: switches, status texts, what is rendered for whom, latency

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "animation/CharacterAnimationController.h"
#include "scene/MaskSceneManager.h"
#include "scene/OutputLatency.h"
#include "support/StateFixture.h"

namespace velmora {
namespace {

using namespace ::testing;  // matchers

// ---------------------------------------------------------------------------
// [SECTION] Fixture
// ---------------------------------------------------------------------------

// A renderer without GL: records the size of each description it is handed
// and hands it straight back as a finished frame of that size (no pixels:
// nothing here reads them), advancing the test's clock by renderSeconds
// first when given one.
class StandInRenderer : public FrameRenderer {
 public:
  std::vector<std::pair<int, int>> sizes;  // of every description submitted
  double* clock = nullptr;
  double renderSeconds = 0.0;

  void setFrameHandler(FrameHandler h) override { handler_ = std::move(h); }
  void submit(std::shared_ptr<const FrameDescription> d) override {
    sizes.emplace_back(d->width, d->height);
    if (clock) *clock += renderSeconds;
    handler_(std::make_shared<RenderedFrame>(RenderedFrame{d->width, d->height, {}, d->time, 0, d->newestArrival}));
  }
  Result renderNow(std::shared_ptr<const FrameDescription>) override { return {nullptr, "not here"}; }
  void stop() override {}

 private:
  FrameHandler handler_;
};

class SceneManagerTest : public ::testing::Test, protected test::StateFixture {
 protected:
  // One clock for the state and the cues.
  SceneManagerTest() : test::StateFixture(true, 10.0) { scene.setRenderer(std::unique_ptr<FrameRenderer>(renderer)); }
  CharacterAnimationController animation;
  MaskSceneManager scene{state, animation, [this] { return now; }};
  StandInRenderer* renderer = new StandInRenderer;  // owned by the scene from the constructor on

  // A name without a target throws (bad_optional_access): the test fails.
  float weightOf(const char* name) {
    return scene.morpher()->weight(static_cast<std::size_t>(scene.targetIndex(name).value()));
  }
  // The controller's output for the same cue at the same time, from a second
  // player, so the expectations follow the curves without restating them and
  // without reading the player the scene drives.
  static AnimationOutput referenceOutput(const AnimationCue& cue, double start, double at) {
    CharacterAnimationController reference;
    reference.trigger(cue, start);
    return reference.sample(at);
  }
};

// ---------------------------------------------------------------------------
// [SECTION] Building and switching characters
// ---------------------------------------------------------------------------

TEST_F(SceneManagerTest, SwitchingToTheGhostAndBackRebuildsAndDropsTheEyes) {
  const auto maskMap = scene.targetNameToIndex();
  const auto mask = scene.maskNode();
  scene.switchModel(CharacterModelType::theatricalMask);  // same model: nothing happens
  EXPECT_EQ(scene.maskNode(), mask);

  // On the ghost the live gaze and blink reach its eye nodes (both turn the
  // same way; a closed eye keeps 8 % of its height) and the body's weights its
  // mouth backing.
  state.setCharacterModel(CharacterModelType::cartoonGhost);
  state.setBlendshapes({{"eyeLookOutLeft", 1.0f}, {"eyeLookInRight", 1.0f}, {"eyeLookDownLeft", 0.5f},
                        {"eyeBlinkLeft", 1.0f}, {"eyeBlinkRight", 0.5f}, {"jawOpen", 0.4f}});
  scene.updateTracking(state);
  EXPECT_EQ(scene.currentModelType(), CharacterModelType::cartoonGhost);
  ASSERT_TRUE(scene.ghostRootNode() && scene.ghostLeftEyeNode() && scene.ghostRightEyeNode());
  EXPECT_EQ(scene.ghostRootNode(), scene.maskNode());
  const Node& left = *scene.ghostLeftEyeNode();
  const Node& right = *scene.ghostRightEyeNode();
  EXPECT_EQ(left.eulerAngles, float3(0.175f, 0.35f, 0.0f));
  EXPECT_EQ(right.eulerAngles, float3(0.0f, 0.35f, 0.0f));
  EXPECT_THAT((std::vector{left.scale.y, right.scale.y}), Pointwise(FloatNear(1e-6f), {0.08f, 0.54f}));
  ASSERT_EQ(scene.morpher()->followers.size(), 1u);
  EXPECT_EQ(scene.morpher()->followers[0]->weight(*scene.targetIndex("jawOpen")), 0.4f);
  state.setBlendshapes({});
  scene.updateTracking(state);
  EXPECT_TRUE(left.eulerAngles == float3(0.0f) && left.scale == float3(1.0f));
  EXPECT_EQ(mask->parent(), nullptr);  // the mask left the scene
  EXPECT_NE(scene.targetNameToIndex(), maskMap);

  state.setCharacterModel(CharacterModelType::theatricalMask);
  scene.updateTracking(state);
  EXPECT_EQ(scene.currentModelType(), CharacterModelType::theatricalMask);
  EXPECT_FALSE(scene.ghostRootNode() || scene.ghostLeftEyeNode() || scene.ghostRightEyeNode());
  EXPECT_EQ(scene.targetNameToIndex(), maskMap);
  EXPECT_NE(scene.maskNode(), mask);  // a fresh node
  const auto isCharacter = [](const auto& child) { return child->geometry || !child->children().empty(); };
  EXPECT_EQ(std::ranges::count_if(scene.scene()->children(), isCharacter), 1);
}

// ---------------------------------------------------------------------------
// [SECTION] Live tracking and cues on the character
// ---------------------------------------------------------------------------

// Without a cue the weights are the live values and the character shows the
// live pose at full opacity, position scaled by 1.5; the ghost floats (1.8
// rad/s, 2.5 cm) and sways (1.2 rad/s, 0.015 rad); opacity is clamped to 0..1
// (NaN: hidden), and the player keeps the ghost away with opacity 0 after a
// fly-out.
TEST_F(SceneManagerTest, WithoutACueTheLiveFaceShowsOpacityIsClampedAndTheGhostFloats) {
  EXPECT_EQ(scene.targetIndex("JAWOPEN"), scene.targetIndex("jawOpen"));  // any case
  // A sender's own spelling of a name still finds its target (any case); a
  // name the character has no target for (the mask has no tongue:
  // mask_targets_test) is left out.
  state.setBlendshapes({{"jawOpen", 0.3f}, {"tongueOut", 1.0f}, {"notAShape", 0.5f}, {"BROWDOWNLEFT", 0.4f}});
  state.setHeadPosition({0.1f, -0.2f, 0.05f});
  scene.updateTracking(state);
  EXPECT_EQ(std::pair(weightOf("jawOpen"), weightOf("browDownLeft")), std::pair(0.3f, 0.4f));
  const Node& mask = *scene.maskNode();
  EXPECT_EQ(std::tuple(mask.eulerAngles, mask.scale, mask.opacity), std::tuple(float3(0.0f), float3(1.0f), 1.0f));
  EXPECT_LT(glm::length(mask.position - float3(0.15f, -0.3f, 0.075f)), 1e-6f);
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

// Every target is live * (1 - w) + cue * w for the channels the cue drives
// and the live value (0 when the sender does not name it) for the others;
// the head turns by the live rotation plus the cue's offset. A cue stopped
// without a fade leaves no weight behind (one that ends on its own ends
// neutral: CharacterAnimationController's tests; the scene takes the same path).
TEST_F(SceneManagerTest, ACueBlendsItsChannelsOverLiveTrackingByItsWeight) {
  struct Row {
    const char* what;
    AnimationCue::Kind kind;
    double duration, at;
    double after;  // reset, then a second update this much later; 0: none
    BlendshapeMap live;
  };
  const Row rows[] = {
      {"early in a gasp's rise", AnimationCue::Kind::maskGasp, 2.0, 0.1, 0, {{"browInnerUp", 0.2f}, {"eyeBlinkLeft", 0.6f}}},
      {"a nod turns the head at weight 0", AnimationCue::Kind::maskNod, 1.0, 0.13, 0, {{"jawOpen", 0.4f}}},
      {"a gasp reset mid-way, no phone", AnimationCue::Kind::maskGasp, 2.0, 0.8, 10.0, {}},
  };
  const float3 head(0.1f, 0.2f, 0.3f);
  state.setHeadRotation(head);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const double start = now;
    const auto cue = AnimationCue::make(row.kind, row.duration);
    animation.trigger(cue, start);
    state.setBlendshapes(row.live);
    now = start + row.at;
    scene.updateTracking(state);
    if (row.after > 0) {
      ASSERT_GT(weightOf("jawOpen"), 0.1f);
      animation.reset(false, now);
      now += row.after;
      scene.updateTracking(state);
    }
    const AnimationOutput out = row.after > 0 ? AnimationOutput::neutral() : referenceOutput(cue, start, now);
    ASSERT_TRUE(row.after > 0 || out.blendWeight < 1.0f);
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
    // (That the nod turns at all at that time: its keyframe rows.)
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(scene.maskNode()->eulerAngles[c], head[c] + out.rotationOffset[c], 1e-6f);
    EXPECT_NEAR(scene.maskNode()->position.z, out.positionOffset.z, 1e-6f);
    animation.reset(false, now);
  }
}

// The tracking-loss stage as the scene shows it, on one injected clock for
// the state and the cues: the character eases to neutral when the phone
// stops and cues play over the eased face; a timeout of 0 keeps the last face
// however long the phone is away (the ease's course, the return and bit-for-
// bit pass-through: TrackingLossEaseTest).
TEST_F(SceneManagerTest, TheFaceEasesToNeutralWhileCuesPlayOverIt) {
  state.ingestPacket(BlendshapeMap{{"jawOpen", 0.6f}}, float3(0.1f, 0.2f, -0.1f), std::nullopt, "10.0.0.2:5000");
  const auto tick = [&](double seconds) {  // one tick of the application: the loss stage moves, then the scene
    now += seconds;
    state.updateTrackingLoss();
    scene.updateTracking(state);
  };
  tick(0.0);
  const float jaw = state.blendshapes().at("jawOpen");
  const float3 head = state.headRotation();
  ASSERT_TRUE(jaw > 0.5f && head != float3(0.0f));

  // Half-way through the ease (0.5 s timeout, then half of the second); the
  // published values are untouched. (The lost flag itself: the state's and
  // the intake's tests.)
  tick(1.0);
  EXPECT_THAT((std::vector{weightOf("jawOpen"), scene.maskNode()->eulerAngles.y}),
              Pointwise(FloatNear(1e-6f), {0.5f * jaw, 0.5f * head.y}));
  EXPECT_EQ(state.blendshapes().at("jawOpen"), jaw);

  // A gasp over the eased face: live * (1 - w) + cue * w.
  const auto gasp = AnimationCue::make(AnimationCue::Kind::maskGasp, 2.0);
  animation.trigger(gasp, now);
  tick(0.05);
  const AnimationOutput cue = referenceOutput(gasp, now - 0.05, now);
  const auto eased = static_cast<float>(state.trackingLoss().weight());  // what is left of the live face
  ASSERT_TRUE(cue.blendWeight > 0.0f && eased * jaw > 0.1f);
  const float w = cue.blendWeight;
  EXPECT_NEAR(weightOf("jawOpen"), eased * jaw * (1 - w) + cue.blendshapes.at("jawOpen") * w, 1e-6f);
  EXPECT_NEAR(scene.maskNode()->eulerAngles.x, eased * head.x + cue.rotationOffset.x, 1e-6f);

  // A timeout of 0 shows the last face again and keeps it.
  animation.reset(false, now);
  state.setTrackingTimeout(0.0);
  tick(30.0);
  tick(30.0);
  EXPECT_EQ(weightOf("jawOpen"), jaw);
}

// ---------------------------------------------------------------------------
// [SECTION] Lighting and frame descriptions
// ---------------------------------------------------------------------------

TEST_F(SceneManagerTest, LightingIsAppliedOnlyWhenSettingsOrMasterChange) {
  const LightingSettings soft = *LightingSettings::presetMatching("Soft Front");
  scene.applyLighting(soft, 1.0f);
  EXPECT_EQ(std::pair(scene.lightRig(), scene.keyLightNode()->position),
            std::pair(LightRig::applied(soft, 1.0f), float3(0.0f, 0.0f, 3.0f)));
  // The same again touches nothing: a light moved by hand stays where it is.
  scene.keyLightNode()->position = float3(9.0f);
  scene.applyLighting(soft, 1.0f);
  EXPECT_EQ(scene.keyLightNode()->position, float3(9.0f));
  // A new master level applies.
  scene.applyLighting(soft, 0.0f);
  EXPECT_EQ(std::pair(scene.lightRig(), scene.keyLightNode()->position),
            std::pair(LightRig::applied(soft, 0.0f), float3(0.0f, 0.0f, 3.0f)));
  // The per-frame update applies the state's lighting.
  state.setLightIntensity(2.0f);
  scene.updateTracking(state);
  EXPECT_EQ(std::tuple(scene.appliedMaster(), scene.lightRig()),
            std::tuple(2.0f, LightRig::applied(state.lighting(), 2.0f)));
}

// Init puts the mask and the three lights in the scene, the camera at
// (0, 0, 3.2) looking down -z (45 degrees, 0.1..100 m), and applies the
// state's lighting at its level. A captured 1920 x 1080 frame carries them
// and only the non-zero weights; later changes do not reach it, and a hidden
// character leaves it empty.
TEST_F(SceneManagerTest, InitBuildsTheSceneAndAFrameIsASnapshotOfIt) {
  EXPECT_FALSE(scene.ghostRootNode());
  for (const auto& node : {scene.maskNode(), scene.keyLightNode(), scene.fillLightNode(), scene.rimLightNode()})
    ASSERT_TRUE(node && node->parent() == scene.scene().get());
  const auto first = scene.makeFrameDescription();  // no update yet
  EXPECT_EQ(first->lights, LightRig::applied(state.lighting(), state.lightIntensity()));
  const FrameCamera& c = first->camera;
  EXPECT_EQ(std::tuple(c.position, c.verticalFieldOfViewDegrees, c.nearPlane, c.farPlane),
            std::tuple(float3(0.0f, 0.0f, 3.2f), 45.0f, 0.1f, 100.0f));
  EXPECT_EQ(std::tuple(first->width, first->height, first->environment != nullptr, first->environment),
            std::tuple(1920, 1080, true, scene.environment()));

  state.setBlendshapes({{"jawOpen", 0.5f}});
  state.setMaskOpacity(0.25f);
  scene.updateTracking(state);
  auto frame = scene.makeFrameDescription();
  ASSERT_FALSE(frame->items.empty());
  const auto& item = frame->items.front();
  EXPECT_EQ(std::tuple(item.geometry, item.opacity, item.morphIndices, item.morphWeights),  // only the non-zero weights
            std::tuple(scene.maskNode()->geometry, 0.25f, std::vector{*scene.targetIndex("jawOpen")}, std::vector{0.5f}));
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
  child->geometry = hidden->geometry = std::make_shared<Geometry>();
  hidden->hidden = true;
  root->addChild(child);
  root->addChild(hidden);
  root->opacity = child->opacity = 0.5f;
  child->position = float3(1.0f, 0.0f, 0.0f);
  root->position = float3(0.0f, 2.0f, 0.0f);
  FrameDescription frame;
  frame.addNodes(*root);
  ASSERT_EQ(frame.items.size(), 1u);
  EXPECT_EQ(std::pair(frame.items[0].opacity, float3(frame.items[0].worldTransform[3])),
            std::pair(0.25f, float3(1.0f, 2.0f, 0.0f)));
}

// ---------------------------------------------------------------------------
// [SECTION] Rendering only when someone takes the frame
// ---------------------------------------------------------------------------

// Nothing renders while nobody takes the frame. A live view (the projector)
// is served by the same renderer: it gets a frame every tick with the
// outputs off, shares the outputs' frame at their size, and only a view of
// another size costs a second frame. Each consumer gets frames of its size.
TEST_F(SceneManagerTest, LiveViewsShareTheOutputsFrameAtTheirSize) {
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
  EXPECT_TRUE(ticked(true).empty());  // an output is on (NDI off: a fresh state's), but nothing takes frames yet
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
  EXPECT_EQ(std::pair(previewGot, smallGot), std::pair(std::vector{output, output, output}, std::vector{other, other}));
}

// ---------------------------------------------------------------------------
// [SECTION] Outputs: switches, status texts, what is rendered for whom, latency
// ---------------------------------------------------------------------------

// An output whose answers the test sets, recording what it was asked to do.
class ScriptedOutput : public VideoOutput {
 public:
  bool startSucceeds = true, running = false, wants = true;  // wants: while running
  std::optional<std::string> error;
  std::optional<double> retry;
  int clients = 0, starts = 0, stops = 0, published = 0;  // published: frames taken while running

  bool start() override {
    ++starts;
    return running = startSucceeds;
  }
  void stop() override {
    ++stops;
    running = false;
  }
  bool isRunning() const override { return running; }
  std::optional<std::string> lastError() const override { return error; }
  int clientCount() const override { return clients; }
  std::optional<double> retryIn() const override { return retry; }
  bool wantsFrames() const override { return running && wants; }
  void publish(const std::shared_ptr<const RenderedFrame>&) override { published += running ? 1 : 0; }
};

class OutputSyncTest : public SceneManagerTest {
 protected:
  OutputSyncTest() {
    scene.setOutputs(&syphon, &ndi);
    state.observe([this](FaceTrackingState::Property p) {
      if (p == FaceTrackingState::Property::syphonStatus) ++syphonWrites;
      if (p == FaceTrackingState::Property::ndiStatus) ++ndiWrites;
    });
  }
  ScriptedOutput syphon, ndi;
  int syphonWrites = 0, ndiWrites = 0;
};

// A running output's error is stale: its clients count. The retry note counts
// whole seconds, rounded up, and is what the log leaves out.
TEST(OutputStatusText, EveryStateOfBothOutputs) {
  const auto syphonText = &MaskSceneManager::syphonStatusText, ndiText = &MaskSceneManager::ndiStatusText;
  const std::string noDaemon = "PipeWire video source could not be created (is PipeWire running?)";
  const std::string refused = "NDI runtime refused to initialize (unsupported CPU?)";
  struct Row {
    std::string (*text)(bool, const VideoOutput*);
    bool active, output, running;
    std::optional<std::string> error;
    int clients;
    std::optional<double> retry;
    std::string expected;
  };
  const Row rows[] = {
      {syphonText, false, true, true, {}, 1, {}, "Syphon: off"},
      {syphonText, true, false, false, {}, 0, {}, "Syphon: unavailable"},
      {syphonText, true, true, false, {}, 0, {}, "Syphon: unavailable"},
      {syphonText, true, true, false, noDaemon, 0, {}, "Syphon: " + noDaemon},
      {syphonText, true, true, true, noDaemon, 0, {}, "Syphon: ready, waiting for a client"},
      {ndiText, true, false, false, {}, 0, {}, "NDI: unavailable"},
      {ndiText, true, true, false, "NDI sender could not be created", 0, {}, "NDI: NDI sender could not be created"},
      {ndiText, true, true, false, refused, 0, 2.0, "NDI: " + refused + " (next try in 2 s)"},
      {ndiText, true, true, false, refused, 0, 0.4, "NDI: " + refused + " (next try in 1 s)"},
      {ndiText, true, true, true, refused, -1, 2.0, "NDI: ready, waiting for a receiver"},
      {ndiText, true, true, true, {}, 1, {}, "NDI: sending to 1 receiver"},
      {ndiText, true, true, true, {}, 2, {}, "NDI: sending to 2 receivers"},
      {ndiText, true, true, true, {}, 12, {}, "NDI: sending to 12 receivers"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.expected);
    ScriptedOutput out;
    out.running = row.running;
    out.error = row.error;
    out.clients = row.clients;
    out.retry = row.retry;
    const std::string text = row.text(row.active, row.output ? &out : nullptr);
    EXPECT_EQ(text, row.expected);
    if (row.retry && !row.running) {
      EXPECT_EQ(MaskSceneManager::withoutRetryNote(text), "NDI: " + *row.error);
    }
  }
}

// A fresh state has Syphon on and NDI off.
TEST_F(OutputSyncTest, OutputsFollowTheSwitchesAndStatusIsRefreshedTwiceASecondAtMost) {
  scene.syncOutputs(state);
  // "NDI: off" already: not written again.
  EXPECT_EQ(std::tuple(state.syphonStatus(), state.ndiStatus(), ndiWrites),
            std::tuple("Syphon: ready, waiting for a client", "NDI: off", 0));

  // A client arrives; the text waits for the next refresh (more than 0.5 s).
  syphon.clients = 1;
  now += 0.5;
  scene.syncOutputs(state);
  EXPECT_EQ(state.syphonStatus(), "Syphon: ready, waiting for a client");
  now += 0.01;
  scene.syncOutputs(state);
  EXPECT_EQ(state.syphonStatus(), "Syphon: sending to a client");
  now += 1.0;
  scene.syncOutputs(state);
  // Written once each for the two texts: unchanged texts are not written
  // again; running: never started twice.
  EXPECT_EQ(std::pair(syphonWrites, syphon.starts), std::pair(2, 1));

  // Switches flip: Syphon stops, NDI starts and fails with its reason, and
  // is asked again at every sync (it paces itself).
  state.setIsSyphonActive(false);
  state.setIsNDIActive(true);
  ndi.startSucceeds = false;
  ndi.error = "NDI runtime refused to initialize (unsupported CPU?)";
  now += 1.0;
  scene.syncOutputs(state);
  scene.syncOutputs(state);
  // Syphon, not running, is not stopped again; NDI is never started while switched off.
  EXPECT_EQ(std::tuple(syphon.stops, ndi.starts, state.syphonStatus(), state.ndiStatus()),
            std::tuple(1, 2, "Syphon: off", "NDI: " + *ndi.error));
  scene.shutdownOutputs();
  EXPECT_EQ(std::pair(ndi.stops, syphon.stops), std::pair(1, 2));
}

// A frame is rendered only for an output that can take it; the finished
// frame is offered to every running output (each drops what it cannot take).
TEST_F(OutputSyncTest, RendersOnlyForAnOutputThatCanTakeTheFrame) {
  struct Row {
    const char* what;
    bool syphonOn, syphonWants, ndiOn;
    int submitted, syphonPublished, ndiPublished;
  };
  const Row rows[] = {
      {"a PipeWire source with nobody linked", true, false, false, 0, 0, 0},
      {"a consumer linked", true, true, false, 1, 1, 0},
      {"NDI wanting frames, Syphon not", true, false, true, 2, 2, 1},
      {"NDI running but switched off: stopped first", true, false, false, 2, 2, 1},
      {"both off: the tick still syncs", false, true, false, 2, 2, 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    state.setIsSyphonActive(row.syphonOn);
    state.setIsNDIActive(row.ndiOn);
    syphon.wants = row.syphonWants;
    scene.tick();
    EXPECT_EQ(std::tuple(syphon.running, ndi.running, int(renderer->sizes.size()), syphon.published, ndi.published),
              std::tuple(row.syphonOn, row.ndiOn, row.submitted, row.syphonPublished, row.ndiPublished));
  }
  // Without outputs the status still reads as unavailable, and nothing renders.
  state.setIsSyphonActive(true);
  scene.setOutputs(nullptr, nullptr);
  now += 1.0;
  scene.renderOffscreenFrame();
  EXPECT_EQ(std::tuple(state.syphonStatus(), renderer->sizes.size()), std::tuple("Syphon: unavailable", 2u));
}

// Each datagram is measured once, from its arrival to the hand-off of the
// first frame that shows it; the state gets the last second's p50 and p99.
TEST_F(OutputSyncTest, LatencyFromArrivalToHandOffIsPublished) {
  renderer->clock = &now;
  renderer->renderSeconds = 0.004;  // Syphon on: a fresh state's
  for (int i = 0; i < 60; ++i) {
    state.noteArrival(now - 0.010);  // a datagram 10 ms before this tick
    scene.tick();                    // captured now, handed off 4 ms later
    scene.tick();                    // no new datagram: not measured again
    now += 1.0 / 60;
  }
  const auto summary = scene.outputLatency().summary(now, 10.0);  // all of them
  EXPECT_EQ(std::pair(summary.count, syphon.published), std::pair(std::size_t{60}, 120));
  EXPECT_THAT((std::vector{summary.tickWaitP50, summary.renderP50}), Pointwise(DoubleNear(1e-6), {0.010, 0.004}));
  EXPECT_THAT((std::vector{state.outputLatencyP50(), state.outputLatencyP99()}), Each(DoubleEq(14.0)));  // ms
}

// OutputLatency's figures: nearest-rank percentiles over a sliding window,
// the split of each sample into tick wait and render, and a bounded memory.
TEST(OutputLatency, PercentilesAndSplitOverTheLastSecondInBoundedMemory) {
  OutputLatency latency;
  EXPECT_EQ(std::pair(latency.summary(10.0).count, latency.summary(10.0).p99), std::pair(std::size_t{0}, 0.0));
  // An old sample (outside the window) that would dominate every figure.
  latency.record(5.0, 5.5, 8.0);
  // 100 samples handed off within the last second: totals 1..100 ms, each
  // 1/4 waiting for the tick and 3/4 rendering.
  for (int i = 1; i <= 100; ++i) {
    const double arrival = 9.0 + i * 0.005, total = i * 1e-3;
    latency.record(arrival, arrival + total / 4, arrival + total);
  }
  const auto s = latency.summary(9.0 + 100 * 0.005 + 0.1);
  EXPECT_THAT((std::vector{double(s.count), s.p50, s.p99, s.tickWaitP50, s.renderP50}),
              Pointwise(DoubleNear(1e-9), {100.0, 0.050, 0.099, 0.0125, 0.0375}));
  // A single slow datagram shows in p99, not in p50.
  latency.record(9.6, 9.6, 9.6 + 0.5);
  const auto t = latency.summary(10.2);
  EXPECT_NEAR(t.p99, 0.5, 1e-9);
  EXPECT_LT(t.p50, 0.1);
  // A second later nothing is left in the window.
  EXPECT_EQ(latency.summary(12.0).count, 0u);
  // A flood keeps only the newest samples: memory stays bounded.
  for (std::size_t i = 0; i < 3 * OutputLatency::maxSamples; ++i) latency.record(20.0, 20.0, 20.0 + 1e-3);
  EXPECT_EQ(latency.summary(20.5).count, OutputLatency::maxSamples);
}

}  // namespace
}  // namespace velmora
