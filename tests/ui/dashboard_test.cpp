// The dashboard's views without a display: the controls change the state as
// an operator expects, the cue port entry refuses what the cue server
// cannot use, "Copy as text" lists the whole catalogue, and every panel
// draws in a headless ImGui frame; the menus and their shortcuts.
#include <gtest/gtest.h>
#include <imgui.h>
#include <imgui_internal.h>

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

#include <algorithm>
#include <cmath>
#include <sstream>

#include "animation/CharacterAnimationController.h"
#include "ui/ConnectionPanel.h"
#include "ui/CuesPanel.h"
#include "ui/Dashboard.h"
#include "ui/DashboardContext.h"
#include "ui/SafetyPanel.h"
#include "ui/ExportPanel.h"
#include "ui/ExpressionPanel.h"
#include "ui/LightingPanel.h"
#include "ui/MenuCommands.h"
#include "ui/OSCCommandsWindow.h"
#include "ui/OscPortField.h"
#include "ui/PreviewFrames.h"
#include "ui/RemoteControlPanel.h"
#include "ui/WireframeTracker.h"
#include "ui/OutputsPanel.h"
#include "base/MainQueue.h"
#include "control/OSCCommandCatalog.h"
#include "support/SolidFrame.h"
#include "support/StateFixture.h"

