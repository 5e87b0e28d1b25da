#include "outputs/ProjectorWindowController.h"

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>

#include "base/Log.h"
#include "base/MainQueue.h"
#include "outputs/ProjectorMonitorRule.h"
#include "outputs/ProjectorView.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

ProjectorWindowController& ProjectorWindowController::shared() {
  static ProjectorWindowController controller(FaceTrackingState::shared());
  return controller;
}

ProjectorWindowController::ProjectorWindowController(FaceTrackingState& state)
    : state_(state) {}

ProjectorWindowController::~ProjectorWindowController() { shutdown(); }

void ProjectorWindowController::setFrameFeed(FrameFeed feed) { feed_ = std::move(feed); }

void ProjectorWindowController::setKeyHandler(KeyHandler handler) { keyHandler_ = std::move(handler); }

void ProjectorWindowController::setCloseRequestHandler(std::function<void()> handler) {
  closeRequestHandler_ = std::move(handler);
}

bool ProjectorWindowController::coversOperatorMonitor() {
  int count = 0;
  return !glfwGetMonitors(&count) || count < 2;
}

void ProjectorWindowController::keyCallback(GLFWwindow* window, int key, int, int action, int mods) {
  auto* self = static_cast<ProjectorWindowController*>(glfwGetWindowUserPointer(window));
  if (!self || action != GLFW_PRESS) return;
  if (key == GLFW_KEY_ESCAPE && mods == 0) {
    if (self->closeRequestHandler_) self->closeRequestHandler_();
    return;
  }
  if (self->keyHandler_) self->keyHandler_(key, mods);
}

void ProjectorWindowController::closeCallback(GLFWwindow* window) {
  // The window stays until the handler's close destroys it; without a
  // handler the request is refused rather than leaving a dead window.
  glfwSetWindowShouldClose(window, GLFW_FALSE);
  auto* self = static_cast<ProjectorWindowController*>(glfwGetWindowUserPointer(window));
  if (self && self->closeRequestHandler_) self->closeRequestHandler_();
}

void ProjectorWindowController::openProjector() {
  VELMORA_ASSERT_MAIN_THREAD();
  int count = 0;
  GLFWmonitor** monitors = glfwGetMonitors(&count);
  GLFWmonitor* monitor = nullptr;
  if (const auto index = ProjectorMonitorRule::chooseIndex(monitors ? count : 0)) {
    monitor = monitors[*index];
  } else {
    monitor = glfwGetPrimaryMonitor();  // the main display, if the system has one unlisted
  }
  const GLFWvidmode* mode = monitor ? glfwGetVideoMode(monitor) : nullptr;
  if (!monitor || !mode) {
    logLine("ProjectorWindowController", "No display to put the projector on");
    return;
  }
  if (window_) retire();

  glfwDefaultWindowHints();
  glfwWindowHint(GLFW_DECORATED, GLFW_FALSE);
  glfwWindowHint(GLFW_FLOATING, GLFW_TRUE);
  glfwWindowHint(GLFW_AUTO_ICONIFY, GLFW_FALSE);  // stays up when the dashboard has the focus
  glfwWindowHint(GLFW_RESIZABLE, GLFW_FALSE);
  glfwWindowHint(GLFW_VISIBLE, GLFW_FALSE);
  glfwWindowHint(GLFW_FOCUS_ON_SHOW, GLFW_TRUE);
  glfwWindowHint(GLFW_CONTEXT_VERSION_MAJOR, 3);
  glfwWindowHint(GLFW_CONTEXT_VERSION_MINOR, 3);
  glfwWindowHint(GLFW_OPENGL_PROFILE, GLFW_OPENGL_CORE_PROFILE);
  glfwWindowHint(GLFW_OPENGL_FORWARD_COMPAT, GLFW_TRUE);
  glfwWindowHint(GLFW_SAMPLES, 0);  // the scene is multisampled offscreen, then shown
  // One textured triangle over black: no depth or stencil buffer (8.3 MB at
  // 1080p, in main memory on software GL).
  glfwWindowHint(GLFW_DEPTH_BITS, 0);
  glfwWindowHint(GLFW_STENCIL_BITS, 0);
  // Full screen on that monitor at its current mode, so GLFW switches no
  // mode and the window manager keeps the window over the monitor on every
  // workspace (a plain window would stay behind on the workspace it opened on).
  glfwWindowHint(GLFW_REFRESH_RATE, mode->refreshRate);
  glfwWindowHint(GLFW_RED_BITS, mode->redBits);
  glfwWindowHint(GLFW_GREEN_BITS, mode->greenBits);
  glfwWindowHint(GLFW_BLUE_BITS, mode->blueBits);
  GLFWwindow* window = glfwCreateWindow(mode->width, mode->height, "Velmora Projector", monitor, nullptr);
  glfwDefaultWindowHints();
  if (!window) {
    const char* description = nullptr;
    glfwGetError(&description);
    logLine("ProjectorWindowController",
            std::string("Could not open the projector window: ") + (description ? description : "unknown error"));
    return;
  }
  glfwSetWindowUserPointer(window, this);
  glfwSetKeyCallback(window, &ProjectorWindowController::keyCallback);
  glfwSetWindowCloseCallback(window, &ProjectorWindowController::closeCallback);
  glfwShowWindow(window);
  glfwFocusWindow(window);

  window_ = window;
  monitorName_ = glfwGetMonitorName(monitor) ? glfwGetMonitorName(monitor) : "";
  view_ = std::make_unique<ProjectorView>(window);
  // The scene at the monitor's native size; from the next tick on.
  if (feed_.subscribe) feedToken_ = feed_.subscribe(mode->width, mode->height, view_->consumer());
  state_.setIsProjectorFullscreen(true);
  logLine("ProjectorWindowController", "Opened fullscreen projector window on '" + monitorName_ + "'");
  if (coversOperatorMonitor()) logLine("ProjectorWindowController", singleMonitorHint);
  tick();  // the first frame now, not a tick later
}

void ProjectorWindowController::closeProjector() {
  VELMORA_ASSERT_MAIN_THREAD();
  if (window_) retire();
  state_.setIsProjectorFullscreen(false);
  logLine("ProjectorWindowController", "Closed projector window.");
}

void ProjectorWindowController::toggleProjectorFullscreen() {
  if (window_) {
    closeProjector();
  } else {
    openProjector();
  }
}

void ProjectorWindowController::tick() {
  if (view_) view_->present();
}

std::uint64_t ProjectorWindowController::presentedCount() const {
  return view_ ? view_->presentedCount() : 0;
}

void ProjectorWindowController::retire() {
  // A frame the render thread is delivering right now goes nowhere.
  if (feedToken_ && feed_.unsubscribe) feed_.unsubscribe(feedToken_);
  feedToken_ = 0;
  view_.reset();  // its GL objects go while the window still exists
  glfwDestroyWindow(window_);
  window_ = nullptr;
  monitorName_.clear();
}

void ProjectorWindowController::shutdown() {
  if (window_) closeProjector();
}

}  // namespace velmora
