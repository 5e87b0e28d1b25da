// The build helpers' fork-join: every index handled exactly once, whatever
// the thread count, so per-index results cannot depend on it.
#include <gtest/gtest.h>

#include <atomic>
#include <tuple>
#include <vector>

#include "characters/ParallelFor.h"
#include "characters/SourceBuffer.h"

namespace velmora {
namespace {

TEST(ParallelFor, CoversEveryIndexOnceForAnyThreadCount) {
  for (const unsigned threads : {1u, 2u, 3u, 8u}) {
    for (const std::size_t count : {std::size_t{0}, std::size_t{1}, std::size_t{5}, std::size_t{1001}}) {
      // parallelFor adds 1 to each index, parallelForEach 100: 101 everywhere.
      std::vector<std::atomic<int>> hits(count);
      const auto range = [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) hits[i].fetch_add(1);
      };
      parallelFor(count, range, threads);
      parallelForEach(count, [&](std::size_t i) { hits[i].fetch_add(100); }, threads);
      for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(hits[i].load(), 101) << threads << " threads, " << count;
    }
  }
}

TEST(SourceBuffer, FreshArraysAreZeroedStride16Sources) {
  const auto data = SourceBuffer::allocate(300000);  // large enough to be populated in one call
  ASSERT_EQ(data->size(), 300000u);
  for (std::size_t i = 0; i < data->size(); i += 4099) ASSERT_EQ((*data)[i], 0.0f);

  const std::vector<float3> values{{1, 2, 3}, {-4, 5, -6}};
  const GeometrySource s = SourceBuffer::vec3Source(GeometrySource::Semantic::normal, values);
  // The unused fourth float is 0.
  EXPECT_EQ(std::tuple(s.semantic, s.dataStride, s.vectorCount, s.vec3(1), (*s.data)[3]),
            std::tuple(GeometrySource::Semantic::normal, 16, 2, values[1], 0.0f));
}

}  // namespace
}  // namespace velmora
