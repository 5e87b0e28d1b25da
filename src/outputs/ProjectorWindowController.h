#pragma once
// The projector: a borderless, floating, black window covering one monitor
// (ProjectorMonitorRule: the second of two or more, else the only one) at
// its native resolution, showing its own live view of the scene through
// the scene's camera at the window's aspect, four-times multisampled and
// redrawn every tick. FaceTrackingState::isProjectorFullscreen mirrors
// whether it is open.
//
// Log lines: "[ProjectorWindowController] Opened fullscreen projector
// window on '<monitor name>'" and "[ProjectorWindowController] Closed
// projector window." (also when nothing was open).
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

  // Over FaceTrackingState::shared(), created on first use.
  static ProjectorWindowController& shared();
  explicit ProjectorWindowController(FaceTrackingState& state);
  ~ProjectorWindowController();  // shutdown()
  ProjectorWindowController(const ProjectorWindowController&) = delete;
  ProjectorWindowController& operator=(const ProjectorWindowController&) = delete;

  // Main thread; an empty feed leaves the window black.
  void setFrameFeed(FrameFeed feed);
  void setKeyHandler(KeyHandler handler);

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
  // Unsubscribes the view and destroys the open window.
  void retire();

  FaceTrackingState& state_;
  FrameFeed feed_;
  KeyHandler keyHandler_;
  GLFWwindow* window_ = nullptr;
  std::unique_ptr<ProjectorView> view_;
  int feedToken_ = 0;  // 0: not subscribed
  std::string monitorName_;
};

}  // namespace velmora
