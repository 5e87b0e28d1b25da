// Tracking loss on an injected clock: the live face eases to neutral after
// the timeout, back in when packets return, and is left exactly alone while
// packets flow or with the ease switched off.
#include <gtest/gtest.h>

#include "tracking/TrackingLossEase.h"

namespace velmora {
namespace {

// The quintic ease at the points used below: S(0.5) = 0.5,
// S(0.25) = 0.103515625, S(0.75) = 0.896484375.
constexpr double kS25 = 0.103515625;

// The weight after a tick at `t`.
double weightAt(TrackingLossEase& ease, double t) {
  ease.update(t);
  return ease.weight();
}

TEST(TrackingLossEaseTest, PacketsFlowingLeaveTheFaceBitForBit) {
  TrackingLossEase ease;
  BlendshapeMap face{{"jawOpen", 0.37f}, {"eyeBlinkLeft", 0.9999f}};
  float3 head(0.1f, -0.2f, 0.3f);
  for (int i = 0; i < 600; ++i) {  // ten seconds at 60 packets/s, ticks in between
    ease.packetArrived(5.0 + i / 60.0);
    EXPECT_FALSE(ease.update(5.008 + i / 60.0));
    ease.apply(face, head);  // any weight below 1 would show in the face
  }
  EXPECT_EQ(face, (BlendshapeMap{{"jawOpen", 0.37f}, {"eyeBlinkLeft", 0.9999f}}));
  EXPECT_EQ(head, float3(0.1f, -0.2f, 0.3f));
  EXPECT_FALSE(ease.isLost());
  EXPECT_FALSE(ease.lostSince());
  // Before any packet the phone is not "lost": nothing was there to lose.
  TrackingLossEase fresh;
  EXPECT_FALSE(fresh.update(1000.0));
  EXPECT_EQ(fresh.weight(), 1.0);
}

TEST(TrackingLossEaseTest, PacketsWithoutAFaceStartTheEaseAtOnce) {
  TrackingLossEase ease;
  ease.packetArrived(10.0);
  ease.packetArrived(10.02, false);  // the sender sees no face
  ease.packetArrived(10.04, false);  // still none: the ease keeps its start
  EXPECT_TRUE(ease.update(10.05));
  EXPECT_EQ(ease.lostSince(), 10.02);
  EXPECT_DOUBLE_EQ(weightAt(ease, 10.27), 1.0 - kS25);  // a quarter of the way out, from 10.02
  ease.packetArrived(10.3);  // the face is back
  EXPECT_TRUE(ease.update(10.3));
  EXPECT_FALSE(ease.isLost());
}

TEST(TrackingLossEaseTest, EasesOutOverASecondAndBackInOverAQuarter) {
  TrackingLossEase ease;  // default timeout 0.5 s
  ease.packetArrived(10.0);
  EXPECT_FALSE(ease.update(10.49));
  EXPECT_EQ(ease.weight(), 1.0);
  EXPECT_TRUE(ease.update(10.5));  // became lost
  EXPECT_TRUE(ease.isLost());
  EXPECT_EQ(ease.lostSince(), 10.0);
  EXPECT_DOUBLE_EQ(ease.weight(), 1.0);
  EXPECT_DOUBLE_EQ(weightAt(ease, 10.75), 1.0 - kS25);
  EXPECT_DOUBLE_EQ(weightAt(ease, 11.0), 0.5);

  BlendshapeMap face{{"jawOpen", 0.8f}, {"browInnerUp", 0.4f}};
  float3 head(0.2f, -0.4f, 0.1f);
  ease.apply(face, head);
  EXPECT_FLOAT_EQ(face["jawOpen"], 0.4f);
  EXPECT_FLOAT_EQ(face["browInnerUp"], 0.2f);
  EXPECT_FLOAT_EQ(head.y, -0.2f);

  EXPECT_EQ(weightAt(ease, 11.5), 0.0);
  EXPECT_EQ(weightAt(ease, 60.0), 0.0);  // stays neutral however long the phone is gone
  face = {{"jawOpen", 0.8f}};
  head = float3(0.2f);
  ease.apply(face, head);
  EXPECT_EQ(face["jawOpen"], 0.0f);
  EXPECT_EQ(head, float3(0.0f));

  // Packets return: back to live in a quarter second.
  ease.packetArrived(61.0);
  EXPECT_TRUE(ease.update(61.0));
  EXPECT_FALSE(ease.isLost());
  EXPECT_FALSE(ease.lostSince());
  EXPECT_EQ(ease.weight(), 0.0);
  EXPECT_DOUBLE_EQ(weightAt(ease, 61.0625), kS25);
  ease.packetArrived(61.1);
  EXPECT_DOUBLE_EQ(weightAt(ease, 61.125), 0.5);
  ease.packetArrived(61.25);
  EXPECT_EQ(weightAt(ease, 61.25), 1.0);
}

TEST(TrackingLossEaseTest, ReturnInTheMiddleOfTheEaseStartsFromWhereTheFaceIs) {
  TrackingLossEase ease;
  ease.setTimeout(2.0);
  ease.packetArrived(0.0);
  ease.update(1.9);
  EXPECT_FALSE(ease.isLost());
  EXPECT_DOUBLE_EQ(weightAt(ease, 2.5), 0.5);  // lost at 2.0, half-way out
  ease.packetArrived(2.5);
  EXPECT_DOUBLE_EQ(weightAt(ease, 2.625), 0.75);  // 0.5 + 0.5 * S(0.5)
  // Lost again before it was fully back: out from 0.75.
  ease.update(4.625);
  EXPECT_TRUE(ease.isLost());
  EXPECT_DOUBLE_EQ(weightAt(ease, 5.0), 1.0 * 0.5);  // 0.5 s after the loss at 4.5 (2 s after the packet at 2.5)
}

TEST(TrackingLossEaseTest, TimeoutZeroTurnsTheEaseOff) {
  TrackingLossEase ease;
  ease.setTimeout(0.0);
  ease.packetArrived(1.0);
  EXPECT_EQ(weightAt(ease, 500.0), 1.0);
  EXPECT_FALSE(ease.isLost());

  // Switched off while the face is neutral: it comes back at once, eased.
  ease.setTimeout(0.5);
  EXPECT_EQ(weightAt(ease, 501.5), 0.0);
  ease.setTimeout(0.0);
  EXPECT_TRUE(ease.update(502.0));
  EXPECT_FALSE(ease.isLost());
  EXPECT_DOUBLE_EQ(weightAt(ease, 502.125), 0.5);
  EXPECT_EQ(weightAt(ease, 502.25), 1.0);
  // Nonsense timeouts count as off.
  for (double nonsense : {-3.0, std::nan("")}) {
    ease.setTimeout(nonsense);
    EXPECT_EQ(ease.timeout(), 0.0) << nonsense;
  }
}

}  // namespace
}  // namespace velmora
