// Per-frame cost of the tracking state: one ingestPacket with all 52
// blendshapes and a head rotation (budget: 2 us on the 2-core development
// machine), and single filter steps.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <array>
#include <filesystem>
#include <string>

#include "base/SettingsStore.h"
#include "stage/ARKitBlendShape.h"
#include "tracking/FaceTrackingState.h"
#include "tracking/OneEuroFilter1D.h"
#include "tracking/OneEuroFilter3D.h"

namespace {

using namespace velmora;

std::filesystem::path scratchFolder() {
  std::string templ = (std::filesystem::temp_directory_path() / "velmora-bench-XXXXXX").string();
  if (char* dir = ::mkdtemp(templ.data())) return dir;
  return std::filesystem::temp_directory_path();
}

// Frames that differ, so the filters see real movement.
std::array<BlendshapeMap, 4> frames() {
  std::array<BlendshapeMap, 4> out;
  for (std::size_t f = 0; f < out.size(); ++f) {
    for (ARKitBlendShape shape : allCases<ARKitBlendShape>()) {
      out[f][std::string(rawValue(shape))] = 0.1f + 0.01f * static_cast<float>(index(shape)) + 0.05f * f;
    }
  }
  return out;
}

void BM_IngestPacket52AndRotation(benchmark::State& state) {
  const auto folder = scratchFolder();
  SettingsStore store(folder);
  double now = 0.0;
  FaceTrackingState tracking(store, [&now] { return now; });
  tracking.setRange("jawOpen", 0.1f, 0.8f);  // one ranged name, as after a calibration
  const auto maps = frames();
  std::array<std::optional<BlendshapeMap>, 4> packets;
  for (std::size_t i = 0; i < maps.size(); ++i) packets[i] = maps[i];
  const std::string sender = "192.168.1.20:50123";
  std::size_t i = 0;
  for (auto _ : state) {
    now += 1.0 / 60.0;
    const float wobble = 0.01f * static_cast<float>(i & 3);
    tracking.ingestPacket(packets[i & 3], float3(0.1f + wobble, -0.2f, 0.05f), std::nullopt, sender);
    ++i;
    benchmark::DoNotOptimize(tracking.blendshapes());
  }
  state.SetItemsProcessed(state.iterations());
  std::error_code ec;
  std::filesystem::remove_all(folder, ec);
}
BENCHMARK(BM_IngestPacket52AndRotation);

void BM_OneEuroFilter1DStep(benchmark::State& state) {
  OneEuroFilter1D filter(1.98f, 0.0165f, 1.0f);
  double t = 0.0;
  float x = 0.3f;
  for (auto _ : state) {
    t += 1.0 / 60.0;
    x = x > 0.8f ? 0.2f : x + 0.05f;
    benchmark::DoNotOptimize(filter.filter(x, t));
  }
}
BENCHMARK(BM_OneEuroFilter1DStep);

void BM_OneEuroFilter3DStep(benchmark::State& state) {
  OneEuroFilter3D filter(1.65f, 0.011f, 1.0f);
  double t = 0.0;
  float x = 0.3f;
  for (auto _ : state) {
    t += 1.0 / 60.0;
    x = x > 0.8f ? 0.2f : x + 0.05f;
    benchmark::DoNotOptimize(filter.filter(float3(x, -x, 0.5f * x), t));
  }
}
BENCHMARK(BM_OneEuroFilter3DStep);

}  // namespace
