// Both characters speak the ARKit vocabulary: every target is named after a
// blendshape, and each covers exactly the blendshapes it should.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "characters/CartoonGhost.h"
#include "characters/MaskExpressionTargets.h"
#include "stage/ARKitBlendShape.h"

namespace velmora {
namespace {

std::set<std::string> allNamesExcept(const std::set<std::string>& excluded) {
  std::set<std::string> names;
  for (const auto shape : allCases<ARKitBlendShape>()) {
    const std::string name(rawValue(shape));
    if (!excluded.count(name)) names.insert(name);
  }
  return names;
}

const std::set<std::string> gazeNames{"eyeLookDownLeft", "eyeLookDownRight", "eyeLookInLeft",  "eyeLookInRight",
                                      "eyeLookOutLeft",  "eyeLookOutRight",  "eyeLookUpLeft",  "eyeLookUpRight"};

TEST(CharacterVocabulary, MaskHasATargetForEveryBlendshapeButGazeAndTongue) {
  std::set<std::string> names;
  for (const auto& entry : MaskExpressionTargets::blendShapeDisplacements()) {
    EXPECT_TRUE(fromRawValue<ARKitBlendShape>(entry.name).has_value()) << entry.name;
    names.insert(entry.name);
  }
  auto excluded = gazeNames;
  excluded.insert("tongueOut");
  EXPECT_EQ(names, allNamesExcept(excluded));
}

TEST(CharacterVocabulary, GhostLeavesBlinkAndGazeToTheEyeNodes) {
  std::set<std::string> names;
  for (const auto& entry : CartoonGhost::displacements()) {
    EXPECT_TRUE(fromRawValue<ARKitBlendShape>(entry.name).has_value()) << entry.name;
    EXPECT_TRUE(names.insert(entry.name).second) << "twice: " << entry.name;
  }
  auto excluded = gazeNames;
  excluded.insert({"tongueOut", "eyeBlinkLeft", "eyeBlinkRight"});
  EXPECT_EQ(names, allNamesExcept(excluded));
}

}  // namespace
}  // namespace velmora
