// Output synchronisation over the VideoOutput seam: outputs follow the
// operator's switches, the status texts and how often they are written, and
// which frames are rendered and handed to which output. No GL: the renderer
// is a stand-in that "renders" a blank frame at once.
#include <gtest/gtest.h>

#include "animation/CharacterAnimationController.h"
#include "base/SettingsStore.h"
#include "scene/MaskSceneManager.h"
#include "support/StateFixture.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

// An output whose answers the test sets, recording what it was asked to do.
class ScriptedOutput : public VideoOutput {
 public:
  bool startSucceeds = true;
  std::optional<std::string> error;
  int clients = 0;
  bool wants = true;  // while running
  int starts = 0, stops = 0, published = 0;  // published: frames taken while running

  bool start() override {
    ++starts;
    running = startSucceeds;
    return running;
  }
  void stop() override {
    ++stops;
    running = false;
  }
  bool isRunning() const override { return running; }
  std::optional<std::string> lastError() const override { return error; }
  int clientCount() const override { return clients; }
  bool wantsFrames() const override { return running && wants; }
  void publish(const std::shared_ptr<const RenderedFrame>&) override { published += running ? 1 : 0; }

  bool running = false;
};

// Hands every submitted description straight back as a finished frame.
class ImmediateRenderer : public FrameRenderer {
 public:
  int submitted = 0;
  double* clock = nullptr;       // advanced by renderSeconds per frame, when set
  double renderSeconds = 0.0;
  void setFrameHandler(FrameHandler h) override { handler = std::move(h); }
  void submit(std::shared_ptr<const FrameDescription> d) override {
    ++submitted;
    auto frame = std::make_shared<RenderedFrame>();
    frame->width = d->width;
    frame->height = d->height;
    frame->time = d->time;
    frame->newestArrival = d->newestArrival;
    if (clock) *clock += renderSeconds;
    if (handler) handler(frame);
  }
  Result renderNow(std::shared_ptr<const FrameDescription>) override { return {nullptr, "not here"}; }
  void stop() override {}
  FrameHandler handler;
};

class OutputSyncTest : public ::testing::Test, protected test::StateFixture {
 protected:
  OutputSyncTest() {
    auto owned = std::make_unique<ImmediateRenderer>();
    renderer = owned.get();
    scene.setRenderer(std::move(owned));
    scene.setOutputs(&syphon, &ndi);
    state.observe([this](FaceTrackingState::Property p) {
      if (p == FaceTrackingState::Property::syphonStatus) ++syphonWrites;
      if (p == FaceTrackingState::Property::ndiStatus) ++ndiWrites;
    });
  }
  CharacterAnimationController animation;
  MaskSceneManager scene{state, animation, [this] { return now; }};
  ScriptedOutput syphon, ndi;
  ImmediateRenderer* renderer = nullptr;
  int syphonWrites = 0, ndiWrites = 0;
};

TEST(OutputStatusText, EveryStateOfBothOutputs) {
  ScriptedOutput out;
  EXPECT_EQ(MaskSceneManager::syphonStatusText(false, &out), "Syphon: off");
  EXPECT_EQ(MaskSceneManager::syphonStatusText(true, nullptr), "Syphon: unavailable");
  EXPECT_EQ(MaskSceneManager::syphonStatusText(true, &out), "Syphon: unavailable");
  out.error = "PipeWire video source could not be created (is PipeWire running?)";
  EXPECT_EQ(MaskSceneManager::syphonStatusText(true, &out),
            "Syphon: PipeWire video source could not be created (is PipeWire running?)");
  out.running = true;  // a running output's error is stale: its clients count
  EXPECT_EQ(MaskSceneManager::syphonStatusText(true, &out), "Syphon: ready, waiting for a client");
  out.clients = 1;
  EXPECT_EQ(MaskSceneManager::syphonStatusText(true, &out), "Syphon: sending to a client");
  EXPECT_EQ(MaskSceneManager::syphonStatusText(false, &out), "Syphon: off");

  ScriptedOutput n;
  EXPECT_EQ(MaskSceneManager::ndiStatusText(false, &n), "NDI: off");
  EXPECT_EQ(MaskSceneManager::ndiStatusText(true, nullptr), "NDI: unavailable");
  n.error = "NDI sender could not be created";
  EXPECT_EQ(MaskSceneManager::ndiStatusText(true, &n), "NDI: NDI sender could not be created");
  n.running = true;
  const std::pair<int, const char*> counts[] = {{-1, "NDI: ready, waiting for a receiver"},
                                                {0, "NDI: ready, waiting for a receiver"},
                                                {1, "NDI: sending to 1 receiver"},
                                                {2, "NDI: sending to 2 receivers"},
                                                {12, "NDI: sending to 12 receivers"}};
  for (const auto& [count, text] : counts) {
    n.clients = count;
    EXPECT_EQ(MaskSceneManager::ndiStatusText(true, &n), text) << count;
  }
}

