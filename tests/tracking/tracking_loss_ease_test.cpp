// Tracking loss on an injected clock: the live face eases to neutral after
// the timeout, back in when packets return, and is left exactly alone while
// packets flow or with the ease switched off. (The eased face as the scene
// shows it, half-way out and with the timeout 0:
// SceneManagerTest.TheFaceEasesToNeutralWhileCuesPlayOverIt.)
#include <gtest/gtest.h>

#include <cmath>

#include "tracking/TrackingLossEase.h"

namespace velmora {
namespace {

// The quintic ease at the points used below: S(0.5) = 0.5,
// S(0.25) = 0.103515625, S(0.75) = 0.896484375.
constexpr double kS25 = 0.103515625;

// One ease through a show: ten seconds of packets leave the face bit for
// bit; then each step does its event at `t`, then a tick, then reads the
// weight, whether the phone counts as lost (update() says when that changed)
// and since when (-1: not lost). Out takes 1 s, in 0.25 s.
TEST(TrackingLossEaseTest, WeightAlongATimeline) {
  TrackingLossEase ease;
  // Before any packet the phone is not "lost": nothing was there to lose.
  EXPECT_FALSE(ease.update(4.0));
  EXPECT_EQ(ease.weight(), 1.0);
  BlendshapeMap face{{"jawOpen", 0.37f}, {"eyeBlinkLeft", 0.9999f}};
  float3 head(0.1f, -0.2f, 0.3f);
  for (int i = 0; i < 600; ++i) {  // ten seconds at 60 packets/s, ticks in between
    ease.packetArrived(5.0 + i / 60.0);
    EXPECT_FALSE(ease.update(5.008 + i / 60.0));
    ease.apply(face, head);  // any weight below 1 would show in the face
  }
  EXPECT_EQ(face, (BlendshapeMap{{"jawOpen", 0.37f}, {"eyeBlinkLeft", 0.9999f}}));
  EXPECT_EQ(head, float3(0.1f, -0.2f, 0.3f));

  enum Event { tick, packet, faceless, timeoutTo };
  struct Step {
    double t;
    Event event;
    double weight;
    bool lost;
    double since = -1.0;
    double timeout = 0.0;
  };
  const Step steps[] = {
      {20.0, packet, 1.0, false},  // the default timeout 0.5 s
      {20.49, tick, 1.0, false},
      {20.5, tick, 1.0, true, 20.0},  // lost at the timeout: the ease starts there
      {20.75, tick, 1.0 - kS25, true, 20.0},
      {21.0, tick, 0.5, true, 20.0},
      {21.5, tick, 0.0, true, 20.0},
      {80.0, tick, 0.0, true, 20.0},  // stays neutral however long the phone is gone
      {81.0, packet, 0.0, false},     // back to live in a quarter second
      {81.0625, tick, kS25, false},
      {81.125, packet, 0.5, false},
      {81.25, packet, 1.0, false},
      {83.0, timeoutTo, 1.0, false, -1.0, 2.0},
      {83.75, tick, 0.5, true, 81.25},  // lost at 83.25, half-way out
      {83.75, packet, 0.5, false},      // back from where the face is
      {83.875, tick, 0.75, false},      // 0.5 + 0.5 * S(0.5)
      {86.0, tick, 1.0 - kS25, true, 83.75},  // lost at 85.75, out from the ease-in's end
      {86.5, packet, kS25, false},            // back from 1 - S(0.75)
      {86.75, tick, 1.0, false},
      {87.0, faceless, 1.0, true, 87.0},  // the sender sees no face: the ease starts at once
      {87.25, faceless, 1.0 - kS25, true, 87.0},  // still none: the ease keeps its start
      {87.5, packet, 0.5, false},
      {88.0, timeoutTo, 1.0, false, -1.0, 0.0},  // off: never lost
      {500.0, tick, 1.0, false},
      {500.0, timeoutTo, 0.0, true, 87.5, 0.5},  // on again: no packet since 87.5, long neutral
      {501.0, timeoutTo, 0.0, false, -1.0, 0.0},  // off while neutral: back at once, eased
      {501.125, tick, 0.5, false},
      {501.25, tick, 1.0, false},
  };
  bool wasLost = false;
  for (const Step& s : steps) {
    SCOPED_TRACE(s.t);
    if (s.event == timeoutTo) ease.setTimeout(s.timeout);
    if (s.event == packet || s.event == faceless) ease.packetArrived(s.t, s.event == packet);
    EXPECT_EQ(ease.update(s.t), s.lost != wasLost);
    wasLost = s.lost;
    EXPECT_DOUBLE_EQ(ease.weight(), s.weight);
    EXPECT_EQ(ease.isLost(), s.lost);
    EXPECT_EQ(ease.lostSince().value_or(-1.0), s.since);
  }
  // Nonsense timeouts count as off.
  for (double nonsense : {-3.0, std::nan("")}) {
    ease.setTimeout(nonsense);
    EXPECT_EQ(ease.timeout(), 0.0) << nonsense;
  }
}

}  // namespace
}  // namespace velmora
