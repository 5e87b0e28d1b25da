#pragma once
// Sends every rendered frame as an NDI video source on the local network.
// The NDI runtime (libndi.so.6, else libndi.so.5) is opened at run time from
// a list of places and driven through its C entry points by name, never
// linked, so Velmora runs without it.
//
// Life: runtime not loaded, then loaded (kept open for the rest of the
// process); within loaded, stopped or sending. A start that fails (no usable
// runtime, a runtime refusing to initialise, no sender) is tried again, the
// whole search included, but not before retryInterval seconds have passed:
// the output sync asks every frame, and each attempt opens, initialises and
// closes a library on the main thread.
//
// Frames: publish() takes the finished frame (already in main memory) and
// sends it from that memory on the serial queue "com.velmora.ndi", holding
// the frame only until the runtime's synchronous send returns; no copy is
// made. One frame at most is in flight: a frame offered while one is being
// sent, or while no sender exists, is dropped without a message.
//
// Threads: everything but publish() on the main thread (the scene manager's
// output synchronisation, the self-test); publish() on the render thread,
// never blocking (a lock held for a few instructions guards the busy flag).

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/SerialQueue.h"
#include "outputs/NDIRuntimeTypes.h"
#include "scene/VideoOutput.h"

namespace velmora {

class RuntimeLibrary;

class NDIPublisher : public VideoOutput {
 public:
  // Seconds between two start attempts after a failed one.
  static constexpr double retryInterval = 2.0;

  // Over defaultFolders().
  static NDIPublisher& shared();

  // The fixed folders searched after the environment's: "lib/" beside the
  // executable's folder, /usr/local/lib, /usr/lib/x86_64-linux-gnu, /usr/lib.
  static std::vector<std::string> defaultFolders();

  // `fixedFolders` follow the folders named by $NDI_RUNTIME_DIR_V6 and
  // $NDI_RUNTIME_DIR_V5 in the search; the clock (seconds, monotonic; uptime
  // when empty) paces the retries. Tests pass their own.
  explicit NDIPublisher(std::vector<std::string> fixedFolders = defaultFolders(),
                        std::function<double()> clock = {});
  ~NDIPublisher() override;  // stop(), then the queue finishes
  NDIPublisher(const NDIPublisher&) = delete;
  NDIPublisher& operator=(const NDIPublisher&) = delete;

  // Every file looked at, in order: for each folder ($NDI_RUNTIME_DIR_V6 and
  // $NDI_RUNTIME_DIR_V5 when set and not empty, then the fixed folders)
  // libndi.so.6, then libndi.so.5. The environment is read at each call.
  std::vector<std::string> candidateRuntimePaths() const;

  const std::string& sourceName() const { return sourceName_; }
  // How receivers see this machine's source: "HOSTNAME (Velmora)", the host
  // name up to its first dot, upper-cased as the runtime announces it.
  std::string networkSourceName() const;
  // The runtime file that was opened.
  const std::optional<std::string>& runtimePath() const { return runtimePath_; }
  std::optional<std::string> lastError() const override { return lastError_; }
  bool isRuntimeLoaded() const { return library_ != nullptr; }
  // A sender exists.
  bool isRunning() const override;

  // Opens the first candidate that has all five send entry points and whose
  // NDIlib_initialize succeeds. True at once when a runtime is open.
  bool loadRuntime();
  // Creates the sender (source name, default groups, no clocking, so frames
  // go out as fast as they are offered) and prints
  // "[NDI] Sending 'Velmora' using <runtimePath>". Starting twice is harmless.
  // Within retryInterval of a failed start it fails at once, trying nothing.
  bool start() override;
  // Seconds until a start may try again after a failure; empty when it may now.
  std::optional<double> retryIn() const override;
  // Destroys the sender once a send in progress has returned and prints
  // "[NDI] Sender stopped"; without a sender it does nothing. The runtime
  // stays open.
  void stop() override;

  // Render thread. Queues the frame for sending, or drops it when a send is
  // in flight or no sender exists. The frame must be BGRA with rows of
  // 4 x width bytes (RenderedFrame's convention); NDI defines BGRA as
  // straight alpha, which is ours, so the bytes go out unchanged.
  void send(std::shared_ptr<const RenderedFrame> frame);
  void publish(const std::shared_ptr<const RenderedFrame>& frame) override { send(frame); }

  // Receivers connected now (asked without waiting); 0 without a sender.
  int connectionCount() const;
  int clientCount() const override { return connectionCount(); }

  // Main thread; blocks for up to timeoutSeconds. The NDI sources visible
  // from here, named as the runtime names them ("MACHINE (Source Name)"),
  // found through the runtime's find entry points (local sources included,
  // default groups). Nothing when discovery could not start: no runtime
  // loaded, a find entry point missing, or the finder not created.
  std::optional<std::vector<std::string>> findSources(double timeoutSeconds);

 private:
  struct EntryPoints {
    ndi::InitializeFn initialize = nullptr;
    ndi::SendCreateFn sendCreate = nullptr;
    ndi::SendVideoV2Fn sendVideo = nullptr;
    ndi::SendDestroyFn sendDestroy = nullptr;
    ndi::SendGetNoConnectionsFn getNoConnections = nullptr;
  };

  bool acceptRuntime(RuntimeLibrary& library);
  void sendInFlight();  // on the queue

  const std::string sourceName_ = "Velmora";
  const std::vector<std::string> fixedFolders_;
  const std::function<double()> clock_;
  std::optional<double> nextAttempt_;  // clock time before which start() tries nothing
  std::optional<std::string> runtimePath_;
  std::optional<std::string> lastError_;
  std::unique_ptr<RuntimeLibrary> library_;
  // Written before the first sender exists and never again while one does,
  // so the queue reads them without the lock.
  EntryPoints entries_;
  // Runtimes already reported as lacking an entry point (one line each).
  std::set<std::string> reportedIncomplete_;

  mutable std::mutex mutex_;  // guards the four fields below
  ndi::SendInstance sender_ = nullptr;
  bool busy_ = false;
  std::shared_ptr<const RenderedFrame> inFlight_;
  ndi::SendInstance inFlightSender_ = nullptr;

  // Last member: its worker stops before anything it uses goes away.
  SerialQueue queue_{"com.velmora.ndi"};
};

}  // namespace velmora
