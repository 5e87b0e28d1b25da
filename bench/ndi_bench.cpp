// NDI hand-off budget: what sending one 1920 x 1080 frame costs Velmora
// (<= 2 ms CPU), the runtime's own encoding left out. Runs against the
// runtime double built with the tests (NDI_RUNTIME_DIR_V6 is set here), told
// to leave the pixels unread, so only our side is measured: the render
// thread's publish() and the queue's frame fill and call.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <new>
#include <thread>

#include "outputs/NDIPublisher.h"

// Every heap allocation in the process, to report how many one frame costs.
std::atomic<long> allocations{0};

void* operator new(std::size_t size) {
  allocations.fetch_add(1, std::memory_order_relaxed);
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
// The replaced new above takes its memory from malloc, so free is the match.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace velmora {
namespace {

std::shared_ptr<RenderedFrame> frame1080() {
  auto f = std::make_shared<RenderedFrame>();
  f->width = 1920;
  f->height = 1080;
  f->pixels.assign(static_cast<std::size_t>(f->width) * f->height * 4, 0x80);
  return f;
}

std::unique_ptr<NDIPublisher> startedPublisher(benchmark::State& st) {
#ifdef VELMORA_NDI_DOUBLE_DIR
  ::setenv("NDI_RUNTIME_DIR_V6", VELMORA_NDI_DOUBLE_DIR, 1);
#endif
  ::setenv("NDI_DOUBLE_UNREAD_SENDS", "1", 1);
  auto publisher = std::make_unique<NDIPublisher>(std::vector<std::string>{});
  if (!publisher->start()) st.SkipWithError(publisher->lastError().value_or("no NDI runtime").c_str());
  return publisher;
}

// The publisher lets go of a frame when its send has returned.
void waitForSend(const std::shared_ptr<RenderedFrame>& frame) {
  while (frame.use_count() > 1) std::this_thread::sleep_for(std::chrono::microseconds(20));
}

// The render thread's share: publish() of a frame that is accepted (the
// previous send has finished), i.e. the lock, the flag and the queue post.
void BM_NDIPublishOnRenderThread(benchmark::State& st) {
  auto publisher = startedPublisher(st);
  auto frame = frame1080();
  for (auto _ : st) {
    publisher->publish(frame);
    st.PauseTiming();
    waitForSend(frame);
    st.ResumeTiming();
  }
}
BENCHMARK(BM_NDIPublishOnRenderThread)->Unit(benchmark::kMicrosecond);

// The whole hand-off, from publish() to the runtime's send having returned
// and the frame released, in CPU time of the whole process (the render side,
// the queue's worker and the waiting here, which sleeps).
void BM_NDIHandOffPerFrame(benchmark::State& st) {
  auto publisher = startedPublisher(st);
  auto frame = frame1080();
  const long before = allocations.load();
  for (auto _ : st) {
    publisher->publish(frame);
    waitForSend(frame);
  }
  // Heap allocations per frame anywhere in the process (the pixels are never
  // copied; what remains is the work queue's own bookkeeping).
  st.counters["allocs/frame"] =
      benchmark::Counter(static_cast<double>(allocations.load() - before), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_NDIHandOffPerFrame)->Unit(benchmark::kMicrosecond)->MeasureProcessCPUTime()->UseRealTime();

// A start() that finds no runtime, as the output synchronisation repeats it
// on the main thread while NDI is switched on without one: the search over
// every candidate file (nothing is logged after the first time).
void BM_NDIStartWithoutRuntime(benchmark::State& st) {
  ::unsetenv("NDI_RUNTIME_DIR_V6");
  ::unsetenv("NDI_RUNTIME_DIR_V5");
  NDIPublisher publisher;  // the real search list
  if (publisher.start()) st.SkipWithError("a runtime is installed here; nothing to measure");
  for (auto _ : st) benchmark::DoNotOptimize(publisher.start());
}
BENCHMARK(BM_NDIStartWithoutRuntime)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace velmora
