#pragma once
// The two menus of the main window ("Stage Control" and "Window"), their
// entries, separator and shortcuts, and what each entry does. The table is
// data so that the menu bar, the keyboard shortcuts (which work in every
// window of the application, the projector's too) and the tests read the
// same facts. Main thread.

#include <optional>
#include <string>
#include <vector>

namespace velmora {

struct DashboardContext;

enum class MenuCommand {
  recentreNeutralPose,
  resetCalibration,
  toggleProjector,
  toggleSyphon,
  toggleNDI,
  toggleOSCCues,
  toggleOSCCommandsWindow,
};

struct MenuEntry {
  std::string label;
  std::string shortcut;  // "Ctrl+R", or empty
  MenuCommand command;
  bool separatorBefore = false;
};

struct Menu {
  std::string title;
  std::vector<MenuEntry> entries;
};

class MenuCommands {
 public:
  MenuCommands() = delete;

  static const std::vector<Menu>& menus();
  // The command of a key press (GLFW key code and modifier bits): Ctrl with
  // R, P or O; none for anything else (no other modifier may be held).
  static std::optional<MenuCommand> forShortcut(int key, int mods);
  // Runs the entry's action and logs "[Dashboard] <menu> > <entry>".
  static void perform(MenuCommand command, DashboardContext& context);
};

}  // namespace velmora
