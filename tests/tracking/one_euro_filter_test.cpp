// One Euro filters: priming, time steps, non-finite input, parameters, and
// exact single-precision results. Expected bit patterns were worked out
// step by step in single precision (dt in double) outside this code base.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <tuple>
#include <random>
#include <vector>

#include "tracking/OneEuroFilter1D.h"
#include "tracking/OneEuroFilter3D.h"
#include "tracking/OneEuroFilterBank.h"

namespace velmora {
namespace {

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float inf = std::numeric_limits<float>::infinity();

std::uint32_t bits(float v) { return std::bit_cast<std::uint32_t>(v); }

// The first sample after construction or reset passes through exactly. The
// worked steps (from a reset filter) pin the smoothing factor, the
// derivative's own filter, the speed term (for a rising signal; a falling one
// is the bank test's, against the bank's own absolute value) and the
// 0.0001 s shortest step.
TEST(OneEuroFilter1DTest, FirstSampleIsExactThenMatchesWorkedSinglePrecisionSteps) {
  OneEuroFilter1D filter(1.0f, 0.5f, 1.0f);
  EXPECT_FALSE(filter.isPrimed());
  EXPECT_EQ(filter.filter(0.123456f, 5.0), 0.123456f);
  EXPECT_NE(filter.filter(0.9f, 5.1), 0.9f);  // primed: filtered
  filter.reset();
  EXPECT_EQ(filter.filter(-7.25f, 1.0), -7.25f);  // earlier time is fine after reset
  // Reset keeps the parameters.
  EXPECT_EQ(std::tuple(filter.minCutoff, filter.beta, filter.dCutoff), std::tuple(1.0f, 0.5f, 1.0f));

  filter.reset();
  EXPECT_EQ(filter.filter(0.2f, 10.0), 0.2f);
  EXPECT_EQ(bits(filter.filter(0.9f, 10.0166)), 0x3ebba172u);  // 0.366466105
  EXPECT_EQ(bits(filter.filter(0.4f, 10.05)), 0x3ec1e389u);    // 0.378689080
  // Same timestamp again: dt counts as 0.0001 s.
  EXPECT_EQ(bits(filter.filter(0.4f, 10.05)), 0x3ec1e871u);  // 0.378726512
  EXPECT_EQ(bits(filter.filter(1.0f, 10.2)), 0x3f55b9e4u);   // 0.834867716
  // A timestamp before the previous one takes the same shortest step.
  OneEuroFilter1D same(1.0f, 0.0f, 1.0f), backwards(1.0f, 0.0f, 1.0f);
  for (auto* f : {&same, &backwards}) f->filter(0.0f, 3.0);
  EXPECT_EQ(bits(backwards.filter(1.0f, 2.0)), bits(same.filter(1.0f, 3.0)));
}

TEST(OneEuroFilter1DTest, NonFiniteSampleLeavesStateUntouched) {
  OneEuroFilter1D empty(1.0f, 0.0f, 1.0f);
  EXPECT_EQ(empty.filter(nan, 1.0), 0.0f);
  EXPECT_EQ(empty.filter(inf, 1.0), 0.0f);
  EXPECT_FALSE(empty.isPrimed());
  EXPECT_EQ(empty.filter(0.5f, 2.0), 0.5f);  // still the first sample

  OneEuroFilter1D a(1.0f, 0.3f, 1.0f);
  a.filter(0.1f, 1.0);
  const float out = a.filter(0.7f, 1.02);
  OneEuroFilter1D b = a;  // the state before the rejected samples
  EXPECT_EQ(a.filter(nan, 1.5), out);
  EXPECT_EQ(a.filter(-inf, 1.6), out);
  // The rejected samples moved neither the time nor the derivative.
  EXPECT_EQ(a.filter(0.3f, 1.04), b.filter(0.3f, 1.04));
}

TEST(OneEuroFilterBankTest, EveryLaneIsBitForBitItsOwnFilter) {
  // 52 lanes against 52 standalone filters: different parameters, names
  // that start late or skip packets (their own time step), fast and slow
  // signals, huge jumps, denormals and non-finite samples, and a parameter
  // change half-way. The bank steps the lanes that share the packet's step
  // together and the others alone, as the face pipeline does. A third copy
  // of each lane, a single filter, is handed the packet's step every time:
  // it must use it only when it was made for its own previous time and
  // dCutoff (and for a finite sample of a primed filter).
  std::mt19937 random(11);
  std::uniform_real_distribution<float> unit(-0.5f, 1.5f);
  OneEuroFilterBank bank;
  std::vector<std::optional<OneEuroFilter1D>> alone(OneEuroFilterBank::laneCount), stepped = alone;
  double now = 1.0;
  for (int packet = 0; packet < 60; ++packet) {
    now += packet % 11 == 10 ? 0.00001 : 1.0 / 60.0 + 0.001 * (packet % 3);
    if (packet == 30) {
      bank.updateParameters(0.24f, 0.0015f);
      for (auto* filters : {&alone, &stepped})
        for (auto& f : *filters)
          if (f) f->minCutoff = 0.24f, f->beta = 0.0015f;
    }
    std::optional<OneEuroFilter1D::TimeStep> step;
    alignas(16) float values[OneEuroFilterBank::laneCount] = {}, outputs[OneEuroFilterBank::laneCount];
    std::uint64_t together = 0;
    std::vector<std::pair<std::size_t, float>> expected;
    for (std::size_t lane = 0; lane < OneEuroFilterBank::laneCount; ++lane) {
      if (packet < static_cast<int>(lane % 7) || (lane % 5 == 2 && packet % 4 == 1)) continue;  // late, or skipping
      float value = packet % 7 == 3 ? 1e30f * unit(random) : (lane % 9 == 1 ? 1e-40f : unit(random));
      if (lane == 13 && packet % 10 == 5) value = std::numeric_limits<float>::quiet_NaN();
      if (!bank.exists(lane)) {
        const float minCutoff = 0.2f + 0.05f * static_cast<float>(lane);
        const float beta = lane % 4 == 0 ? 0.0f : 0.001f * static_cast<float>(lane);
        const float dCutoff = lane % 3 == 2 ? 2.0f : 1.0f;
        bank.create(lane, minCutoff, beta, dCutoff);
        alone[lane].emplace(minCutoff, beta, dCutoff);
        stepped[lane].emplace(minCutoff, beta, dCutoff);
      }
      const float reference = alone[lane]->filter(value, now);
      if (!step && bank.isPrimed(lane))
        step = OneEuroFilter1D::timeStep(bank.previousTime(lane), now, bank.dCutoff(lane));
      const float single = step ? stepped[lane]->filter(value, now, *step) : stepped[lane]->filter(value, now);
      ASSERT_EQ(bits(single), bits(reference)) << "single, lane " << lane << " packet " << packet;
      if (std::isfinite(value) && step && bank.canShare(lane, *step)) {
        values[lane] = value;
        together |= std::uint64_t{1} << lane;
        expected.emplace_back(lane, reference);
      } else {
        ASSERT_EQ(bits(bank.filter(lane, value, now)), bits(reference)) << "lane " << lane << " packet " << packet;
      }
    }
    if (together) bank.filterShared(together, values, *step, outputs);
    for (const auto& [lane, reference] : expected)
      ASSERT_EQ(bits(outputs[lane]), bits(reference)) << "lane " << lane << " packet " << packet;
  }
  for (std::size_t lane = 0; lane < OneEuroFilterBank::laneCount; ++lane) {
    const OneEuroFilter1D copy = bank.filterAt(lane);
    EXPECT_EQ(std::tuple(copy.previousTime(), copy.minCutoff, copy.isPrimed()),
              std::tuple(alone[lane]->previousTime(), alone[lane]->minCutoff, alone[lane]->isPrimed()));
  }
  EXPECT_FALSE(bank.canShare(0, OneEuroFilter1D::timeStep(0.5, 2.0, 1.0f)));
  // Nor a step made for another timestamp.
  OneEuroFilter1D plain(1.0f, 0.0f, 1.0f), shared = plain;
  for (auto* f : {&plain, &shared}) f->filter(0.2f, 1.0);
  EXPECT_EQ(bits(shared.filter(0.7f, 1.5, OneEuroFilter1D::timeStep(1.0, 2.0, 1.0f))), bits(plain.filter(0.7f, 1.5)));
  OneEuroFilterBank empty;
  EXPECT_FALSE(empty.canShare(0, OneEuroFilter1D::timeStep(0.0, 1.0, 0.0f)));
}

// Each component is its own filter on the same time; a non-finite component
// is filtered as 0; new parameters keep dCutoff and the state (the last
// sample, after the update, depends on all three parameters).
TEST(OneEuroFilter3DTest, ComponentsFilterIndependentlyWithTheSameTime) {
  OneEuroFilter3D vector(1.0f, 0.5f, 1.0f);
  OneEuroFilter1D x(1.0f, 0.5f, 1.0f), y(1.0f, 0.5f, 1.0f), z(1.0f, 0.5f, 1.0f);
  const float3 samples[] = {{0.2f, -1.0f, 3.0f}, {0.9f, nan, 2.0f}, {0.4f, 0.0f, inf}, {0.1f, 0.5f, 1.0f}};
  const double times[] = {10.0, 10.0166, 10.05, 10.1};
  auto zeroed = [](float v) { return std::isfinite(v) ? v : 0.0f; };
  for (int i = 0; i < 4; ++i) {
    if (i == 3) {
      vector.updateParameters(0.2f, 0.001f);
      for (auto* f : {&x, &y, &z}) f->minCutoff = 0.2f, f->beta = 0.001f;
    }
    const float3 s = samples[i];
    const double t = times[i];
    EXPECT_EQ(vector.filter(s, t), float3(x.filter(zeroed(s.x), t), y.filter(zeroed(s.y), t), z.filter(zeroed(s.z), t)))
        << i;
  }
  vector.reset();
  EXPECT_EQ(vector.filter(float3(4.0f, 5.0f, 6.0f), 1.0), float3(4.0f, 5.0f, 6.0f));
}

}  // namespace
}  // namespace velmora
