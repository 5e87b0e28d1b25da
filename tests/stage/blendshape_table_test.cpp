// Senders' spellings of the 52 names: case and underscores do not matter, a
// last "_L"/"_R" reads as Left/Right; anything else spells nothing.
//
// The blendshape map behaves as a map from name to value whatever a sender
// sends: vocabulary names (fixed slots) and invented ones (side table) mixed,
// any subset, erase and re-insert, iteration that visits each entry once and
// writes through, equality that ignores insertion order, and copies that are
// independent of their source.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>

#include "stage/ARKitBlendShape.h"
#include "stage/BlendshapeMap.h"

namespace velmora {
namespace {

TEST(BlendShapeSpellingTest, SpellingsMapAndOtherNamesDoNot) {
  using S = ARKitBlendShape;
  const std::pair<std::string_view, S> spellings[] = {
      {"jawOpen", S::jawOpen},  // exact
      {"JawOpen", S::jawOpen},  // other engines' capitals
      {"jawopen", S::jawOpen}, {"jaw_open", S::jawOpen}, {"JAW_OPEN", S::jawOpen},
      {"eyeBlink_L", S::eyeBlinkLeft},  // the iFacialMocap app's side suffix
      {"mouthSmile_R", S::mouthSmileRight}, {"eye_blink_l", S::eyeBlinkLeft}, {"EyeBlinkLeft", S::eyeBlinkLeft},
      {"eye_Blink_Right", S::eyeBlinkRight}, {"tongue_Out", S::tongueOut},
      {"mouthLowerDown_R", S::mouthLowerDownRight},  // the longest name
      {"mouth_lower_down_right", S::mouthLowerDownRight},
  };
  for (const auto& [spelling, shape] : spellings) EXPECT_EQ(blendShapeFromSpelling(spelling), shape) << spelling;
  // No side to cheekPuff; a side needs its underscore; the last is longer than any key.
  for (std::string_view none : {"cheekPuff_L", "eyeBlink", "eyeBlinkL", "eyeBlink_X", "jaw-open", "jawOpen ", "_L", "",
                                "mouthLowerDownRightmouthLowerDownRight"})
    EXPECT_EQ(blendShapeFromSpelling(none), std::nullopt) << none;
  for (const S shape : allCases<S>()) EXPECT_EQ(blendShapeFromSpelling(rawValue(shape)), shape);
}

std::unordered_map<std::string, float> asStdMap(const BlendshapeMap& map) {
  std::unordered_map<std::string, float> out;
  for (const auto& [name, value] : map) {
    EXPECT_TRUE(out.emplace(std::string(name), value).second) << "visited twice: " << name;
  }
  return out;
}

TEST(BlendshapeMapTest, MatchesAStandardMapUnderRandomOperations) {
  // Names: the whole vocabulary, near misses of it and free names.
  std::vector<std::string> names;
  for (const auto shape : allCases<ARKitBlendShape>()) names.emplace_back(rawValue(shape));
  for (const char* other : {"JawOpen", "jawopen", "jawOpen ", "", "custom/Smile", "a-very-long-invented-name-over-sso",
                            "tongueOut2", "eyeBlink"})
    names.emplace_back(other);
  std::mt19937 random(7);
  BlendshapeMap ours, copy;
  std::unordered_map<std::string, float> reference, copied;
  for (int step = 0; step < 20000; ++step) {
    const std::string& name = names[random() % names.size()];
    const float value = static_cast<float>(random() % 1000) / 100.0f;
    switch (random() % 7) {
      case 0:
        ours[name] = value;
        reference[name] = value;
        break;
      case 1:
        ours.insert_or_assign(name, value);
        reference.insert_or_assign(name, value);
        break;
      case 2:
        EXPECT_EQ(ours.erase(name), reference.erase(name)) << name;
        break;
      case 3: {
        const auto it = ours.find(name);
        const auto expected = reference.find(name);
        ASSERT_EQ(it == ours.end(), expected == reference.end()) << name;
        if (it != ours.end()) {
          EXPECT_EQ((std::pair<const std::string, float>(it->first, it->second)), *expected);
        }
        EXPECT_EQ(ours.contains(name), reference.contains(name));
        break;
      }
      case 4:  // operator[] on an absent entry starts from 0, never a stale slot value
        EXPECT_EQ(ours[name], reference[name]) << name;
        break;
      case 5:
        if (random() % 50 == 0) {
          copy = ours;
          copied = reference;
          // Equal whatever the insertion order (and stale values in absent
          // slots never count); one changed value makes them differ.
          BlendshapeMap rebuilt;
          for (const auto& [n, v] : reference) rebuilt[n] = v;
          ASSERT_EQ(rebuilt, ours);
          if (!reference.empty()) {
            rebuilt[reference.begin()->first] += 0.5f;
            ASSERT_NE(rebuilt, ours);
          }
        }
        break;
      default:
        if (random() % 200 == 0) {
          ours.clear();
          reference.clear();
        }
    }
    ASSERT_EQ(ours.size(), reference.size());
    ASSERT_EQ(ours.empty(), reference.empty());
  }
  EXPECT_EQ(asStdMap(ours), reference);
  EXPECT_EQ(asStdMap(copy), copied);  // copies are independent of their source
}

TEST(BlendshapeMapTest, IterationOrderWritesThroughAndSlotAccess) {
  BlendshapeMap map{{"zzInvented", 0.5f}, {"tongueOut", 0.25f}, {"browDownLeft", 1.0f}, {"Another", 0.125f}};
  std::vector<std::string> order;
  for (const auto& [name, value] : map) order.emplace_back(name);
  // The vocabulary in case order first, then the others.
  // (The others' order is the side table's: sorted here.)
  ASSERT_EQ(order.size(), 4u);
  std::sort(order.begin() + 2, order.end());
  EXPECT_EQ(order, (std::vector<std::string>{"browDownLeft", "tongueOut", "Another", "zzInvented"}));

  for (auto&& [name, value] : map) value *= 2.0f;
  EXPECT_EQ(std::tuple(map.at("zzInvented"), map.at("tongueOut"), *map.get(ARKitBlendShape::browDownLeft),
                       map.get(ARKitBlendShape::jawOpen) == nullptr),
            std::tuple(1.0f, 0.5f, 2.0f, true));
  EXPECT_THROW((void)map.at("jawOpen"), std::out_of_range);

  // A slot and its name are the same entry.
  map.set(ARKitBlendShape::jawOpen, 0.75f);
  EXPECT_EQ(map.at("jawOpen"), 0.75f);
  EXPECT_EQ(map.erase("jawOpen"), 1u);
  EXPECT_FALSE(map.has(ARKitBlendShape::jawOpen));
  EXPECT_EQ(map.presentSlots(), (std::uint64_t{1} << index(ARKitBlendShape::browDownLeft)) |
                                    (std::uint64_t{1} << index(ARKitBlendShape::tongueOut)));
  EXPECT_EQ(map.others().size(), 2u);
  // Inserting and erasing invented names next to the slots: the random
  // operations test.
}

TEST(BlendshapeMapTest, ThousandsOfInventedNamesStayCheap) {
  // A hostile datagram may carry thousands of names outside the vocabulary:
  // each insert and lookup stays a hash lookup (this would take seconds if
  // the side table were searched linearly, and the test's time limit would
  // end it).
  BlendshapeMap map;
  constexpr int count = 200000;
  for (int i = 0; i < count; ++i) map["name" + std::to_string(i)] = static_cast<float>(i);
  ASSERT_EQ(map.size(), static_cast<std::size_t>(count));
  BlendshapeMap copy = map;
  for (int i = 0; i < count; i += 997) EXPECT_EQ(copy.at("name" + std::to_string(i)), static_cast<float>(i));
  EXPECT_EQ(copy, map);
  std::size_t visited = 0;
  for (const auto& entry : copy) visited += entry.first.starts_with("name");
  EXPECT_EQ(visited, static_cast<std::size_t>(count));
}

}  // namespace
}  // namespace velmora
