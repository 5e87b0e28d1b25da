// glTF export times, per character, with the character already built (the
// build itself is measured by bench_characters):
//   BM_ExportDocument   node tree -> glTF document (deltas, sparse packing)
//   BM_ExportGlb        document -> GLB bytes (tinygltf's JSON + binary chunk)
//   BM_ExportRun        the whole "--export-gltf" run into a temporary
//                       folder: both characters, written, flushed to disk and
//                       renamed (file sizes reported as counters)
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

#include "export/CharacterExport.h"
#include "export/GltfExporter.h"
#include "base/Log.h"
#include "characters/CharacterBuild.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

void BM_ExportDocument(benchmark::State& state) {
  const auto model = static_cast<CharacterModelType>(state.range(0));
  const CharacterBuild build = createCharacterNode(model);
  for (auto _ : state) benchmark::DoNotOptimize(GltfExporter::document(*build.node));
  state.SetLabel(std::string(rawValue(model)));
}
BENCHMARK(BM_ExportDocument)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ExportGlb(benchmark::State& state) {
  const auto model = static_cast<CharacterModelType>(state.range(0));
  const tinygltf::Model doc = GltfExporter::document(*createCharacterNode(model).node);
  std::size_t bytes = 0;
  for (auto _ : state) bytes = GltfExporter::glb(doc).size();
  state.counters["bytes"] = static_cast<double>(bytes);
  state.SetLabel(std::string(rawValue(model)));
}
BENCHMARK(BM_ExportGlb)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ExportRun(benchmark::State& state) {
  const test::TempDir folder;
  const std::string templ = folder.path().string();
  if (templ.empty()) {
    state.SkipWithError("no temporary folder");
    return;
  }
  setLogSink([](const std::string&) {});
  for (const auto model : allCases<CharacterModelType>()) createCharacterNode(model);  // builds warm
  for (auto _ : state) {
    for (const auto& o : CharacterExport::run(templ)) {
      if (!o.written) state.SkipWithError(o.error.c_str());
      state.counters[std::string(rawValue(o.model)) + "_bytes"] = static_cast<double>(o.bytes);
    }
  }
  setLogSink(nullptr);
}
BENCHMARK(BM_ExportRun)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace
}  // namespace velmora
