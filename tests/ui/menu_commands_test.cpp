// The menus and shortcuts of the main window: the entries an operator sees,
// the keys that reach them from any window, and what each entry does to the
// state (no display needed).
#include <gtest/gtest.h>

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

#include "animation/CharacterAnimationController.h"
#include "ui/DashboardContext.h"
#include "ui/MenuCommands.h"
#include "support/StateFixture.h"

namespace velmora {
namespace {

struct Fixture : test::StateFixture {
  CharacterAnimationController animation;
  DashboardContext context{state, animation, [] { return 10.0; }};
};

TEST(MenuCommandsTest, MenusListTheStageEntriesWithTheirShortcutsAndOneSeparator) {
  const auto& menus = MenuCommands::menus();
  ASSERT_EQ(menus.size(), 2u);
  EXPECT_EQ(menus[0].title, "Stage Control");
  std::vector<std::string> seen;
  for (const auto& e : menus[0].entries) {
    seen.push_back((e.separatorBefore ? "--- " : "") + e.label + (e.shortcut.empty() ? "" : " [" + e.shortcut + "]"));
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"Recentre Neutral Pose [Ctrl+R]", "Reset Calibration",
                                            "--- Toggle Fullscreen Projector [Ctrl+P]", "Toggle Syphon Output",
                                            "Toggle NDI Output", "Toggle OSC Cues", "--- Quit [Ctrl+Q]"}));
  EXPECT_EQ(menus[1].title, "Window");
  ASSERT_EQ(menus[1].entries.size(), 1u);
  EXPECT_EQ(menus[1].entries[0].label, "OSC Commands & Cues");
  EXPECT_EQ(menus[1].entries[0].shortcut, "Ctrl+O");
}

TEST(MenuCommandsTest, ShortcutsNeedControlAloneAndIgnoreTheLockKeys) {
  EXPECT_EQ(MenuCommands::forShortcut(GLFW_KEY_R, GLFW_MOD_CONTROL), MenuCommand::recentreNeutralPose);
  EXPECT_EQ(MenuCommands::forShortcut(GLFW_KEY_P, GLFW_MOD_CONTROL | GLFW_MOD_CAPS_LOCK), MenuCommand::toggleProjector);
  EXPECT_EQ(MenuCommands::forShortcut(GLFW_KEY_O, GLFW_MOD_CONTROL | GLFW_MOD_NUM_LOCK),
            MenuCommand::toggleOSCCommandsWindow);
  EXPECT_FALSE(MenuCommands::forShortcut(GLFW_KEY_R, 0));
  EXPECT_FALSE(MenuCommands::forShortcut(GLFW_KEY_P, GLFW_MOD_CONTROL | GLFW_MOD_SHIFT));
  EXPECT_FALSE(MenuCommands::forShortcut(GLFW_KEY_O, GLFW_MOD_CONTROL | GLFW_MOD_ALT));
  EXPECT_FALSE(MenuCommands::forShortcut(GLFW_KEY_S, GLFW_MOD_CONTROL));
  // Every shortcut shown in a menu is one the keyboard reaches, and runs that entry.
  const std::map<std::string, int> keys = {{"Ctrl+R", GLFW_KEY_R}, {"Ctrl+P", GLFW_KEY_P}, {"Ctrl+O", GLFW_KEY_O},
                                           {"Ctrl+Q", GLFW_KEY_Q}};
  for (const auto& menu : MenuCommands::menus()) {
    for (const auto& entry : menu.entries) {
      if (entry.shortcut.empty()) continue;
      ASSERT_TRUE(keys.count(entry.shortcut)) << entry.shortcut;
      EXPECT_EQ(MenuCommands::forShortcut(keys.at(entry.shortcut), GLFW_MOD_CONTROL), entry.command) << entry.label;
    }
  }
}

TEST(MenuCommandsTest, EntriesActOnTheStateThroughItsSetters) {
  Fixture f;
  f.state.ingestPacket(std::nullopt, float3(0.1f, 0.2f, 0.3f), std::nullopt, "10.0.0.2:5000");
  MenuCommands::perform(MenuCommand::recentreNeutralPose, f.context);
  EXPECT_TRUE(f.state.isCalibrated());
  EXPECT_EQ(f.state.zeroRotationOffset(), float3(0.1f, 0.2f, 0.3f));
  MenuCommands::perform(MenuCommand::resetCalibration, f.context);
  EXPECT_FALSE(f.state.isCalibrated());
  EXPECT_EQ(f.state.zeroRotationOffset(), float3(0.0f));

  const bool syphon = f.state.isSyphonActive(), ndi = f.state.isNDIActive(), osc = f.state.isOSCEnabled();
  MenuCommands::perform(MenuCommand::toggleSyphon, f.context);
  MenuCommands::perform(MenuCommand::toggleNDI, f.context);
  MenuCommands::perform(MenuCommand::toggleOSCCues, f.context);
  EXPECT_EQ(f.state.isSyphonActive(), !syphon);
  EXPECT_EQ(f.state.isNDIActive(), !ndi);
  EXPECT_EQ(f.state.isOSCEnabled(), !osc);
  EXPECT_EQ(f.store.boolean("isOSCEnabled"), !osc);
  EXPECT_EQ(f.store.boolean("ndiOutputEnabled"), !ndi);  // persisted by the setter

  int toggles = 0;
  MenuCommands::perform(MenuCommand::toggleProjector, f.context);  // no window system: nothing happens
  f.context.toggleProjector = [&] { ++toggles; };
  MenuCommands::perform(MenuCommand::toggleProjector, f.context);
  EXPECT_EQ(toggles, 1);
  MenuCommands::perform(MenuCommand::toggleOSCCommandsWindow, f.context);
  EXPECT_TRUE(f.context.showOSCCommands);
  MenuCommands::perform(MenuCommand::toggleOSCCommandsWindow, f.context);
  EXPECT_FALSE(f.context.showOSCCommands);
  int quits = 0;
  f.context.quit = [&] { ++quits; };
  MenuCommands::perform(MenuCommand::quit, f.context);
  EXPECT_EQ(quits, 1);
}

}  // namespace
}  // namespace velmora
