#pragma once
// The projector: a borderless, floating, black window covering one monitor
// (ProjectorMonitorRule: the second of two or more, else the only one) at
// its native resolution, showing its own live view of the scene through
// the scene's camera at the window's aspect, four-times multisampled and
// redrawn every tick. FaceTrackingState::isProjectorFullscreen mirrors
// whether it is open.
//
// The window is full screen in GLFW's monitor mode at the monitor's current
// video mode (no mode switch): the window manager keeps it over that whole
// monitor (_NET_WM_STATE_FULLSCREEN), on every workspace the monitor shows.
// Esc and the window manager's close request (Alt+F4) ask the application
// to close it (setCloseRequestHandler), as Ctrl+P does.
//
// Log lines: "[ProjectorWindowController] Opened fullscreen projector
// window on '<monitor name>'" and "[ProjectorWindowController] Closed
// projector window." (also when nothing was open); with one monitor the
// opening line is followed by singleMonitorHint, since the projector then
// covers the dashboard.
//
// Threads: main thread only (GLFW must already be initialised by the
// application's main window). The scene is drawn on the view's own render
// thread (ProjectorView); the main thread presents finished frames.
// Closing destroys the window at once and lets the render thread finish its
// frame in the background, so the main thread never waits for rendering,
// except in shutdown() at exit.

#include <functional>
#include <memory>
#include <string>
#include <future>
#include <vector>

#include "scene/FrameDescription.h"

struct GLFWwindow;

namespace velmora {

class FaceTrackingState;
class ProjectorView;

class ProjectorWindowController {
 public:
  // A frame of the live scene at the given size (the scene manager's
  // makeFrameDescription); called on the main thread every tick while open.
  using FrameSource = std::function<std::shared_ptr<const FrameDescription>(int width, int height)>;
  // A key pressed while the projector has the focus (GLFW key and mods), so
  // the application's shortcuts work there too.
  using KeyHandler = std::function<void(int key, int mods)>;

  static constexpr int sampleCount = 4;
  // How an operator with one monitor gets the dashboard back.
  static constexpr const char* singleMonitorHint =
      "One monitor: the projector covers the dashboard. Press Esc or Ctrl+P on it to close it.";
  // True when the projector would open over the operator's own monitor (one
  // monitor or none listed). GLFW must be initialised.
  static bool coversOperatorMonitor();

  // Over FaceTrackingState::shared(), created on first use.
  static ProjectorWindowController& shared();
  explicit ProjectorWindowController(FaceTrackingState& state);
  ~ProjectorWindowController();  // shutdown()
  ProjectorWindowController(const ProjectorWindowController&) = delete;
  ProjectorWindowController& operator=(const ProjectorWindowController&) = delete;

  void setFrameSource(FrameSource source);
  void setKeyHandler(KeyHandler handler);
  // Called (main thread, inside GLFW's event handling) when Esc is pressed
  // in the projector or the window manager asks to close it.
  void setCloseRequestHandler(std::function<void()> handler);

  // Opens a window on the chosen monitor; with no monitor, nothing happens
  // (one log line says so). Opening while open replaces the open window
  // (the old one goes away), so there is never more than one on screen.
  void openProjector();
  void closeProjector();
  // closeProjector() when a window exists, otherwise openProjector().
  void toggleProjectorFullscreen();

  // Every tick: shows the newest finished frame and hands the view the
  // scene at the window's size.
  void tick();

  bool isOpen() const { return window_ != nullptr; }
  // The monitor the open window covers ("" when closed).
  const std::string& monitorName() const { return monitorName_; }
  // Frames the open window has shown.
  std::uint64_t presentedCount() const;

  // Closes the window and waits for every view thread (application exit).
  void shutdown();

 private:
  static void keyCallback(GLFWwindow* window, int key, int scancode, int action, int mods);
  static void closeCallback(GLFWwindow* window);
  // Destroys the open window; its render thread stops in the background.
  void retire();

  FaceTrackingState& state_;
  FrameSource source_;
  KeyHandler keyHandler_;
  std::function<void()> closeRequestHandler_;
  GLFWwindow* window_ = nullptr;
  std::unique_ptr<ProjectorView> view_;
  std::string monitorName_;
  int width_ = 0, height_ = 0;
  std::vector<std::future<void>> stoppers_;  // render threads finishing their last frame
};

}  // namespace velmora
