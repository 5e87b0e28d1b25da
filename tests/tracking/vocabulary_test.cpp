// The blendshape vocabulary, the Live Link wire order, the region rule and
// the two persisted enumerations.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

#include "stage/ARKitBlendShape.h"
#include "stage/CharacterModelType.h"
#include "stage/TrackingDetail.h"
#include "tracking/BlendshapeRegion.h"
#include "tracking/LiveLinkNames.h"

namespace velmora {
namespace {

TEST(ARKitBlendShapeTest, CasesAreAlphabeticalWithTheirIndicesRoundTripAndLiveLinkOrderCoversThem) {
  const auto all = allCases<ARKitBlendShape>();
  ASSERT_EQ(all.size(), 52u);
  std::vector<std::string> names;
  // Index and round trip per case also make the names and the cases distinct.
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(std::tuple(index(all[i]), fromRawValue<ARKitBlendShape>(rawValue(all[i]))), std::tuple(i, all[i]))
        << rawValue(all[i]);
    names.emplace_back(rawValue(all[i]));
  }
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  // Positions 0, 13, 24, 26, 39 and 51.
  EXPECT_EQ((std::vector{names[0], names[13], names[24], names[26], names[39], names[51]}),
            (std::vector<std::string>{"browDownLeft", "eyeLookInRight", "jawOpen", "mouthClose", "mouthRollLower",
                                      "tongueOut"}));
  using namespace std::string_view_literals;
  for (const std::string_view unknown : {""sv, "JawOpen"sv, "jawopen"sv, "jawOpen "sv, "jawOpen\0"sv, "tongueOutX"sv,
                                         "aaa"sv, "zzz"sv, "browDown"sv, "mouthSmileLeftX"sv})
    EXPECT_FALSE(fromRawValue<ARKitBlendShape>(unknown)) << unknown;

  // The Live Link wire order covers the vocabulary once.
  // 52 positions (the array's type), each a vocabulary name, none twice.
  for (auto name : unrealARKitNames) EXPECT_TRUE(fromRawValue<ARKitBlendShape>(name)) << name;
  const std::set<std::string_view> seen(unrealARKitNames.begin(), unrealARKitNames.end());
  // Positions 0, 17, 41, 46 and 51 (the decoder reads them as the fuzzers' reference does).
  EXPECT_EQ(seen.size(), 52u);
  EXPECT_EQ((std::vector{unrealARKitNames[0], unrealARKitNames[17], unrealARKitNames[41], unrealARKitNames[46],
                         unrealARKitNames[51]}),
            (std::vector<std::string_view>{"eyeBlinkLeft", "jawOpen", "browDownLeft", "cheekPuff", "tongueOut"}));
}

TEST(BlendshapeRegionTest, PlainCaseSensitivePrefix) {
  const std::pair<const char*, BlendshapeRegion> rows[] = {
      {"jawOpen", BlendshapeRegion::mouth}, {"mouthSmileLeft", BlendshapeRegion::mouth},
      {"browInnerUp", BlendshapeRegion::brow}, {"eyeBlinkRight", BlendshapeRegion::eye},
      {"eye", BlendshapeRegion::eye}, {"cheekPuff", BlendshapeRegion::none},
      {"noseSneerLeft", BlendshapeRegion::none}, {"tongueOut", BlendshapeRegion::none},
      {"JawOpen", BlendshapeRegion::none}, {"Mouth", BlendshapeRegion::none},
      {"", BlendshapeRegion::none}, {"ja", BlendshapeRegion::none},
      {"eyBlink", BlendshapeRegion::none},
  };
  for (const auto& [name, region] : rows) EXPECT_EQ(blendshapeRegion(name), region) << name;
}

TEST(PersistedEnumerationsTest, RawValuesNamesAndLabels) {
  const auto models = allCases<CharacterModelType>();
  ASSERT_EQ(models.size(), 2u);
  // The raw values both ways (stored and read back, the fallback's
  // "theatrical_mask"): the rows of
  // TrackingSettingsTest.EveryKeyFallsBackFromUnusableValues.
  EXPECT_EQ(std::tuple(models[0], displayName(models[0]), displayName(models[1])),
            std::tuple(CharacterModelType::theatricalMask, "Theatrical Mask", "Cartoon Ghost"));

  const auto details = allCases<TrackingDetail>();
  ASSERT_EQ(details.size(), 4u);
  const char* labels[] = {"Simple", "Standard", "Detailed", "Many"};
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(std::tuple(rawValue(details[i]), label(details[i]), fromRawValue<TrackingDetail>(i)),
              std::tuple(i, labels[i], std::optional(details[i])));
  }
  // The values refused: TrackingSettingsTest.EveryKeyFallsBackFromUnusableValues.
}

}  // namespace
}  // namespace velmora