TEST_F(OutputSyncTest, OutputsFollowTheSwitchesAndStatusIsRefreshedTwiceASecondAtMost) {
  state.setIsSyphonActive(true);
  state.setIsNDIActive(false);
  syphonWrites = ndiWrites = 0;
  scene.syncOutputs(state);
  EXPECT_EQ(syphon.starts, 1);
  EXPECT_EQ(ndi.starts, 0);
  EXPECT_EQ(state.syphonStatus(), "Syphon: ready, waiting for a client");
  EXPECT_EQ(state.ndiStatus(), "NDI: off");
  EXPECT_EQ(syphonWrites, 1);
  EXPECT_EQ(ndiWrites, 0);  // "NDI: off" already: not written again

  // A client arrives; the text waits for the next refresh (more than 0.5 s).
  syphon.clients = 1;
  now += 0.5;
  scene.syncOutputs(state);
  EXPECT_EQ(state.syphonStatus(), "Syphon: ready, waiting for a client");
  now += 0.01;
  scene.syncOutputs(state);
  EXPECT_EQ(state.syphonStatus(), "Syphon: sending to a client");
  EXPECT_EQ(*scene.lastStatusCheck(), now);
  // Unchanged texts are not written again.
  now += 1.0;
  scene.syncOutputs(state);
  EXPECT_EQ(syphonWrites, 2);
  EXPECT_EQ(syphon.starts, 1);  // running: never started twice

  // Switches flip: Syphon stops, NDI starts and fails with its reason.
  state.setIsSyphonActive(false);
  state.setIsNDIActive(true);
  ndi.startSucceeds = false;
  ndi.error = "NDI runtime refused to initialize (unsupported CPU?)";
  now += 1.0;
  scene.syncOutputs(state);
  EXPECT_EQ(syphon.stops, 1);
  EXPECT_EQ(ndi.starts, 1);
  EXPECT_EQ(state.syphonStatus(), "Syphon: off");
  EXPECT_EQ(state.ndiStatus(), "NDI: NDI runtime refused to initialize (unsupported CPU?)");
  // A failed output is asked again at the next sync (it paces itself).
  scene.syncOutputs(state);
  EXPECT_EQ(ndi.starts, 2);
  scene.syncOutputs(state);
  EXPECT_EQ(syphon.stops, 1);  // not running: not stopped again

  scene.shutdownOutputs();
  EXPECT_EQ(ndi.stops, 1);
  EXPECT_EQ(syphon.stops, 2);
}

TEST_F(OutputSyncTest, RendersOnlyForAnOutputThatCanTakeTheFrame) {
  state.setIsSyphonActive(true);
  state.setIsNDIActive(false);
  syphon.wants = false;  // a PipeWire source with nobody linked
  scene.tick();
  EXPECT_TRUE(syphon.running);
  EXPECT_EQ(renderer->submitted, 0);

  syphon.wants = true;  // a consumer linked
  scene.tick();
  EXPECT_EQ(renderer->submitted, 1);
  EXPECT_EQ(syphon.published, 1);

  // NDI on and wanting frames renders although Syphon does not want them;
  // the finished frame is offered to both (each drops what it cannot take).
  syphon.wants = false;
  state.setIsNDIActive(true);
  scene.tick();
  EXPECT_EQ(renderer->submitted, 2);
  EXPECT_EQ(ndi.published, 1);
  EXPECT_EQ(syphon.published, 2);

  // An output that is running but switched off does not count: the sync
  // stops it first.
  state.setIsNDIActive(false);
  scene.renderOffscreenFrame();
  EXPECT_FALSE(ndi.running);
  EXPECT_EQ(renderer->submitted, 2);

  // Both switches off: the tick still syncs, so the running output stops.
  state.setIsSyphonActive(false);
  scene.tick();
  EXPECT_FALSE(syphon.running);

  // Without outputs the status still reads as unavailable, and nothing renders.
  state.setIsSyphonActive(true);
  scene.setOutputs(nullptr, nullptr);
  now += 1.0;
  scene.renderOffscreenFrame();
  EXPECT_EQ(state.syphonStatus(), "Syphon: unavailable");
  EXPECT_EQ(renderer->submitted, 2);
}

// Each datagram is measured once, from its arrival to the hand-off of the
// first frame that shows it; the state gets the last second's p50 and p99.
TEST_F(OutputSyncTest, LatencyFromArrivalToHandOffIsPublished) {
  renderer->clock = &now;
  renderer->renderSeconds = 0.004;
  state.setIsSyphonActive(true);
  for (int i = 0; i < 60; ++i) {
    state.noteArrival(now - 0.010);  // a datagram 10 ms before this tick
    scene.tick();                    // captured now, handed off 4 ms later
    scene.tick();                    // no new datagram: not measured again
    now += 1.0 / 60;
  }
  const auto summary = scene.outputLatency().summary(now, 10.0);  // all of them
  EXPECT_EQ(summary.count, 60u);
  EXPECT_NEAR(summary.p50, 0.014, 1e-6);
  EXPECT_NEAR(summary.tickWaitP50, 0.010, 1e-6);
  EXPECT_NEAR(summary.renderP50, 0.004, 1e-6);
  EXPECT_DOUBLE_EQ(state.outputLatencyP50(), 14.0);  // milliseconds
  EXPECT_DOUBLE_EQ(state.outputLatencyP99(), 14.0);
  EXPECT_EQ(syphon.published, 120);
}

}  // namespace
}  // namespace velmora
