#pragma once
// The "OSC Commands & Cues" window: every command of the catalogue under its
// group, with address, aliases, argument and summary, and "Copy as text"
// (OSCCommandsText) for the clipboard. Shown and hidden with Ctrl+O or the
// Window menu. Main thread.

namespace velmora {

struct DashboardContext;

class OSCCommandsWindow {
 public:
  static constexpr const char* title = "OSC Commands & Cues";

  explicit OSCCommandsWindow(DashboardContext& context) : context_(context) {}
  // Draws the window while context.showOSCCommands is set; its close box clears it.
  void draw();
  // Puts the whole list on the clipboard.
  void copyAsText();

 private:
  DashboardContext& context_;
  bool wasShown_ = false;
};

}  // namespace velmora
