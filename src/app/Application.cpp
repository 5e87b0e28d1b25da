#include "app/Application.h"

#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <thread>

#include "animation/CharacterAnimationController.h"
#include "export/CharacterExport.h"
#include "app/CommandLine.h"
#include "app/CueServerSwitch.h"
#include "app/MaskSnapshot.h"
#include "ui/OperatorWindow.h"
#include "app/ShowSafety.h"
#include "app/SelfTestRunner.h"
#include "app/TrackingIntake.h"
#include "base/Clock.h"
#include "base/Log.h"
#include "base/MainQueue.h"
#include "base/SettingsStore.h"
#include "control/CommandContext.h"
#include "control/QLabOSCServer.h"
#include "outputs/NDIPublisher.h"
#include "outputs/OutputSelfTest.h"
#include "outputs/ProjectorWindowController.h"
#include "outputs/SyphonPublisher.h"
#include "render/RenderThread.h"
#include "scene/MaskSceneManager.h"
#include "tracking/FaceTrackingState.h"
#include "tracking/TrackingReceiver.h"

namespace velmora {

namespace {

// SIGINT and SIGTERM are blocked in every thread and taken by one waiter
// thread, which asks the main loop to stop; shutdown then runs on the main
// thread like any other work.
class SignalWaiter {
 public:
  SignalWaiter() {
    sigemptyset(&set_);
    sigaddset(&set_, SIGINT);
    sigaddset(&set_, SIGTERM);
    sigaddset(&set_, SIGUSR1);  // internal: wakes the waiter at exit
    pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    thread_ = std::thread([this] {
      int sig = 0;
      while (sigwait(&set_, &sig) == 0) {
        if (sig == SIGUSR1) return;
        logLine("Velmora", sig == SIGINT ? "Interrupted, shutting down" : "Terminated, shutting down");
        MainQueue::shared().stop();
      }
    });
  }
  ~SignalWaiter() {
    pthread_kill(thread_.native_handle(), SIGUSR1);
    thread_.join();
  }

