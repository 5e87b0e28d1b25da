#pragma once
// The frames the renderer reads back into, reused rather than allocated per
// frame: a 1920 x 1080 frame is 8 MB, and allocating and clearing one at 60
// frames per second costs the render thread milliseconds and churns the heap.
//
// A pooled frame goes back into use only when nobody else holds it: an
// output still sending it (NDI) or copying it (PipeWire) keeps its reference
// until it is done, so a frame is never overwritten under a reader.
//
// Threads: acquire() on one thread (the render thread); the frames it hands
// out may be held and released on any thread.

#include <cstddef>
#include <memory>
#include <vector>

#include "scene/RenderedFrame.h"

namespace velmora {

class RenderedFramePool {
 public:
  // Frames kept for reuse; more may be out at once (they are then not kept).
  explicit RenderedFramePool(std::size_t capacity = 4) : capacity_(capacity) {}

  // A width x height frame that nobody else holds, its pixels sized
  // width * height * 4 and holding whatever the frame last held (the caller
  // overwrites every byte). New memory only when every kept frame is still
  // held or the size grew.
  std::shared_ptr<RenderedFrame> acquire(int width, int height);

  // Frames created since construction (each one a pixel allocation).
  std::size_t created() const { return created_; }

 private:
  std::size_t capacity_;
  std::vector<std::shared_ptr<RenderedFrame>> frames_;
  std::size_t created_ = 0;
};

}  // namespace velmora
