// The blendshape vocabulary, the Live Link wire order, the region rule and
// the two persisted enumerations.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <unordered_set>

#include "stage/ARKitBlendShape.h"
#include "stage/CharacterModelType.h"
#include "stage/TrackingDetail.h"
#include "tracking/BlendshapeRegion.h"
#include "tracking/LiveLinkNames.h"

namespace velmora {
namespace {

TEST(ARKitBlendShapeTest, CasesAreAlphabeticalWithTheirIndices) {
  const auto all = allCases<ARKitBlendShape>();
  ASSERT_EQ(all.size(), 52u);
  for (std::size_t i = 0; i < all.size(); ++i) EXPECT_EQ(index(all[i]), i);
  EXPECT_EQ(rawValue(all.front()), "browDownLeft");
  EXPECT_EQ(rawValue(all.back()), "tongueOut");
  EXPECT_EQ(rawValue(ARKitBlendShape::jawOpen), "jawOpen");
  EXPECT_EQ(index(ARKitBlendShape::jawOpen), 24u);
  EXPECT_EQ(index(ARKitBlendShape::mouthClose), 26u);
  EXPECT_EQ(rawValue(all[39]), "mouthRollLower");
  EXPECT_EQ(rawValue(all[13]), "eyeLookInRight");
  std::vector<std::string> names;
  for (auto shape : all) names.emplace_back(rawValue(shape));
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), 52u);
}

TEST(ARKitBlendShapeTest, RawValueRoundTripAndUnknownNames) {
  for (auto shape : allCases<ARKitBlendShape>()) {
    EXPECT_EQ(fromRawValue<ARKitBlendShape>(rawValue(shape)), shape) << rawValue(shape);
  }
  for (const std::string_view unknown : {std::string_view(""), std::string_view("JawOpen"), std::string_view("jawopen"),
                                         std::string_view("jawOpen "), std::string_view("jawOpen\0", 8),
                                         std::string_view("tongueOutX"), std::string_view("aaa"), std::string_view("zzz"),
                                         std::string_view("browDown"), std::string_view("mouthSmileLeftX")}) {
    EXPECT_FALSE(fromRawValue<ARKitBlendShape>(unknown)) << unknown;
  }
  std::unordered_set<ARKitBlendShape> set(allCases<ARKitBlendShape>().begin(), allCases<ARKitBlendShape>().end());
  EXPECT_EQ(set.size(), 52u);
  EXPECT_TRUE(set.contains(ARKitBlendShape::cheekPuff));
}

TEST(LiveLinkNamesTest, WireOrderCoversTheVocabularyOnce) {
  ASSERT_EQ(unrealARKitNames.size(), 52u);
  std::set<std::string_view> seen;
  for (auto name : unrealARKitNames) {
    EXPECT_TRUE(fromRawValue<ARKitBlendShape>(name)) << name;
    seen.insert(name);
  }
  EXPECT_EQ(seen.size(), 52u);
  EXPECT_EQ(unrealARKitNames[0], "eyeBlinkLeft");
  EXPECT_EQ(unrealARKitNames[17], "jawOpen");
  EXPECT_EQ(unrealARKitNames[41], "browDownLeft");
  EXPECT_EQ(unrealARKitNames[46], "cheekPuff");
  EXPECT_EQ(unrealARKitNames[51], "tongueOut");
}

TEST(BlendshapeRegionTest, PlainCaseSensitivePrefix) {
  EXPECT_EQ(blendshapeRegion("jawOpen"), BlendshapeRegion::mouth);
  EXPECT_EQ(blendshapeRegion("mouthSmileLeft"), BlendshapeRegion::mouth);
  EXPECT_EQ(blendshapeRegion("browInnerUp"), BlendshapeRegion::brow);
  EXPECT_EQ(blendshapeRegion("eyeBlinkRight"), BlendshapeRegion::eye);
  EXPECT_EQ(blendshapeRegion("eye"), BlendshapeRegion::eye);
  for (const char* none : {"cheekPuff", "noseSneerLeft", "tongueOut", "JawOpen", "Mouth", "", "ja", "eyBlink"}) {
    EXPECT_EQ(blendshapeRegion(none), BlendshapeRegion::none) << none;
  }
}

TEST(CharacterModelTypeTest, RawValuesAndNames) {
  const auto all = allCases<CharacterModelType>();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0], CharacterModelType::theatricalMask);
  EXPECT_EQ(all[1], CharacterModelType::cartoonGhost);
  EXPECT_EQ(rawValue(CharacterModelType::theatricalMask), "theatrical_mask");
  EXPECT_EQ(rawValue(CharacterModelType::cartoonGhost), "cartoon_ghost");
  EXPECT_EQ(displayName(CharacterModelType::theatricalMask), "Theatrical Mask");
  EXPECT_EQ(displayName(CharacterModelType::cartoonGhost), "Cartoon Ghost");
  EXPECT_EQ(fromRawValue<CharacterModelType>("theatrical_mask"), CharacterModelType::theatricalMask);
  EXPECT_EQ(fromRawValue<CharacterModelType>("cartoon_ghost"), CharacterModelType::cartoonGhost);
  for (const char* other : {"ghost", "Cartoon Ghost", "CARTOON_GHOST", "", "0", "1"}) {
    EXPECT_FALSE(fromRawValue<CharacterModelType>(other)) << other;
  }
}

TEST(TrackingDetailTest, RawValuesAndLabels) {
  const auto all = allCases<TrackingDetail>();
  ASSERT_EQ(all.size(), 4u);
  const char* labels[] = {"Simple", "Standard", "Detailed", "Many"};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(rawValue(all[i]), i);
    EXPECT_EQ(label(all[i]), labels[i]);
    EXPECT_EQ(fromRawValue<TrackingDetail>(i), all[i]);
  }
  EXPECT_EQ(fromRawValue<TrackingDetail>(3), TrackingDetail::many);
  EXPECT_FALSE(fromRawValue<TrackingDetail>(4));
  EXPECT_FALSE(fromRawValue<TrackingDetail>(-1));
  EXPECT_FALSE(fromRawValue<TrackingDetail>(std::int64_t{1} << 40));
}

}  // namespace
}  // namespace velmora
