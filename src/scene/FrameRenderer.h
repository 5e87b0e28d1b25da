#pragma once
// The scene's view of a renderer: it takes immutable frame descriptions and
// turns them into RenderedFrames. The scene manager talks only to this; the
// GL implementation (render/RenderThread) is handed in by the application,
// so the scene and its tests never link GL.
//
// Threads: submit() and renderNow() may be called from any thread but the
// renderer's own; the frame handler is called on the renderer's thread.

#include <functional>
#include <memory>
#include <string>

#include "scene/FrameDescription.h"
#include "scene/RenderedFrame.h"

namespace velmora {

class FrameRenderer {
 public:
  using FrameHandler = std::function<void(const std::shared_ptr<const RenderedFrame>&)>;

  struct Result {
    std::shared_ptr<const RenderedFrame> frame;  // null on failure
    std::string error;
  };

  virtual ~FrameRenderer() = default;

  // Called with every frame rendered from submit(); it must not block for
  // long (copy or post the frame on).
  virtual void setFrameHandler(FrameHandler handler) = 0;
  // Never waits for rendering: at most one description of each frame size
  // waits, a newer one of that size replaces it (a live view of another size
  // does not push out the outputs' frame). Waiting sizes take turns.
  virtual void submit(std::shared_ptr<const FrameDescription> frame) = 0;
  // Waits for this frame and returns its pixels, or the reason there are none.
  virtual Result renderNow(std::shared_ptr<const FrameDescription> frame) = 0;
  // Ends rendering after the work in hand; later calls render nothing.
  virtual void stop() = 0;
};

}  // namespace velmora