namespace velmora {
namespace {

class DashboardTest : public ::testing::Test, protected test::StateFixture {
 protected:
  CharacterAnimationController animation;
  DashboardContext context{state, animation, [this] { return now; }};
};

TEST_F(DashboardTest, CuePortEntryAcceptsOnlyUsablePortsAndRefuses53000WithTheServersText) {
  EXPECT_EQ(std::tuple(OscPortField::check("1024").port, OscPortField::check(" 65535 ").port), std::tuple(1024, 65535));
  for (const char* bad : {"1023", "65536", "0", "", "  ", "53l00", "-1", "+2000", "99999999999999999999"}) {
    const auto check = OscPortField::check(bad);
    EXPECT_FALSE(check.port) << bad;
    EXPECT_EQ(check.message, "Enter a port from 1024 to 65535") << bad;
  }

  int restarts = 0;
  context.restartCueServer = [&] { ++restarts; };
  RemoteControlPanel panel(context);
  EXPECT_EQ((std::tuple{panel.applyPort("53000"), state.oscPort(), restarts}),
            std::tuple("OSC cues: port 53000 is QLab's own port, choose another", 53100, 0));
  EXPECT_EQ((std::tuple{panel.applyPort("54321"), state.oscPort(), restarts}), std::tuple("", 54321, 1));
}

// What "Copy as text" puts on the clipboard: one literal opening, then every
// group heading followed by its commands' addresses, in catalogue order
// (that the groups hold every command once: the catalogue's table test).
TEST_F(DashboardTest, CopyAsTextListsEveryCommandUnderItsGroupInCatalogueOrder) {
  std::string clipboard;
  context.setClipboard = [&](const std::string& t) { clipboard = t; };
  state.setOscPort(53123);
  OSCCommandsWindow(context).copyAsText();
  EXPECT_TRUE(clipboard.starts_with(
      "Velmora OSC commands (UDP port 53123; addresses match in any letter case)\n\nCalibration & Tracking\n"
      "======================\n/velmora/recentre\n    aliases: /velmora/recenter, /velmora/centre, /velmora/center, "
      "/recentre, /recenter, /centre, /center, /zero\n    argument: none\n"
      "    Recalibrate the performer's current pose as neutral.\n/velmora/reset\n    aliases: /reset\n"))
      << clipboard;
  std::vector<std::string> expected, listed;
  for (const std::string& group : OSCCommandCatalog::groups()) {
    expected.push_back(group);
    for (const OSCCommand* command : OSCCommandCatalog::commands(group)) expected.push_back(command->address);
  }
  std::istringstream lines(clipboard);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with("/") || std::ranges::count(OSCCommandCatalog::groups(), line)) listed.push_back(line);
  EXPECT_EQ(listed, expected);
}

TEST_F(DashboardTest, LightingEditsMarkTheRecordCustomAndKeepTheRest) {
  LightingPanel panel(context);
  panel.choosePreset(2);
  EXPECT_EQ(state.lighting(), LightingSettings::presets()[2]);
  panel.setField(&LightingSettings::keyHeight, 1.5);
  LightingSettings expected = LightingSettings::presets()[2];  // the rest kept
  expected.preset = LightingSettings::customName;
  expected.keyHeight = 1.5;
  EXPECT_EQ(state.lighting(), expected);
  panel.setField(&LightingSettings::warmth, -7.0);  // clamped to the control's range
  panel.setMaster(9.0f);
  EXPECT_EQ(std::tuple(state.lighting().warmth, state.lightIntensity()), std::tuple(-1.0, 5.0f));  // 5: the maximum
  // Every field of the record has a control.
  EXPECT_EQ(LightingPanel::controls().size(), 8u);
}

TEST_F(DashboardTest, CueButtonsSwitchCharacterStartWithDefaultDurationAndStopWithFade) {
  state.setCharacterModel(CharacterModelType::cartoonGhost);
  CuesPanel cues(context);
  cues.fire(AnimationCue::Kind::maskBow);
  EXPECT_EQ(std::tuple(state.characterModel(), animation.activeCue()),
            std::tuple(CharacterModelType::theatricalMask, AnimationCue::make(AnimationCue::Kind::maskBow, 2.5)));
  now += 1.25;  // half of the bow's default 2.5 s
  EXPECT_NEAR(cues.progress().value_or(-1.0), 0.5, 1e-9);
  // A cue started elsewhere (a remote command) restarts the progress.
  animation.trigger(AnimationCue::make(AnimationCue::Kind::maskNod, 4.0), now);
  now += 1.0;
  EXPECT_NEAR(*cues.progress(), 0.25, 1e-9);
  cues.stopWithFade();  // what a fade does: CharacterAnimationController's fade test
  EXPECT_EQ(std::pair(animation.isFadingOut(), cues.progress().has_value()), std::pair(true, false));
}

TEST_F(DashboardTest, RangeEditsPassOnlyTheMovedBound) {
  state.setRange("jawOpen", 0.2f, 0.8f);
  ExpressionPanel::applyRangeEdit(state, "jawOpen", 0.2f, 0.8f, 0.3f, 0.8f);
  EXPECT_EQ(std::pair(state.range("jawOpen").floor, state.range("jawOpen").ceiling), std::pair(0.3f, 0.8f));
  ExpressionPanel::applyRangeEdit(state, "jawOpen", 0.3f, 0.8f, 0.3f, 0.31f);  // too close: kept a gap
  EXPECT_FLOAT_EQ(state.range("jawOpen").ceiling, 0.3f + FaceTrackingState::minRangeGap);

  state.ingestPacket(BlendshapeMap{{"mouthSmileLeft", 0.4f}, {"browInnerUp", 0.95f}}, std::nullopt,
                       std::nullopt, "10.0.0.2:5000");
  EXPECT_EQ(ExpressionPanel::rowNames(state), (std::vector<std::string>{"browInnerUp", "mouthSmileLeft"}));
}

TEST_F(DashboardTest, ExportRunsInTheBackgroundOneAtATimeAndShowsEachFile) {
  test::TempDir dir;
  ExportPanel panel;
  const std::string folder = (dir.path() / "glb").string();
  ASSERT_TRUE(panel.start(folder));
  EXPECT_EQ((std::pair{panel.running(), panel.start(folder)}), std::pair(true, false));  // a second press: nothing
  ASSERT_TRUE(MainQueue::shared().runUntil([&] { return !panel.running(); }, 120.0));
  ASSERT_EQ(panel.results().size(), allCases<CharacterModelType>().size());
  for (const auto& line : panel.results()) EXPECT_EQ(line.rfind("Wrote " + folder + "/", 0), 0u) << line;
}

TEST_F(DashboardTest, PacketAgeReadsInUnitsAnOperatorCanTake) {
  using namespace std::chrono_literals;
  const WallTime now = WallTime() + 1000h;
  const std::pair<std::optional<WallTime>, const char*> rows[] = {
      {std::nullopt, "never"}, {now - 400ms, "0.4 s ago"}, {now - 42s, "42 s ago"}, {now - 5min, "5 min ago"},
      {now - 3h, "3 h ago"},   {now + 2s, "0.0 s ago"}};  // the last: the clock stepped back
  for (const auto& [last, text] : rows) EXPECT_EQ(ConnectionPanel::ageText(last, now), text);
}

TEST_F(DashboardTest, PreviewShrinksWithAlphaWeightedColourAndKeepsTheNewestFrame) {
  // 4 x 2 BGRA. Left block: one opaque red pixel, three transparent; right block: uniform half-transparent.
  RenderedFrame frame = test::solidFrame(4, 2, 0, 0, 0, 0);
  frame.pixels = {0, 0, 255, 255, 0, 0, 0, 0, 200, 100, 50, 128, 200, 100, 50, 128,
                  0, 0, 0,   0,   0, 0, 0, 0, 200, 100, 50, 128, 200, 100, 50, 128};
  auto small = PreviewFrames::shrink(frame, 2);
  ASSERT_EQ(std::pair(small->width, small->height), std::pair(2, 1));
  // The left pixel still red: transparent pixels do not darken it.
  EXPECT_EQ(small->pixels, (std::vector<std::uint8_t>{0, 0, 255, 64, 200, 100, 50, 128}));

  PreviewFrames frames;
  EXPECT_FALSE(frames.newerThan(0));
  RenderedFrame big = test::solidFrame(1920, 1080, 255, 255, 255, 255);
  big.sequence = 3;
  frames.consume(big);
  auto newest = frames.newerThan(0);
  ASSERT_TRUE(newest);
  EXPECT_EQ(std::pair(newest->width, newest->height), std::pair(480, 270));  // a quarter, within the 480 maximum
  EXPECT_FALSE(frames.newerThan(3));
}

TEST_F(DashboardTest, WireframeFollowsTheDetailAndTheHead) {
  WireframeTracker tracker;
  state.setTrackingDetail(TrackingDetail::simple);
  tracker.update(state);
  const std::size_t simple = tracker.level().points.size();
  state.setTrackingDetail(TrackingDetail::many);
  tracker.update(state);
  EXPECT_GT(tracker.level().points.size(), simple);
  // A quarter turn of yaw brings a point on the right (+x) to the front: seen from the front it sits at x 0.
  EXPECT_NEAR(WireframeTracker::project(float3(1.0f, 0.0f, 0.0f), float3(0.0f, float(M_PI / 2), 0.0f)).x, 0.0f, 1e-6f);
  // Rolled a quarter turn: up becomes left.
  EXPECT_NEAR(WireframeTracker::project(float3(0.0f, 1.0f, 0.0f), float3(0.0f, 0.0f, float(M_PI / 2))).x, -1.0f, 1e-6f);
}

// Every panel and the commands window draw in a headless ImGui frame (no
// GL: the preview shows its reason), and the windows are where the operator
// expects them.
TEST_F(DashboardTest, EveryPanelDrawsInAHeadlessFrameAndStatusTextsWrap) {
  state.ingestPacket(BlendshapeMap{{"jawOpen", 0.5f}, {"eyeBlinkLeft", 0.2f}}, float3(0.1f, 0.0f, 0.0f),
                       std::nullopt, "10.0.0.2:5000");
  PreviewFrames frames;
  WireframeTracker tracker;
  tracker.update(state);
  context.showOSCCommands = true;
  // An ImGui context with a laptop-sized display and its font atlas built;
  // no GL. io.DeltaTime stays at its 1/60 s.
  ImGui::CreateContext();
  ImGui::GetIO().IniFilename = nullptr;
  ImGui::GetIO().DisplaySize = ImVec2(1366, 768);
  ImGui::GetIO().Fonts->Build();
  {
    Dashboard dashboard(context, frames, tracker, false);
    for (int frame = 0; frame < 3; ++frame) {
      ImGui::NewFrame();
      dashboard.draw();
      ImGui::Render();
    }
    EXPECT_GT(ImGui::GetDrawData()->TotalVtxCount, 1000);
    for (const char* name : {"Dashboard", OSCCommandsWindow::title, "##MainMenuBar"})
      EXPECT_TRUE(ImGui::FindWindowByName(name) && ImGui::FindWindowByName(name)->Active) << name;
    // The commands window's close box hides it through the context.
    context.showOSCCommands = false;
    ImGui::NewFrame();
    dashboard.draw();
    ImGui::Render();
    EXPECT_FALSE(ImGui::FindWindowByName(OSCCommandsWindow::title)->Active);
  }

  // A long error in a narrow column wraps inside it: nothing is drawn past
  // the column's right edge, and the text takes more than one line.
  state.setSyphonStatus("Syphon: PipeWire video source could not be created (is PipeWire running?)");
  state.setNdiStatus("NDI: NDI runtime refused to initialize (unsupported CPU?) (next try in 2 s)");
  OutputsPanel panel(context);
  ImGui::NewFrame();
  ImGui::SetNextWindowSize(ImVec2(260, 400));
  ImGui::Begin("Outputs");
  panel.draw();
  const ImGuiWindow* window = ImGui::GetCurrentWindow();
  EXPECT_LE(window->DC.CursorMaxPos.x, window->WorkRect.Max.x + 1.0f);
  EXPECT_GT(window->DC.CursorMaxPos.y - window->DC.CursorStartPos.y, 8 * ImGui::GetTextLineHeightWithSpacing())
      << "two checkboxes, two wrapped statuses, the projector lines";
  ImGui::End();
  ImGui::Render();
  ImGui::DestroyContext();
}

TEST_F(DashboardTest, SafetyListsAreEditedOneEntryPerLineAndKept) {
  SafetyPanel panel(context);
  panel.applyRelayTargets(" 127.0.0.1:9000 \n\n\tlighting-desk:7000\r\n");
  EXPECT_EQ(state.relayTargets(), (std::vector<std::string>{"127.0.0.1:9000", "lighting-desk:7000"}));
  panel.applyOscAllowed("192.168.1.20\n10.0.0.0/24");
  panel.applyTrackingAllowed("   \n");  // nothing but blanks: everyone again
  EXPECT_TRUE(state.trackingAllowedSenders().empty());
  EXPECT_EQ(state.oscAllowedSenders(), (std::vector<std::string>{"192.168.1.20", "10.0.0.0/24"}));
  EXPECT_EQ(SafetyPanel::joinLines(state.oscAllowedSenders()), "192.168.1.20\n10.0.0.0/24");
}

// The menus and shortcuts of the main window: the entries an operator sees,
// the keys that reach them from any window, and what each entry does to the
// state.
// Every shortcut shown in a menu is one the keyboard reaches, and runs that
// entry; shortcuts need Control alone and ignore the lock keys.
TEST_F(DashboardTest, MenusListTheEntriesWithTheirShortcutsTheKeysReachThemAndEachActsOnTheState) {
  const std::map<std::string, int> keys = {{"Ctrl+R", GLFW_KEY_R}, {"Ctrl+P", GLFW_KEY_P}, {"Ctrl+O", GLFW_KEY_O},
                                           {"Ctrl+Q", GLFW_KEY_Q}};
  std::vector<std::string> seen;
  for (const auto& menu : MenuCommands::menus()) {
    seen.push_back("# " + menu.title);
    for (const auto& e : menu.entries) {
      seen.push_back((e.separatorBefore ? "--- " : "") + e.label + (e.shortcut.empty() ? "" : " [" + e.shortcut + "]"));
      if (e.shortcut.empty()) continue;
      ASSERT_TRUE(keys.count(e.shortcut)) << e.shortcut;
      EXPECT_EQ(MenuCommands::forShortcut(keys.at(e.shortcut), GLFW_MOD_CONTROL), e.command) << e.label;
    }
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"# Stage Control", "Recentre Neutral Pose [Ctrl+R]", "Reset Calibration",
                                            "--- Toggle Fullscreen Projector [Ctrl+P]", "Toggle Syphon Output",
                                            "Toggle NDI Output", "Toggle OSC Cues", "--- Quit [Ctrl+Q]", "# Window",
                                            "OSC Commands & Cues [Ctrl+O]"}));
  EXPECT_EQ(MenuCommands::forShortcut(GLFW_KEY_P, GLFW_MOD_CONTROL | GLFW_MOD_CAPS_LOCK), MenuCommand::toggleProjector);
  EXPECT_EQ(MenuCommands::forShortcut(GLFW_KEY_O, GLFW_MOD_CONTROL | GLFW_MOD_NUM_LOCK),
            MenuCommand::toggleOSCCommandsWindow);
  for (const auto& [key, mods] : {std::pair{GLFW_KEY_R, 0}, {GLFW_KEY_P, GLFW_MOD_CONTROL | GLFW_MOD_SHIFT},
                                  {GLFW_KEY_O, GLFW_MOD_CONTROL | GLFW_MOD_ALT}, {GLFW_KEY_S, GLFW_MOD_CONTROL}})
    EXPECT_FALSE(MenuCommands::forShortcut(key, mods)) << key << " " << mods;

  // Each entry acts on the state through its setters. What recentring
  // captures is the state's (face_tracking_state_test).
  MenuCommands::perform(MenuCommand::recentreNeutralPose, context);
  EXPECT_TRUE(state.isCalibrated());
  MenuCommands::perform(MenuCommand::resetCalibration, context);
  EXPECT_FALSE(state.isCalibrated());

  // A fresh state has Syphon on, NDI off and OSC cues on.
  MenuCommands::perform(MenuCommand::toggleSyphon, context);
  MenuCommands::perform(MenuCommand::toggleNDI, context);
  MenuCommands::perform(MenuCommand::toggleOSCCues, context);
  EXPECT_EQ(std::tuple(state.isSyphonActive(), state.isNDIActive(), state.isOSCEnabled()),
            std::tuple(false, true, false));

  int toggles = 0, quits = 0;
  MenuCommands::perform(MenuCommand::toggleProjector, context);  // no window system: nothing happens
  context.toggleProjector = [&] { ++toggles; };
  context.quit = [&] { ++quits; };
  MenuCommands::perform(MenuCommand::toggleProjector, context);
  MenuCommands::perform(MenuCommand::quit, context);
  MenuCommands::perform(MenuCommand::toggleOSCCommandsWindow, context);
  const bool shown = context.showOSCCommands;
  MenuCommands::perform(MenuCommand::toggleOSCCommandsWindow, context);
  EXPECT_EQ(std::tuple(toggles, quits, shown, context.showOSCCommands), std::tuple(1, 1, true, false));
}

}  // namespace
}  // namespace velmora