 private:
  sigset_t set_{};
  std::thread thread_;
};

}  // namespace

int Application::main(const std::vector<std::string>& args) {
  MainQueue::shared().bindToCurrentThread();
  const CommandLine cl = CommandLine::parse(args);
  switch (cl.mode) {
    case CommandLine::Mode::help:
      std::fputs(CommandLine::helpText().c_str(), stdout);
      return 0;
    case CommandLine::Mode::version:
      std::puts(CommandLine::versionText().c_str());
      return 0;
    case CommandLine::Mode::usageError:
      std::fprintf(stderr, "%s\n", CommandLine::usageErrorText(cl.unknownOption).c_str());
      return 2;
    case CommandLine::Mode::runTests:
      SelfTestRunner().run();  // the outcome is in its printed lines
      return 0;
    case CommandLine::Mode::snapshot:
      MaskSnapshot::run(cl.folder);  // one line per file, then the count
      return 0;
    case CommandLine::Mode::outputSelfTest:
      runOutputSelfTest(cl.folder);  // "[selftest] RESULT ..." per output
      return 0;
    case CommandLine::Mode::exportGltf:
      CharacterExport::run(cl.folder);  // one line per file
      return 0;
    case CommandLine::Mode::interactive:
      break;
  }
  return runInteractive(cl);
}

void Application::runOutputSelfTest(const std::string& folder) {
  FaceTrackingState& state = FaceTrackingState::shared();
  MaskSceneManager& scene = MaskSceneManager::shared();
  scene.setRenderer(std::make_unique<RenderThread>());
  scene.setOutputs(&SyphonPublisher::shared(), &NDIPublisher::shared());
  OutputSelfTest test({state, scene, SyphonPublisher::shared(), NDIPublisher::shared(),
                       [](double seconds) { MainQueue::shared().runUntil([] { return false; }, seconds); }});
  test.run(folder);
  scene.setRenderer(nullptr);  // no frame reaches an output after this
  scene.setOutputs(nullptr, nullptr);
}

int Application::runInteractive(const CommandLine& commandLine) {
  SignalWaiter signals;  // before any other thread starts, so all inherit the mask
  // A recording over a file-size limit must fail its write (and stop with a
  // message), not end the show.
  ::signal(SIGXFSZ, SIG_IGN);
  MainQueue& mainQueue = MainQueue::shared();

  // Creating the state loads the persisted settings and finds this machine's address.
  FaceTrackingState& state = FaceTrackingState::shared();
  logLine("Velmora", "Settings: " + SettingsStore::shared().filePath().string());
  logLine("Velmora", "This machine's address: " + state.localIP() + " (enter it in the phone's tracking app)");

  // --- services started on the main loop ---
  TrackingIntake tracking(TrackingReceiver::shared(), state);
  // Remote cues act on the state and the cue player, at the clock the frame update samples cues with.
  CommandContext commands{state, CharacterAnimationController::shared(), [] { return uptime(); }};
  QLabOSCServer cueServer(commands, mainQueue);
  const CueServerSwitch cueServerSwitch(state, cueServer);  // the isOSCEnabled switch starts and stops it
  // The relay, the recorder, allow-lists and bind addresses: one owner.
  ShowSafety safety(state, TrackingReceiver::shared(), cueServer);
  if (commandLine.recordWithoutFile) logLine("Velmora", "--record needs a file name after it; not recording");
  if (!commandLine.recordFile.empty()) safety.startRecording(commandLine.recordFile);  // before the first datagram
  // Bind addresses, allow-lists and relay targets, before either listener opens.
  tracking.configurePorts();
  safety.start();
  tracking.start();
  cueServer.startListening();  // shows "OSC cues: disabled" when switched off

  // The GL render thread behind the scene; its context opens with the first frame.
  MaskSceneManager& scene = MaskSceneManager::shared();
  scene.setRenderer(std::make_unique<RenderThread>());
  // The video outputs the operator's switches drive (Syphon is on by default).
  scene.setOutputs(&SyphonPublisher::shared(), &NDIPublisher::shared());
  // Each output's status line, printed when it changes (output sync writes
  // a text only when it differs, at most twice a second).
  tracking.setLatencySplit([&scene] {
    const auto latency = scene.outputLatency().summary(uptime());
    return std::make_pair(latency.tickWaitP50, latency.renderP50);
  });
  std::string loggedNdiStatus;
  const int statusObserver = state.observe([&state, &loggedNdiStatus](FaceTrackingState::Property property) {
    if (property == FaceTrackingState::Property::syphonStatus) logLine("Velmora", state.syphonStatus());
    // Not at each tick of a retry's countdown: once per failure, with the time of its first retry.
    if (property == FaceTrackingState::Property::ndiStatus &&
        MaskSceneManager::withoutRetryNote(state.ndiStatus()) != loggedNdiStatus) {
      loggedNdiStatus = MaskSceneManager::withoutRetryNote(state.ndiStatus());
      logLine("Velmora", state.ndiStatus());
    }
  });

  // The main window with the dashboard when there is a display; headless otherwise.
  auto window = OperatorWindow::create({state, CharacterAnimationController::shared(), scene,
                                        ProjectorWindowController::shared(), cueServer,
                                        TrackingReceiver::shared(), &safety});
  if (window) {
    logLine("Velmora", "Main window open; close it (or press Ctrl-C) to stop");
  } else {
    logLine("Velmora", "Running headless (no window: " + window.reason + "); press Ctrl-C to stop");
  }

  mainQueue.setTick([&] {
    // --- per-tick work (60 Hz) ---
    tracking.tick(uptime());
    state.updateTrackingLoss();  // before the scene shows the face
    scene.tick();  // face and cues onto the character, the wireframe tracker, a frame when an output is on
    cueServer.tick();  // after the cue sample: a cue that ended this tick is announced finished
    // The dashboard's frame: never waits for rendering, so OSC and tracking keep flowing.
    if (window && !window.value->frame()) {
      logLine("Velmora", "Main window closed, shutting down");
      mainQueue.stop();
    }
  }, 60.0);
  mainQueue.run();  // returns after SIGINT/SIGTERM or the main window's closing, having run everything posted

  // --- services stopped, in reverse order ---
  window.value.reset();  // the projector closes first, then the main window
  // Rendering ends first (after the frame in hand), so no finished frame
  // reaches an output while it stops or after the publishers are gone.
  scene.setRenderer(nullptr);
  scene.shutdownOutputs();  // "[Syphon] Server stopped", "[NDI] Sender stopped" for the running ones
  scene.setOutputs(nullptr, nullptr);
  state.unobserve(statusObserver);
  cueServer.shutdown();
  tracking.stop();
  safety.stopRecording();  // after the sockets: every datagram that arrived is in the file

  mainQueue.setTick(nullptr, 0);
  mainQueue.drain();  // whatever the stopping services posted last
  // Every setting is written when it changes; nothing is pending here.
  logLine("Velmora", "Stopped cleanly");
  return 0;
}

}  // namespace velmora
