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

  // Over FaceTrackingState::shared(), created on first use.
  static ProjectorWindowController& shared();
  explicit ProjectorWindowController(FaceTrackingState& state);
  ~ProjectorWindowController();  // shutdown()
  ProjectorWindowController(const ProjectorWindowController&) = delete;
  ProjectorWindowController& operator=(const ProjectorWindowController&) = delete;

  void setFrameSource(FrameSource source);
  void setKeyHandler(KeyHandler handler);

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
  // Destroys the open window; its render thread stops in the background.
  void retire();

  FaceTrackingState& state_;
  FrameSource source_;
  KeyHandler keyHandler_;
  GLFWwindow* window_ = nullptr;
  std::unique_ptr<ProjectorView> view_;
  std::string monitorName_;
  int width_ = 0, height_ = 0;
  std::vector<std::future<void>> stoppers_;  // render threads finishing their last frame
};

}  // namespace velmora
