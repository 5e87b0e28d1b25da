// Main-thread costs of remote control and cues: sampling the playing cue
// (once per tick) and resolving a received address to its command.
#include <benchmark/benchmark.h>

#include "animation/CharacterAnimationController.h"
#include "base/MainQueue.h"
#include "control/OSCCommandCatalog.h"

namespace velmora {
namespace {

void BM_CueSample(benchmark::State& st) {
  MainQueue::shared().bindToCurrentThread();
  const auto kind = AnimationCue::allKinds[static_cast<std::size_t>(st.range(0))];
  CharacterAnimationController controller;
  double t = 0;
  controller.trigger(AnimationCue::make(kind, 1e9), 0);  // never completes during the run
  for (auto _ : st) {
    t += 1.0 / 60.0;
    benchmark::DoNotOptimize(controller.sample(t));
  }
  st.SetLabel(AnimationCue::name(kind));
}
BENCHMARK(BM_CueSample)->DenseRange(0, 14);

void BM_CueSampleIdle(benchmark::State& st) {
  MainQueue::shared().bindToCurrentThread();
  CharacterAnimationController controller;
  double t = 0;
  for (auto _ : st) benchmark::DoNotOptimize(controller.sample(t += 1.0 / 60.0));
}
BENCHMARK(BM_CueSampleIdle);

void BM_CommandLookup(benchmark::State& st) {
  const char* addresses[] = {"/velmora/recentre", "/Lighting/Colour", "/ghost/flyin", "/velmora/unknown"};
  std::size_t i = 0;
  for (auto _ : st) benchmark::DoNotOptimize(OSCCommandCatalog::find(addresses[i++ & 3]));
}
BENCHMARK(BM_CommandLookup);

}  // namespace
}  // namespace velmora
