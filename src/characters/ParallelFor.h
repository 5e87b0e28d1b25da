#pragma once
// Deterministic fork-join over an index range for the one-time character
// builds. Each index is handled by exactly one call of the body, so results
// that depend only on the index are identical whatever the thread count.
// Called from any thread; blocks until every chunk is done.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <thread>
#include <vector>

namespace velmora {

inline unsigned buildThreadCount() {
  const unsigned hw = std::thread::hardware_concurrency();
  return std::clamp(hw, 1u, 8u);
}

// body(begin, end) over contiguous chunks of [0, count).
template <class Body>
void parallelFor(std::size_t count, const Body& body, unsigned threads = buildThreadCount()) {
  if (count == 0) return;
  const std::size_t workers = std::max<std::size_t>(1, std::min<std::size_t>(threads, count));
  if (workers == 1) {
    body(std::size_t{0}, count);
    return;
  }
  const std::size_t chunk = (count + workers - 1) / workers;
  std::vector<std::thread> pool;
  pool.reserve(workers - 1);
  for (std::size_t w = 1; w < workers; ++w) {
    const std::size_t begin = w * chunk;
    const std::size_t end = std::min(count, begin + chunk);
    if (begin >= end) break;
    pool.emplace_back([&body, begin, end] { body(begin, end); });
  }
  body(std::size_t{0}, std::min(count, chunk));
  for (auto& t : pool) t.join();
}

// body(i) for every i in [0, count), handed out one index at a time (for a
// few large items of uneven cost, such as whole morph targets).
template <class Body>
void parallelForEach(std::size_t count, const Body& body, unsigned threads = buildThreadCount()) {
  std::atomic<std::size_t> next{0};
  const auto drain = [&] {
    for (std::size_t i = next.fetch_add(1); i < count; i = next.fetch_add(1)) body(i);
  };
  const std::size_t workers = std::max<std::size_t>(1, std::min<std::size_t>(threads, count));
  std::vector<std::thread> pool;
  pool.reserve(workers - 1);
  for (std::size_t w = 1; w < workers; ++w) pool.emplace_back(drain);
  drain();
  for (auto& t : pool) t.join();
}

}  // namespace velmora
