#pragma once
// One video output as the scene's output synchronisation sees it: the
// same-machine publisher (PipeWire) and the network publisher (NDI) each
// implement it in outputs/, and the application hands them to the scene
// manager, which starts and stops them with the operator's switches, asks
// them for their status and gives them every finished frame.
//
// Threads: everything but publish() is called on the main thread and must
// not block for long; publish() is called on the render thread with each
// finished frame and must not block at all (copy, queue or drop).

#include <memory>
#include <optional>
#include <string>

#include "scene/RenderedFrame.h"

namespace velmora {

class VideoOutput {
 public:
  virtual ~VideoOutput() = default;

  // Starts the output; true when it runs (starting twice is harmless),
  // false with lastError() saying why.
  virtual bool start() = 0;
  // Stops it; without a running output nothing happens.
  virtual void stop() = 0;
  virtual bool isRunning() const = 0;
  virtual std::optional<std::string> lastError() const = 0;
  // Clients or receivers taking frames now (0 when none or unknown).
  virtual int clientCount() const = 0;
  // After a failed start, the seconds until start() tries again (it fails at
  // once before then); empty when the next start() tries.
  virtual std::optional<double> retryIn() const { return std::nullopt; }
  // False when a frame rendered now would go nowhere, so the scene may skip
  // rendering for this output.
  virtual bool wantsFrames() const { return isRunning(); }
  // Render thread: one finished frame (1920 x 1080 BGRA, straight alpha).
  virtual void publish(const std::shared_ptr<const RenderedFrame>& frame) = 0;
};

}  // namespace velmora
