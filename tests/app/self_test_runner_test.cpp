#include "app/SelfTestRunner.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/Log.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

TEST(SelfTestRunner, MeasuredValuesAreAppendedWithAClosingParenthesis) {
  EXPECT_EQ(SelfTestRunner::withActual("Z (actual: ", 0.32f), "Z (actual: 0.32)");
  EXPECT_EQ(SelfTestRunner::withActual("pitch (actual: ", 0.5f), "pitch (actual: 0.5)");
  EXPECT_EQ(SelfTestRunner::withActual("x: ", -0.125f), "x: -0.125)");
}

TEST(SelfTestRunner, ChecksPrintPassOrFailAndAreCounted) {
  std::vector<std::string> lines;
  setLogSink([&](const std::string& l) { lines.push_back(l); });
  SelfTestRunner runner;
  runner.check("it holds", true);
  runner.check("it does not", false);
  setLogSink({});
  EXPECT_EQ(lines, (std::vector<std::string>{"  \xE2\x9C\x93 PASS: it holds", "  \xE2\x9C\x97 FAIL: it does not"}));
}

TEST(SelfTestRunner, EveryCheckPassesAgainstTheSharedObjectsAndSettingsArePutBack) {
  FaceTrackingState& state = FaceTrackingState::shared();
  state.setCharacterModel(CharacterModelType::cartoonGhost);
  LightingSettings look = LightingSettings::presets()[2];
  state.setLighting(look);
  state.setIsOSCEnabled(true);

  // The printed report is checked end to end (osc_e2e_test); here, the counts
  // and that the shared objects are put back.
  setLogSink([](const std::string&) {});
  const SelfTestRunner::Result result = SelfTestRunner().run();
  setLogSink({});
  EXPECT_EQ(result.failed, 0);
  EXPECT_EQ(result.passed, 59);

  EXPECT_EQ(state.characterModel(), CharacterModelType::cartoonGhost);
  EXPECT_EQ(state.lighting(), look);
  EXPECT_TRUE(state.isOSCEnabled());
}

}  // namespace
}  // namespace velmora
