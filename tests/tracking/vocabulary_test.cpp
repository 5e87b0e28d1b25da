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

TEST(ARKitBlendShapeTest, CasesAreAlphabeticalWithTheirIndicesAndRoundTrip) {
  const auto all = allCases<ARKitBlendShape>();
  ASSERT_EQ(all.size(), 52u);
  std::vector<std::string> names;
  // Index and round trip per case also make the names and the cases distinct.
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(index(all[i]), i);
    EXPECT_EQ(fromRawValue<ARKitBlendShape>(rawValue(all[i])), all[i]) << rawValue(all[i]);
    names.emplace_back(rawValue(all[i]));
  }
  EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
  for (const auto& [i, name] : {std::pair{0, "browDownLeft"}, std::pair{13, "eyeLookInRight"},
                                std::pair{24, "jawOpen"}, std::pair{26, "mouthClose"},
                                std::pair{39, "mouthRollLower"}, std::pair{51, "tongueOut"}}) {
    EXPECT_EQ(rawValue(all[i]), name);
  }
  using std::string_view;
  for (const string_view unknown : {string_view(""), string_view("JawOpen"), string_view("jawopen"),
                                    string_view("jawOpen "), string_view("jawOpen\0", 8), string_view("tongueOutX"),
                                    string_view("aaa"), string_view("zzz"), string_view("browDown"),
                                    string_view("mouthSmileLeftX")}) {
    EXPECT_FALSE(fromRawValue<ARKitBlendShape>(unknown)) << unknown;
  }
}

TEST(LiveLinkNamesTest, WireOrderCoversTheVocabularyOnce) {
  ASSERT_EQ(unrealARKitNames.size(), 52u);
  std::set<std::string_view> seen;
  for (auto name : unrealARKitNames) {
    EXPECT_TRUE(fromRawValue<ARKitBlendShape>(name)) << name;
    seen.insert(name);
  }
  // Positions 0, 17, 41 and 51 are LiveLinkDecoderTest.ReadsTheLast244BytesInWireOrder's.
  EXPECT_EQ(std::tuple(seen.size(), unrealARKitNames[46]), std::tuple(52u, "cheekPuff"));
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
