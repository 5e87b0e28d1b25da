#include "ui/PreviewFrames.h"

#include "scene/FrameDownscale.h"

namespace velmora {

std::shared_ptr<RenderedFrame> PreviewFrames::shrink(const RenderedFrame& frame, int factor) {
  auto out = std::make_shared<RenderedFrame>();
  shrinkInto(frame, factor, *out);
  return out;
}

void PreviewFrames::shrinkInto(const RenderedFrame& frame, int factor, RenderedFrame& out) {
  if (factor < 1) factor = 1;
  FrameDownscale::shrinkInto(frame, frame.width / factor, frame.height / factor, out);
}

void PreviewFrames::consume(const RenderedFrame& frame) {
  if (frame.width <= 0 || frame.height <= 0) return;
  const int factor = (frame.width + maximumWidth - 1) / maximumWidth;
  std::shared_ptr<RenderedFrame> small = pool_.acquire(frame.width / factor, frame.height / factor);
  shrinkInto(frame, factor, *small);
  std::lock_guard lock(mutex_);
  latest_ = std::move(small);
}

std::shared_ptr<const RenderedFrame> PreviewFrames::newerThan(std::uint64_t seenSequence) const {
  std::lock_guard lock(mutex_);
  if (!latest_ || latest_->sequence <= seenSequence) return nullptr;
  return latest_;
}

}  // namespace velmora
