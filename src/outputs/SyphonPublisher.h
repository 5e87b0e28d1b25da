#pragma once
// Shares every rendered frame with other applications on this machine. The
// operator knows this output as "Syphon"; on Linux the sharing mechanism
// behind it is a PipeWire video source node named after serverName
// ("Velmora"), which gst-launch's pipewiresrc, OBS and browsers (through the
// camera portal) see as a camera. libpipewire-0.3 is opened at run time from
// a fixed list of places, never linked, so Velmora runs without it.
//
// Life: the library is looked for once per process (a failed search is
// final, a found library stays loaded); within a loaded library the
// publisher is stopped or running. A start that finds no PipeWire daemon
// fails with lastError() and is tried again at most every two seconds while
// the caller keeps asking (the output stays on), so the output comes back by
// itself when the daemon starts; a daemon that dies under a running server
// is noticed at the next start()/isRunning() and handled the same way.
//
// Threads: everything but publish() on the main thread (the scene manager's
// output synchronisation); publish() on the render thread, never blocking.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "scene/VideoOutput.h"

namespace velmora {

class PipeWireApi;
class PipeWireVideoSource;

class SyphonPublisher : public VideoOutput {
 public:
  // Seconds between two attempts to create the video source while no daemon answers.
  static constexpr double retryInterval = 2.0;

  // Over candidateFrameworkPaths() and the uptime clock.
  static SyphonPublisher& shared();

  // Folders are searched in order for libpipewire-0.3.so.0, then (unless
  // askSystemLoader is false) the system loader is asked for it by soname;
  // the clock (seconds, monotonic) paces the retries. Tests pass their own.
  explicit SyphonPublisher(std::vector<std::string> candidateFolders, std::function<double()> clock = {},
                           bool askSystemLoader = true);
  ~SyphonPublisher() override;  // stop()
  SyphonPublisher(const SyphonPublisher&) = delete;
  SyphonPublisher& operator=(const SyphonPublisher&) = delete;

  // The folders searched by default: "lib/" beside the executable's folder,
  // then /usr/lib/x86_64-linux-gnu, /usr/local/lib, /usr/lib.
  static std::vector<std::string> candidateFrameworkPaths();

  const std::string& serverName() const { return serverName_; }
  // The library file that was loaded.
  const std::optional<std::string>& frameworkPath() const { return frameworkPath_; }
  std::optional<std::string> lastError() const override { return lastError_; }
  // A video source exists and its connection to the daemon holds.
  bool isRunning() const override;

  // Opens libpipewire from the first candidate folder that has a usable one,
  // else wherever the system loader finds it. Only the first call searches;
  // later calls repeat its answer.
  bool loadFramework();
  bool start() override;
  // Prints "[Syphon] Server stopped" when a server was running.
  void stop() override;
  // Render thread: the frame goes to PipeWire's loop thread to be copied; it
  // is dropped when no consumer is linked or no server runs.
  void publish(const std::shared_ptr<const RenderedFrame>& frame) override;
  // A consumer is linked (the stream is STREAMING).
  bool hasClients() const;
  int clientCount() const override { return hasClients() ? 1 : 0; }
  // With nobody linked PipeWire has no buffer to take a frame.
  bool wantsFrames() const override { return hasClients(); }

  // The running source (tests, self-test, benchmarks), or null.
  std::shared_ptr<PipeWireVideoSource> source() const;
  // The loaded library's entry points, or null before a successful load.
  const std::shared_ptr<const PipeWireApi>& api() const { return api_; }

 private:
  // Drops a source whose daemon went away; true when it did.
  bool dropFailedSource();

  const std::string serverName_ = "Velmora";
  std::vector<std::string> candidateFolders_;
  std::function<double()> clock_;
  bool askSystemLoader_ = true;
  std::optional<std::string> frameworkPath_;
  std::optional<std::string> lastError_;
  std::shared_ptr<const PipeWireApi> api_;
  bool loadAttempted_ = false;
  std::optional<double> lastFailedStart_;  // clock time of the last failed creation

  // Copied under the lock by publish() (render thread), so a stop() on the
  // main thread never destroys a source in the middle of an offer.
  mutable std::mutex sourceMutex_;
  std::shared_ptr<PipeWireVideoSource> source_;
};

}  // namespace velmora
