#include "app/PreviewFrames.h"

namespace velmora {

std::shared_ptr<RenderedFrame> PreviewFrames::shrink(const RenderedFrame& frame, int factor) {
  auto out = std::make_shared<RenderedFrame>();
  shrinkInto(frame, factor, *out);
  return out;
}

void PreviewFrames::shrinkInto(const RenderedFrame& frame, int factor, RenderedFrame& out) {
  if (factor < 1) factor = 1;
  out.width = frame.width / factor;
  out.height = frame.height / factor;
  out.time = frame.time;
  out.sequence = frame.sequence;
  out.newestArrival = frame.newestArrival;
  out.pixels.assign(static_cast<std::size_t>(out.width) * out.height * 4, 0);  // no allocation once sized
  if (frame.pixels.size() < static_cast<std::size_t>(frame.width) * frame.height * 4) return;
  const int n = factor * factor;
  for (int y = 0; y < out.height; ++y) {
    for (int x = 0; x < out.width; ++x) {
      // Colour weighted by alpha: a transparent pixel's (0,0,0) must not
      // darken the edge it sits beside.
      std::uint32_t b = 0, g = 0, r = 0, a = 0;
      for (int dy = 0; dy < factor; ++dy) {
        const std::uint8_t* p = frame.pixel(x * factor, y * factor + dy);
        for (int dx = 0; dx < factor; ++dx, p += 4) {
          b += p[0] * p[3];
          g += p[1] * p[3];
          r += p[2] * p[3];
          a += p[3];
        }
      }
      std::uint8_t* q = out.pixels.data() + (static_cast<std::size_t>(y) * out.width + x) * 4;
      if (a == 0) continue;
      q[0] = static_cast<std::uint8_t>(b / a);
      q[1] = static_cast<std::uint8_t>(g / a);
      q[2] = static_cast<std::uint8_t>(r / a);
      q[3] = static_cast<std::uint8_t>((a + n / 2) / n);
    }
  }
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
