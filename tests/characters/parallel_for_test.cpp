// The build helpers' fork-join: every index handled exactly once, whatever
// the thread count, so per-index results cannot depend on it.
#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "characters/ParallelFor.h"
#include "characters/SourceBuffer.h"

namespace velmora {
namespace {

TEST(ParallelFor, CoversEveryIndexOnceForAnyThreadCount) {
  for (const unsigned threads : {1u, 2u, 3u, 8u}) {
    for (const std::size_t count : {std::size_t{0}, std::size_t{1}, std::size_t{5}, std::size_t{1001}}) {
      std::vector<std::atomic<int>> hits(count);
      parallelFor(
          count,
          [&](std::size_t begin, std::size_t end) {
            for (std::size_t i = begin; i < end; ++i) hits[i].fetch_add(1);
          },
          threads);
      for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(hits[i].load(), 1) << threads << " threads, " << count;

      std::vector<std::atomic<int>> each(count);
      parallelForEach(count, [&](std::size_t i) { each[i].fetch_add(1); }, threads);
      for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(each[i].load(), 1) << threads << " threads, " << count;
    }
  }
}

TEST(SourceBuffer, FreshArraysAreZeroedStride16Sources) {
  const auto data = SourceBuffer::allocate(300000);  // large enough to be populated in one call
  ASSERT_EQ(data->size(), 300000u);
  for (std::size_t i = 0; i < data->size(); i += 4099) ASSERT_EQ((*data)[i], 0.0f);

  const std::vector<float3> values{{1, 2, 3}, {-4, 5, -6}};
  const GeometrySource s = SourceBuffer::vec3Source(GeometrySource::Semantic::normal, values);
  EXPECT_EQ(s.semantic, GeometrySource::Semantic::normal);
  EXPECT_EQ(s.dataStride, 16);
  EXPECT_EQ(s.vectorCount, 2);
  EXPECT_EQ(s.vec3(1), values[1]);
  EXPECT_EQ((*s.data)[3], 0.0f);  // the unused fourth float
}

}  // namespace
}  // namespace velmora
