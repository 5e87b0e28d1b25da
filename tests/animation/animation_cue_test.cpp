#include "animation/AnimationCue.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>

#include "animation/AnimationOutput.h"

namespace velmora {
namespace {

using K = AnimationCue::Kind;

TEST(AnimationCue, NamesAreDistinctDisplayTextsInCatalogueOrder) {
  std::set<std::string> distinct;
  for (std::size_t i = 0; i < AnimationCue::allKinds.size(); ++i) {
    EXPECT_EQ(static_cast<std::size_t>(AnimationCue::allKinds[i]), i) << "allKinds must list the kinds in index order";
    distinct.insert(AnimationCue::name(AnimationCue::allKinds[i]));
  }
  EXPECT_EQ(distinct.size(), 15u);
  EXPECT_EQ(AnimationCue::name(K::ghostFlyIn), "Ghost Fly In");
  EXPECT_EQ(AnimationCue::name(K::ghostSpook), "Ghost Spook (Boo!)");
  EXPECT_EQ(AnimationCue::name(K::ghostLaugh), "Ghost Chuckle & Laugh");
  EXPECT_EQ(AnimationCue::name(K::maskLaugh), "Mask Belly Laugh");
  EXPECT_EQ(AnimationCue::name(K::maskGlare), "Mask Menacing Glare");
  // "Ghost 360° Spin": 16 bytes of UTF-8, whatever the requested duration.
  const std::string spin = AnimationCue::make(K::ghostSpin, -3).name();
  EXPECT_EQ(spin, "Ghost 360\xC2\xB0 Spin");
  EXPECT_EQ(spin.size(), 16u);
}

TEST(AnimationCue, DurationIsRaisedToTheKindsMinimum) {
  const std::set<K> shortKinds = {K::ghostSpook, K::ghostShiver, K::maskGasp,
                                  K::maskNod,    K::maskShake,   K::maskGlare};
  for (K kind : AnimationCue::allKinds) {
    const double minimum = shortKinds.count(kind) ? 0.4 : 0.5;
    SCOPED_TRACE(AnimationCue::name(kind));
    EXPECT_EQ(AnimationCue::make(kind, 0).duration(), minimum);
    EXPECT_EQ(AnimationCue::make(kind, -2).duration(), minimum);
    EXPECT_EQ(AnimationCue::make(kind, 0.45).duration(), std::max(0.45, minimum));
    EXPECT_EQ(AnimationCue::make(kind, std::nan("")).duration(), minimum);
    EXPECT_EQ(AnimationCue::make(kind, -std::numeric_limits<double>::infinity()).duration(), minimum);
    EXPECT_EQ(AnimationCue::make(kind, 3.25).duration(), 3.25);
  }
}

TEST(AnimationCue, EqualityComparesKindAndRequestedDuration) {
  EXPECT_EQ(AnimationCue::make(K::ghostSpook, 1.0), AnimationCue::make(K::ghostSpook, 1.0));
  EXPECT_NE(AnimationCue::make(K::ghostSpook, 1.0), AnimationCue::make(K::ghostSpook, 2.0));
  EXPECT_NE(AnimationCue::make(K::ghostSpook, 1.0), AnimationCue::make(K::ghostShiver, 1.0));
  // Requested values below the minimum are still distinct cues.
  EXPECT_NE(AnimationCue::make(K::maskNod, 0.0), AnimationCue::make(K::maskNod, 0.1));
}

TEST(AnimationCue, CharacterOfEachKind) {
  for (K kind : AnimationCue::allKinds) {
    const bool ghost = AnimationCue::name(kind).rfind("Ghost", 0) == 0;
    EXPECT_EQ(AnimationCue::isGhostCue(kind), ghost) << AnimationCue::name(kind);
  }
}

TEST(AnimationOutput, NeutralIsIdentity) {
  const AnimationOutput& n = AnimationOutput::neutral();
  EXPECT_EQ(n.positionOffset, float3(0, 0, 0));
  EXPECT_EQ(n.rotationOffset, float3(0, 0, 0));
  EXPECT_EQ(n.scaleMultiplier, float3(1, 1, 1));
  EXPECT_EQ(n.opacityMultiplier, 1.0f);
  EXPECT_TRUE(n.blendshapes.empty());
  EXPECT_EQ(n.blendWeight, 0.0f);
}

}  // namespace
}  // namespace velmora
