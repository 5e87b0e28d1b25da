#include "ui/MenuCommands.h"

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

#include "ui/DashboardContext.h"
#include "base/Log.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

const std::vector<Menu>& MenuCommands::menus() {
  static const std::vector<Menu> table = {
      {"Stage Control",
       {
           {"Recentre Neutral Pose", "Ctrl+R", MenuCommand::recentreNeutralPose},
           {"Reset Calibration", "", MenuCommand::resetCalibration},
           {"Toggle Fullscreen Projector", "Ctrl+P", MenuCommand::toggleProjector, true},
           {"Toggle Syphon Output", "", MenuCommand::toggleSyphon},
           {"Toggle NDI Output", "", MenuCommand::toggleNDI},
           {"Toggle OSC Cues", "", MenuCommand::toggleOSCCues},
       }},
      {"Window", {{"OSC Commands & Cues", "Ctrl+O", MenuCommand::toggleOSCCommandsWindow}}},
  };
  return table;
}

std::optional<MenuCommand> MenuCommands::forShortcut(int key, int mods) {
  // Caps Lock and Num Lock bits do not change a shortcut.
  const int held = mods & (GLFW_MOD_SHIFT | GLFW_MOD_CONTROL | GLFW_MOD_ALT | GLFW_MOD_SUPER);
  if (held != GLFW_MOD_CONTROL) return std::nullopt;
  switch (key) {
    case GLFW_KEY_R: return MenuCommand::recentreNeutralPose;
    case GLFW_KEY_P: return MenuCommand::toggleProjector;
    case GLFW_KEY_O: return MenuCommand::toggleOSCCommandsWindow;
    default: return std::nullopt;
  }
}

void MenuCommands::perform(MenuCommand command, DashboardContext& context) {
  // One line per menu command, so a show's log says what the operator did.
  for (const Menu& menu : menus()) {
    for (const MenuEntry& entry : menu.entries) {
      if (entry.command == command) logLine("Dashboard", menu.title + " > " + entry.label);
    }
  }
  FaceTrackingState& state = context.state;
  switch (command) {
    case MenuCommand::recentreNeutralPose: state.recentreNeutralPose(); break;
    case MenuCommand::resetCalibration: state.resetCalibration(); break;
    case MenuCommand::toggleProjector:
      if (context.toggleProjector) context.toggleProjector();
      break;
    case MenuCommand::toggleSyphon: state.setIsSyphonActive(!state.isSyphonActive()); break;
    case MenuCommand::toggleNDI: state.setIsNDIActive(!state.isNDIActive()); break;
    case MenuCommand::toggleOSCCues: state.setIsOSCEnabled(!state.isOSCEnabled()); break;
    case MenuCommand::toggleOSCCommandsWindow: context.showOSCCommands = !context.showOSCCommands; break;
  }
}

}  // namespace velmora
