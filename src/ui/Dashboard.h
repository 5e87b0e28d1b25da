#pragma once
// The operator dashboard: the menu bar ("Stage Control", "Window") and every
// panel in three columns that fit a 1366 x 768 screen, plus the "OSC
// Commands & Cues" window. It draws one ImGui frame's worth of UI; the
// caller owns the ImGui context (the main window, or a test's headless one).
// Main thread.

#include <memory>

struct ImFont;

namespace velmora {

struct DashboardContext;
class PreviewFrames;
class WireframeTracker;
class ConnectionPanel;
class PreviewPanel;
class ExpressionPanel;
class CalibrationPanel;
class CuesPanel;
class OutputsPanel;
class RemoteControlPanel;
class LightingPanel;
class OSCCommandsWindow;
class WireframeTrackerView;
class ExportPanel;
class SafetyPanel;

class Dashboard {
 public:
  // Everything handed in outlives the dashboard. withGl false draws the
  // preview without a texture (headless tests).
  Dashboard(DashboardContext& context, const PreviewFrames& frames, const WireframeTracker& tracker, bool withGl);
  ~Dashboard();
  Dashboard(const Dashboard&) = delete;
  Dashboard& operator=(const Dashboard&) = delete;

  // Between ImGui::NewFrame() and ImGui::Render().
  void draw(ImFont* largeFont = nullptr);
  // A key press from any of the application's windows (GLFW key and mods):
  // runs the menu command of a shortcut. True when it was one.
  bool handleKey(int key, int mods);

  CuesPanel& cues() { return *cues_; }
  LightingPanel& lighting() { return *lighting_; }
  RemoteControlPanel& remoteControl() { return *remote_; }
  OSCCommandsWindow& oscCommands() { return *oscCommands_; }
  SafetyPanel& safety() { return *safety_; }

 private:
  void drawMenuBar();

  DashboardContext& context_;
  std::unique_ptr<ConnectionPanel> connection_;
  std::unique_ptr<PreviewPanel> preview_;
  std::unique_ptr<ExpressionPanel> expression_;
  std::unique_ptr<CalibrationPanel> calibration_;
  std::unique_ptr<CuesPanel> cues_;
  std::unique_ptr<OutputsPanel> outputs_;
  std::unique_ptr<RemoteControlPanel> remote_;
  std::unique_ptr<LightingPanel> lighting_;
  std::unique_ptr<SafetyPanel> safety_;
  std::unique_ptr<OSCCommandsWindow> oscCommands_;
  std::unique_ptr<WireframeTrackerView> wireframe_;
  std::unique_ptr<ExportPanel> export_;
};

}  // namespace velmora
