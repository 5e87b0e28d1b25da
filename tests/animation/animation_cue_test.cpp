#include "animation/AnimationCue.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace velmora {
namespace {

using K = AnimationCue::Kind;

// Every kind in catalogue order: its display text (exact), its minimum
// duration, whether it is a ghost cue, and what makes two cues equal.
TEST(AnimationCue, EveryKindsTextMinimumCharacterAndEquality) {
  const struct {
    K kind;
    const char* name;
    double minimum;
    bool ghost;
  } rows[] = {
      {K::ghostFlyIn, "Ghost Fly In", 0.5, true},
      {K::ghostFlyOut, "Ghost Fly Out", 0.5, true},
      {K::ghostSpook, "Ghost Spook (Boo!)", 0.4, true},
      {K::ghostSpin, "Ghost 360\xC2\xB0 Spin", 0.5, true},  // 16 bytes of UTF-8
      {K::ghostWobble, "Ghost Eerie Wobble", 0.5, true},
      {K::ghostPeek, "Ghost Side Peek", 0.5, true},
      {K::ghostLaugh, "Ghost Chuckle & Laugh", 0.5, true},
      {K::ghostShiver, "Ghost Scared Shiver", 0.4, true},
      {K::maskBow, "Mask Dramatic Bow", 0.5, false},
      {K::maskGasp, "Mask Gasp", 0.4, false},
      {K::maskNod, "Mask Nod", 0.4, false},
      {K::maskShake, "Mask Shake", 0.4, false},
      {K::maskLaugh, "Mask Belly Laugh", 0.5, false},
      {K::maskSob, "Mask Tragedy Sob", 0.5, false},
      {K::maskGlare, "Mask Menacing Glare", 0.4, false},
  };
  ASSERT_EQ(AnimationCue::allKinds.size(), std::size(rows));
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    const auto& r = rows[i];
    SCOPED_TRACE(r.name);
    // allKinds lists the kinds in index order; the name is whatever the requested duration.
    EXPECT_EQ(std::tuple(AnimationCue::allKinds[i], static_cast<std::size_t>(r.kind),
                         AnimationCue::make(r.kind, -3).name(), AnimationCue::isGhostCue(r.kind)),
              std::tuple(r.kind, i, r.name, r.ghost));
    for (const double requested : {0.0, -2.0, std::nan(""), -std::numeric_limits<double>::infinity()})
      EXPECT_EQ(AnimationCue::make(r.kind, requested).duration(), r.minimum) << requested;
    EXPECT_EQ(std::pair(AnimationCue::make(r.kind, 0.45).duration(), AnimationCue::make(r.kind, 3.25).duration()),
              std::pair(std::max(0.45, r.minimum), 3.25));
    // Equal when kind and requested duration are, even below the minimum.
    EXPECT_EQ(AnimationCue::make(r.kind, 1.0), AnimationCue::make(r.kind, 1.0));
    EXPECT_NE(AnimationCue::make(r.kind, 0.0), AnimationCue::make(r.kind, 0.1));
    EXPECT_NE(AnimationCue::make(r.kind, 1.0), AnimationCue::make(rows[(i + 1) % std::size(rows)].kind, 1.0));
  }
}

}  // namespace
}  // namespace velmora
