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
// application's main window). The scene is drawn by the scene's one render
// thread as a live view at the window's size (FrameFeed); the main thread
// presents finished frames, so it never waits for rendering.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "scene/RenderedFrame.h"

struct GLFWwindow;

namespace velmora {

class FaceTrackingState;
class ProjectorView;

class ProjectorWindowController {
 public:
  using FrameConsumer = std::function<void(const std::shared_ptr<const RenderedFrame>&)>;
  // Frames of the live scene at a size, rendered every tick (the scene
  // manager's addView and removeFrameConsumer): subscribe is called on the
  // main thread when a window opens and returns a token that unsubscribe
  // takes when it closes. The consumer is called on the render thread.
  struct FrameFeed {
    std::function<int(int width, int height, FrameConsumer consumer)> subscribe;
    std::function<void(int token)> unsubscribe;
  };
  // A key pressed while the projector has the focus (GLFW key and mods), so
  // the application's shortcuts work there too.
  using KeyHandler = std::function<void(int key, int mods)>;

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

  // Main thread; an empty feed leaves the window black.
  void setFrameFeed(FrameFeed feed);
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

  // Every tick: shows the newest finished frame.
  void tick();

  bool isOpen() const { return window_ != nullptr; }
  // The monitor the open window covers ("" when closed).
  const std::string& monitorName() const { return monitorName_; }
  // Frames the open window has shown.
  std::uint64_t presentedCount() const;

  // Closes the window (application exit).
  void shutdown();

 private:
  static void keyCallback(GLFWwindow* window, int key, int scancode, int action, int mods);
  static void closeCallback(GLFWwindow* window);
  // Unsubscribes the view and destroys the open window.
  void retire();

  FaceTrackingState& state_;
  FrameFeed feed_;
  KeyHandler keyHandler_;
  std::function<void()> closeRequestHandler_;
  GLFWwindow* window_ = nullptr;
  std::unique_ptr<ProjectorView> view_;
  int feedToken_ = 0;  // 0: not subscribed
  std::string monitorName_;
};

}  // namespace velmora
