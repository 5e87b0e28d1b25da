#include "ui/OperatorWindow.h"

#define GLFW_INCLUDE_NONE
#include <GLFW/glfw3.h>
#include <imgui.h>

#include "animation/CharacterAnimationController.h"
#include "ui/Dashboard.h"
#include "ui/DashboardContext.h"
#include "ui/MainWindow.h"
#include "ui/MenuCommands.h"
#include "ui/PreviewFrames.h"
#include "ui/WireframeTracker.h"
#include "base/Clock.h"
#include "base/MainQueue.h"
#include "control/QLabOSCServer.h"
#include "outputs/ProjectorWindowController.h"
#include "scene/MaskSceneManager.h"
#include "tracking/FaceTrackingState.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {

CreateResult<OperatorWindow> OperatorWindow::create(const Services& services) {
  auto window = MainWindow::create();
  if (!window) return CreateResult<OperatorWindow>::failure(window.reason);
  return CreateResult<OperatorWindow>::success(
      std::unique_ptr<OperatorWindow>(new OperatorWindow(services, std::move(window.value))));
}

OperatorWindow::OperatorWindow(const Services& services, std::unique_ptr<MainWindow> window)
    : services_(services),
      window_(std::move(window)),
      frames_(std::make_unique<PreviewFrames>()),
      tracker_(std::make_unique<WireframeTracker>()) {
  GLFWwindow* handle = window_->handle();
  context_ = std::make_unique<DashboardContext>(services_.state, services_.animation, uptime);
  ProjectorWindowController& projector = services_.projector;
  MainWindow& mainWindow = *window_;
  context_->toggleProjector = [&projector, &mainWindow] {
    projector.toggleProjectorFullscreen();
    // The projector took the focus when it opened; give it back when it goes.
    if (!projector.isOpen()) mainWindow.bringToFront();
  };
  context_->projectorMonitor = [&projector] { return projector.monitorName(); };
  context_->projectorCoversDashboard = [] { return ProjectorWindowController::coversOperatorMonitor(); };
  context_->quit = [&mainWindow] { mainWindow.requestClose(); };
  QLabOSCServer& cueServer = services_.cueServer;
  context_->restartCueServer = [&cueServer] { cueServer.startListening(); };
  context_->oscSubscribers = [&cueServer] { return cueServer.replies().subscriberLines(uptime()); };
  context_->lastOscReply = [&cueServer] { return cueServer.replies().lastReply(); };
  TrackingReceiver& receiver = services_.receiver;
  context_->trackingPorts = [&receiver] { return receiver.ports(); };
  context_->setClipboard = [handle](const std::string& text) { glfwSetClipboardString(handle, text.c_str()); };
  context_->safety = services_.safety;

  dashboard_ = std::make_unique<Dashboard>(*context_, *frames_, *tracker_, true);
  // Shortcuts run after the window system's event handling, never inside
  // it: toggling the projector from its own key press destroys the window
  // whose event GLFW is still handling.
  auto keys = [this](int key, int mods) {
    if (MenuCommands::forShortcut(key, mods)) {
      MainQueue::shared().post([this, key, mods] { dashboard_->handleKey(key, mods); });
    }
  };
  window_->setKeyHandler(keys);
  projector.setKeyHandler(keys);
  // Esc and the window manager's close request on the projector take the
  // Ctrl+P path (the dashboard comes back to the front), once the window
  // system's event handling is over; a second request finds it closed.
  projector.setCloseRequestHandler([this] {
    MainQueue::shared().post([this] {
      if (services_.projector.isOpen()) MenuCommands::perform(MenuCommand::toggleProjector, *context_);
    });
  });
  MaskSceneManager& scene = services_.scene;
  // The projector is a live view of the scene's one renderer, not a renderer of its own.
  projector.setFrameFeed({[&scene](int width, int height, ProjectorWindowController::FrameConsumer consumer) {
                            return scene.addView(width, height, std::move(consumer));
                          },
                          [&scene](int token) { scene.removeFrameConsumer(token); }});

  // The frame loop's second step, and the preview's frames from the render thread.
  WireframeTracker& tracker = *tracker_;
  FaceTrackingState& state = services_.state;
  scene.setTrackerUpdate([&tracker, &state] { tracker.update(state); });
  PreviewFrames& frames = *frames_;
  consumerToken_ = scene.addFrameConsumer(
      [&frames](const std::shared_ptr<const RenderedFrame>& frame) { if (frame) frames.consume(*frame); });

  window_->bringToFront();
}

OperatorWindow::~OperatorWindow() {
  services_.projector.shutdown();
  services_.projector.setKeyHandler(nullptr);
  services_.projector.setCloseRequestHandler(nullptr);
  services_.projector.setFrameFeed({});
  services_.scene.removeFrameConsumer(consumerToken_);
  services_.scene.setTrackerUpdate(nullptr);
  dashboard_.reset();
  window_.reset();  // last: the projector's windows needed GLFW
}

void OperatorWindow::buildAndSubmit() {
  dashboard_->draw(window_->largeFont());
}

bool OperatorWindow::frame() {
  services_.projector.tick();
  window_->beginFrame();
  buildAndSubmit();
  window_->endFrame();
  return !window_->closeRequested();
}

}  // namespace velmora
