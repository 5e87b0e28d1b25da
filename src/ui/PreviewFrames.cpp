#include "ui/PreviewFrames.h"

#include "scene/FrameDownscale.h"

namespace velmora {

std::shared_ptr<RenderedFrame> PreviewFrames::shrink(const RenderedFrame& frame, int factor) {
  if (factor < 1) factor = 1;
  return std::make_shared<RenderedFrame>(FrameDownscale::shrink(frame, frame.width / factor, frame.height / factor));
}

void PreviewFrames::consume(const RenderedFrame& frame) {
  if (frame.width <= 0 || frame.height <= 0) return;
  const int factor = (frame.width + maximumWidth - 1) / maximumWidth;
  std::shared_ptr<const RenderedFrame> small = shrink(frame, factor);
  std::lock_guard lock(mutex_);
  latest_ = std::move(small);
}

std::shared_ptr<const RenderedFrame> PreviewFrames::newerThan(std::uint64_t seenSequence) const {
  std::lock_guard lock(mutex_);
  if (!latest_ || latest_->sequence <= seenSequence) return nullptr;
  return latest_;
}

}  // namespace velmora
