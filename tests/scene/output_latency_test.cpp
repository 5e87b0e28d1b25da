// OutputLatency's figures: nearest-rank percentiles over a sliding window,
// and the split of each sample into tick wait and render.
#include <gtest/gtest.h>

#include "scene/OutputLatency.h"

namespace velmora {
namespace {

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
