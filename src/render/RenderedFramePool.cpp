#include "render/RenderedFramePool.h"

#include <atomic>

namespace velmora {

std::shared_ptr<RenderedFrame> RenderedFramePool::acquire(int width, int height) {
  const std::size_t size = static_cast<std::size_t>(width) * static_cast<std::size_t>(height) * 4;
  std::shared_ptr<RenderedFrame> frame;
  for (const auto& kept : frames_) {
    if (kept.use_count() != 1) continue;
    // The last holder let go with a releasing decrement; this fence orders
    // its reads of the pixels before the writes the caller is about to make.
    std::atomic_thread_fence(std::memory_order_acquire);
    frame = kept;
    break;
  }
  if (!frame) {
    frame = std::make_shared<RenderedFrame>();
    ++created_;
    if (frames_.size() < capacity_) frames_.push_back(frame);
  }
  frame->width = width;
  frame->height = height;
  frame->time = 0.0;
  frame->sequence = 0;
  frame->newestArrival = 0.0;
  frame->pixels.resize(size);  // no work when the size is unchanged
  return frame;
}

}  // namespace velmora
