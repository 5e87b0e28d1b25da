// Scene budgets: the main thread's per-tick work (face and cue onto the
// character, then the frame description) must stay under 1 ms whatever the
// renderer does; the 1080p frame with shadows is measured on whatever GL the
// machine has (software llvmpipe without a GPU).
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>

#include "animation/CharacterAnimationController.h"
#include "base/MainQueue.h"
#include "base/SettingsStore.h"
#include "render/RenderThread.h"
#include "scene/MaskSceneManager.h"
#include "stage/ARKitBlendShape.h"
#include "support/TempDir.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

struct Fixture {
  test::TempDir folder;
  std::unique_ptr<SettingsStore> store;
  std::unique_ptr<FaceTrackingState> state;
  std::unique_ptr<CharacterAnimationController> animation;
  std::unique_ptr<MaskSceneManager> scene;
  double now = 1.0;

  explicit Fixture(CharacterModelType model) {
    MainQueue::shared().bindToCurrentThread();
    store = std::make_unique<SettingsStore>(folder.path());
    state = std::make_unique<FaceTrackingState>(*store);
    state->setCharacterModel(model);
    animation = std::make_unique<CharacterAnimationController>();
    scene = std::make_unique<MaskSceneManager>(*state, *animation, [this] { return now; });
    scene->setRenderer(std::make_unique<RenderThread>());
    // A full live face: all 52 blendshapes at mid values.
    BlendshapeMap face;
    int i = 0;
    for (ARKitBlendShape shape : allCases<ARKitBlendShape>()) face[std::string(rawValue(shape))] = 0.1f + 0.015f * i++;
    state->setBlendshapes(face);
  }
  ~Fixture() { scene.reset(); }
};

// updateTracking (cue sample, blend, 52 morph weights, pose, lighting check)
// plus the immutable frame description handed to the render thread.
void BM_MainThreadTick(benchmark::State& st) {
  Fixture f(st.range(0) == 0 ? CharacterModelType::theatricalMask : CharacterModelType::cartoonGhost);
  if (st.range(1)) f.animation->trigger(AnimationCue::make(AnimationCue::Kind::ghostSpook, 1e9), f.now);
  for (auto _ : st) {
    f.now += 1.0 / 60.0;
    f.scene->updateTracking(*f.state);
    auto frame = f.scene->makeFrameDescription();
    benchmark::DoNotOptimize(frame);
  }
  st.SetLabel(std::string(st.range(0) == 0 ? "mask" : "ghost") + (st.range(1) ? ", cue playing" : ", live only"));
}
BENCHMARK(BM_MainThreadTick)->Args({0, 0})->Args({0, 1})->Args({1, 0})->Args({1, 1})->Unit(benchmark::kMicrosecond);

// One 1920x1080 frame of the mask (theatrical lighting, key shadow map,
// every expression channel active), rendered and read back.
void BM_Render1080p(benchmark::State& st) {
  Fixture f(CharacterModelType::theatricalMask);
  f.scene->updateTracking(*f.state);
  auto warm = f.scene->renderFrameNow(1920, 1080, static_cast<int>(st.range(0)));  // context, shaders, uploads
  if (!warm.frame) {
    st.SkipWithError(warm.error.c_str());
    return;
  }
  for (auto _ : st) {
    auto result = f.scene->renderFrameNow(1920, 1080, static_cast<int>(st.range(0)));
    benchmark::DoNotOptimize(result.frame);
  }
  st.SetLabel(std::to_string(st.range(0)) + "x multisampling");
}
BENCHMARK(BM_Render1080p)->Arg(4)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

}  // namespace
}  // namespace velmora
