// Senders' spellings of the 52 names: case and underscores do not matter, a
// last "_L"/"_R" reads as Left/Right; anything else spells nothing.
#include <gtest/gtest.h>

#include <optional>
#include <string_view>

#include "stage/ARKitBlendShape.h"

namespace velmora {
namespace {

TEST(BlendShapeSpellingTest, SpellingsMapAndOtherNamesDoNot) {
  using S = ARKitBlendShape;
  const struct {
    std::string_view spelling;
    std::optional<S> shape;
  } cases[] = {
      {"jawOpen", S::jawOpen},                 // exact
      {"JawOpen", S::jawOpen},                 // other engines' capitals
      {"jawopen", S::jawOpen},
      {"jaw_open", S::jawOpen},
      {"JAW_OPEN", S::jawOpen},
      {"eyeBlink_L", S::eyeBlinkLeft},         // the iFacialMocap app's side suffix
      {"mouthSmile_R", S::mouthSmileRight},
      {"eye_blink_l", S::eyeBlinkLeft},
      {"EyeBlinkLeft", S::eyeBlinkLeft},
      {"eye_Blink_Right", S::eyeBlinkRight},
      {"mouthLowerDown_R", S::mouthLowerDownRight},  // the longest name
      {"mouth_lower_down_right", S::mouthLowerDownRight},
      {"tongue_Out", S::tongueOut},
      {"cheekPuff_L", std::nullopt},           // no side to this one
      {"eyeBlink", std::nullopt},
      {"eyeBlinkL", std::nullopt},             // a side needs its underscore
      {"eyeBlink_X", std::nullopt},
      {"jaw-open", std::nullopt},
      {"jawOpen ", std::nullopt},
      {"_L", std::nullopt},
      {"", std::nullopt},
      {"mouthLowerDownRightmouthLowerDownRight", std::nullopt},  // longer than any key
  };
  for (const auto& c : cases) EXPECT_EQ(blendShapeFromSpelling(c.spelling), c.shape) << c.spelling;
  for (const S shape : allCases<S>()) EXPECT_EQ(blendShapeFromSpelling(rawValue(shape)), shape);
}

}  // namespace
}  // namespace velmora
