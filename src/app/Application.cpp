#include "app/Application.h"

#include <pthread.h>
#include <signal.h>

#include <thread>

#include "app/CommandLine.h"
#include "base/Log.h"
#include "base/MainQueue.h"

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
    case CommandLine::Mode::runTests:
    case CommandLine::Mode::snapshot:
    case CommandLine::Mode::outputSelfTest:
      logLine("Velmora", "this batch run is not available in this build");
      return 0;
    case CommandLine::Mode::interactive:
      break;
  }
  return runInteractive();
}

int Application::runInteractive() {
  SignalWaiter signals;  // before any other thread starts, so all inherit the mask
  logLine("Velmora", "Running headless (no window); press Ctrl-C to stop");
  MainQueue::shared().setTick([] {}, 60.0);
  MainQueue::shared().run();
  logLine("Velmora", "Stopped cleanly");
  return 0;
}

}  // namespace velmora
