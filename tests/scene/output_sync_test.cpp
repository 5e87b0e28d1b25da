// Output synchronisation over the VideoOutput seam: outputs follow the
// operator's switches, the status texts and how often they are written, and
// which frames are rendered and handed to which output. No GL: the renderer
// is a stand-in that "renders" a blank frame at once.
#include <gtest/gtest.h>

#include "animation/CharacterAnimationController.h"
#include "scene/MaskSceneManager.h"
#include "scene/StandInRenderer.h"  // tests/scene
#include "scene/OutputLatency.h"
#include "support/StateFixture.h"

namespace velmora {
namespace {

// An output whose answers the test sets, recording what it was asked to do.
class ScriptedOutput : public VideoOutput {
 public:
  bool startSucceeds = true;
  std::optional<std::string> error;
  std::optional<double> retry;
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
  std::optional<double> retryIn() const override { return retry; }
  bool wantsFrames() const override { return running && wants; }
  void publish(const std::shared_ptr<const RenderedFrame>&) override { published += running ? 1 : 0; }

  bool running = false;
};

class OutputSyncTest : public ::testing::Test, protected test::StateFixture {
 protected:
  OutputSyncTest() {
    auto owned = std::make_unique<test::StandInRenderer>();
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
  test::StandInRenderer* renderer = nullptr;
  int syphonWrites = 0, ndiWrites = 0;
};

// A running output's error is stale: its clients count. The retry note counts
// whole seconds, rounded up, and is what the log leaves out.
TEST(OutputStatusText, EveryStateOfBothOutputs) {
  const auto syphonText = &MaskSceneManager::syphonStatusText;
  const auto ndiText = &MaskSceneManager::ndiStatusText;
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
      {syphonText, true, true, true, {}, 1, {}, "Syphon: sending to a client"},
      {ndiText, false, true, true, {}, 1, {}, "NDI: off"},
      {ndiText, true, false, false, {}, 0, {}, "NDI: unavailable"},
      {ndiText, true, true, false, "NDI sender could not be created", 0, {}, "NDI: NDI sender could not be created"},
      {ndiText, true, true, false, refused, 0, 2.0, "NDI: " + refused + " (next try in 2 s)"},
      {ndiText, true, true, false, refused, 0, 0.4, "NDI: " + refused + " (next try in 1 s)"},
      {ndiText, true, true, true, refused, -1, 2.0, "NDI: ready, waiting for a receiver"},
      {ndiText, true, true, true, {}, 0, {}, "NDI: ready, waiting for a receiver"},
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

TEST_F(OutputSyncTest, OutputsFollowTheSwitchesAndStatusIsRefreshedTwiceASecondAtMost) {
  state.setIsSyphonActive(true);
  state.setIsNDIActive(false);
  syphonWrites = ndiWrites = 0;
  scene.syncOutputs(state);
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
  now += 1.0;
  scene.syncOutputs(state);
  EXPECT_EQ(syphonWrites, 2);  // unchanged texts are not written again
  EXPECT_EQ(syphon.starts, 1);  // running: never started twice

  // Switches flip: Syphon stops, NDI starts and fails with its reason, and
  // is asked again at every sync (it paces itself).
  state.setIsSyphonActive(false);
  state.setIsNDIActive(true);
  ndi.startSucceeds = false;
  ndi.error = "NDI runtime refused to initialize (unsupported CPU?)";
  now += 1.0;
  scene.syncOutputs(state);
  scene.syncOutputs(state);
  EXPECT_EQ(syphon.stops, 1);  // not running: not stopped again
  EXPECT_EQ(ndi.starts, 2);  // never while switched off
  EXPECT_EQ(state.syphonStatus(), "Syphon: off");
  EXPECT_EQ(state.ndiStatus(), "NDI: NDI runtime refused to initialize (unsupported CPU?)");
  scene.shutdownOutputs();
  EXPECT_EQ(ndi.stops, 1);
  EXPECT_EQ(syphon.stops, 2);
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
    EXPECT_EQ(syphon.running, row.syphonOn);
    EXPECT_EQ(ndi.running, row.ndiOn);
    EXPECT_EQ(int(renderer->sizes.size()), row.submitted);
    EXPECT_EQ(syphon.published, row.syphonPublished);
    EXPECT_EQ(ndi.published, row.ndiPublished);
  }
  // Without outputs the status still reads as unavailable, and nothing renders.
  state.setIsSyphonActive(true);
  scene.setOutputs(nullptr, nullptr);
  now += 1.0;
  scene.renderOffscreenFrame();
  EXPECT_EQ(state.syphonStatus(), "Syphon: unavailable");
  EXPECT_EQ(int(renderer->sizes.size()), 2);
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
  EXPECT_NEAR(summary.tickWaitP50, 0.010, 1e-6);
  EXPECT_NEAR(summary.renderP50, 0.004, 1e-6);
  EXPECT_DOUBLE_EQ(state.outputLatencyP50(), 14.0);  // milliseconds
  EXPECT_DOUBLE_EQ(state.outputLatencyP99(), 14.0);
  EXPECT_EQ(syphon.published, 120);
}

// OutputLatency's figures: nearest-rank percentiles over a sliding window,
// and the split of each sample into tick wait and render.
TEST(OutputLatency, PercentilesAndSplitOverTheLastSecond) {
  OutputLatency latency;
  EXPECT_EQ(latency.summary(10.0).count, 0u);
  EXPECT_EQ(latency.summary(10.0).p99, 0.0);
  // An old sample (outside the window) that would dominate every figure.
  latency.record(5.0, 5.5, 8.0);
  // 100 samples handed off within the last second: totals 1..100 ms, each
  // 1/4 waiting for the tick and 3/4 rendering.
  for (int i = 1; i <= 100; ++i) {
    const double arrival = 9.0 + i * 0.005, total = i * 1e-3;
    latency.record(arrival, arrival + total / 4, arrival + total);
  }
  const auto s = latency.summary(9.0 + 100 * 0.005 + 0.1);
  EXPECT_EQ(s.count, 100u);
  EXPECT_NEAR(s.p50, 0.050, 1e-9);
  EXPECT_NEAR(s.p99, 0.099, 1e-9);
  EXPECT_NEAR(s.tickWaitP50, 0.0125, 1e-9);
  EXPECT_NEAR(s.renderP50, 0.0375, 1e-9);
  // A single slow datagram shows in p99, not in p50.
  latency.record(9.6, 9.6, 9.6 + 0.5);
  const auto t = latency.summary(10.2);
  EXPECT_NEAR(t.p99, 0.5, 1e-9);
  EXPECT_LT(t.p50, 0.1);
  // A second later nothing is left in the window.
  EXPECT_EQ(latency.summary(12.0).count, 0u);
}

TEST(OutputLatency, MemoryStaysBoundedUnderAFlood) {
  OutputLatency latency;
  for (std::size_t i = 0; i < 3 * OutputLatency::maxSamples; ++i) latency.record(1.0, 1.0, 1.0 + 1e-3);
  EXPECT_EQ(latency.summary(1.5).count, OutputLatency::maxSamples);
}

}  // namespace
}  // namespace velmora
