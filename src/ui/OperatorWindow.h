#pragma once
// The interactive application's window side: the main window with the
// dashboard, the preview's frame supply, the wireframe tracker and the
// projector, wired to the shared objects. create() fails with the reason
// when there is no display; the application then runs headless.
//
// Threads: main thread only. frame() is called every tick after the scene's
// tick; it polls the window system, draws the dashboard and shows it, and
// never waits for rendering (frames arrive from the render thread).

#include <memory>
#include <string>

#include "base/CreateResult.h"

namespace velmora {

class CharacterChoices;

class FaceTrackingState;
class CharacterAnimationController;
class MaskSceneManager;
class ProjectorWindowController;
class QLabOSCServer;
class TrackingReceiver;
class ShowSafetyControls;
class MainWindow;
class Dashboard;
class PreviewFrames;
class WireframeTracker;
struct DashboardContext;

class OperatorWindow {
 public:
  struct Services {
    FaceTrackingState& state;
    CharacterAnimationController& animation;
    MaskSceneManager& scene;
    ProjectorWindowController& projector;
    QLabOSCServer& cueServer;
    TrackingReceiver& receiver;
    // Optional: the show-safety panel's recording, relay status and counts.
    ShowSafetyControls* safety = nullptr;
    CharacterChoices* characterFiles = nullptr;  // the Character list's files and "Open..."
  };

  static CreateResult<OperatorWindow> create(const Services& services);
  ~OperatorWindow();  // closes the projector and the window
  OperatorWindow(const OperatorWindow&) = delete;
  OperatorWindow& operator=(const OperatorWindow&) = delete;

  // One UI frame. False once the operator has closed the main window.
  bool frame();
  // The dashboard's frame without polling or showing (the benchmark's measure).
  void buildAndSubmit();

  Dashboard& dashboard() { return *dashboard_; }

 private:
  OperatorWindow(const Services& services, std::unique_ptr<MainWindow> window);

  Services services_;
  std::unique_ptr<MainWindow> window_;
  std::unique_ptr<DashboardContext> context_;
  std::unique_ptr<PreviewFrames> frames_;
  std::unique_ptr<WireframeTracker> tracker_;
  std::unique_ptr<Dashboard> dashboard_;
  int consumerToken_ = 0;
};

}  // namespace velmora
