// The same-machine output's costs against a private PipeWire session with a
// real consumer (gst-launch-1.0 pipewiresrc ! fakesink) linked:
// - publish() on the render thread (hand the frame over, wake the loop);
// - the copy into PipeWire's buffer on its loop thread (counter
//   "loop copy ms/frame");
// - the main thread's 60 Hz tick with both outputs on (PipeWire streaming,
//   NDI through the runtime double), the renderer left out.
// Budgets: output cost <= 2 ms CPU per 1080p frame; tick <= 1 ms.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <memory>
#include <thread>

#include "animation/CharacterAnimationController.h"
#include "base/MainQueue.h"
#include "base/SettingsStore.h"
#include "outputs/NDIPublisher.h"
#include "outputs/PipeWireVideoSource.h"
#include "outputs/SyphonPublisher.h"
#include "scene/MaskSceneManager.h"
#include "support/PrivatePipeWire.h"
#include "support/TempDir.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

std::shared_ptr<RenderedFrame> frame1080() {
  auto f = std::make_shared<RenderedFrame>();
  f->width = 1920;
  f->height = 1080;
  f->pixels.assign(static_cast<std::size_t>(f->width) * f->height * 4, 0x80);
  return f;
}

// A PipeWire session, a started publisher and a linked consumer.
struct Streaming {
  test::PrivatePipeWire session;
  std::unique_ptr<SyphonPublisher> publisher;
  pid_t consumer = -1;

  bool start(benchmark::State& st) {
    if (!session.start()) {
      st.SkipWithError("pipewire could not be started");
      return false;
    }
    publisher = std::make_unique<SyphonPublisher>(std::vector<std::string>{"/usr/lib/x86_64-linux-gnu"});
    if (!publisher->start() || !session.waitForNode("Velmora", 10)) {
      st.SkipWithError("no PipeWire video source");
      return false;
    }
    consumer = session.spawn(
        {"/usr/bin/gst-launch-1.0", "-q", "pipewiresrc", "target-object=Velmora", "!", "video/x-raw", "!", "fakesink"});
    for (int i = 0; i < 500 && !publisher->hasClients(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (!publisher->hasClients()) {
      st.SkipWithError("the consumer was never linked");
      return false;
    }
    return true;
  }
  ~Streaming() {
    test::PrivatePipeWire::killOne(consumer, SIGTERM);
    if (publisher) publisher->stop();
  }
};

// publish() on the render thread, frames paced at 60 Hz so the consumer can
// take each; the loop thread's copy is reported per copied frame.
void BM_PipeWirePublishAndCopy(benchmark::State& st) {
  Streaming s;
  if (!s.start(st)) return;
  auto frame = frame1080();
  const auto before = s.publisher->source()->counters();
  for (auto _ : st) {
    const auto started = std::chrono::steady_clock::now();
    s.publisher->publish(frame);
    st.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
    std::this_thread::sleep_for(std::chrono::microseconds(16667));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const auto after = s.publisher->source()->counters();
  const double copied = static_cast<double>(after.copied - before.copied);
  st.counters["frames copied"] = copied;
  st.counters["dropped (no buffer)"] = static_cast<double>(after.noBuffer - before.noBuffer);
  st.counters["loop copy ms/frame"] = copied > 0 ? (after.copySeconds - before.copySeconds) * 1e3 / copied : 0.0;
}
BENCHMARK(BM_PipeWirePublishAndCopy)->Unit(benchmark::kMicrosecond)->UseManualTime()->Iterations(300);

// Takes frame descriptions and renders nothing: only the main thread's
// share of a tick is measured.
class DiscardingRenderer : public FrameRenderer {
 public:
  std::size_t* submitted = nullptr;
  void setFrameHandler(FrameHandler) override {}
  void submit(std::shared_ptr<const FrameDescription>) override { ++*submitted; }
  Result renderNow(std::shared_ptr<const FrameDescription>) override { return {nullptr, "not here"}; }
  void stop() override {}
};

// The 60 Hz tick (update, cue sample, output sync with both outputs
// running, frame description hand-off) with a live face.
void BM_MainThreadTickWithOutputsOn(benchmark::State& st) {
  MainQueue::shared().bindToCurrentThread();
  Streaming s;
  if (!s.start(st)) return;
#ifdef VELMORA_NDI_DOUBLE_DIR
  ::setenv("NDI_RUNTIME_DIR_V6", VELMORA_NDI_DOUBLE_DIR, 1);
#endif
  NDIPublisher ndi(std::vector<std::string>{});
  test::TempDir dir;
  SettingsStore store(dir.path());
  FaceTrackingState state(store);
  CharacterAnimationController animation;
  MaskSceneManager scene(state, animation);
  std::size_t submitted = 0;
  auto renderer = std::make_unique<DiscardingRenderer>();
  renderer->submitted = &submitted;
  scene.setRenderer(std::move(renderer));
  scene.setOutputs(s.publisher.get(), &ndi);
  state.setIsSyphonActive(true);
  state.setIsNDIActive(true);
  scene.tick();
  if (!ndi.isRunning()) st.SkipWithError(ndi.lastError().value_or("NDI did not start").c_str());
  BlendshapeMap face{{"jawOpen", 0.4f}, {"mouthSmileLeft", 0.3f}, {"eyeBlinkLeft", 0.2f}, {"browInnerUp", 0.5f}};
  state.ingestPacket(face, float3(0.1f, 0.05f, 0.0f), std::nullopt, "127.0.0.1:50000");
  submitted = 0;
  for (auto _ : st) scene.tick();
  // 1 when every tick captured a frame for the outputs, as it should here.
  st.counters["frames/tick"] = benchmark::Counter(static_cast<double>(submitted), benchmark::Counter::kAvgIterations);
  scene.shutdownOutputs();
  scene.setOutputs(nullptr, nullptr);
}
BENCHMARK(BM_MainThreadTickWithOutputsOn)->Unit(benchmark::kMicrosecond);

// One attempt to create the source while no daemon runs, as the output sync
// makes it on the main thread every two seconds while the output stays on
// (between attempts start() returns at once).
void BM_PipeWireStartWithoutDaemon(benchmark::State& st) {
  test::PrivatePipeWire session;  // never started: an empty runtime folder
  double now = 0.0;
  SyphonPublisher publisher({"/usr/lib/x86_64-linux-gnu"}, [&] { return now; });
  for (auto _ : st) {
    now += SyphonPublisher::retryInterval + 0.1;
    if (publisher.start()) st.SkipWithError("a daemon answered");
  }
}
BENCHMARK(BM_PipeWireStartWithoutDaemon)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace velmora
