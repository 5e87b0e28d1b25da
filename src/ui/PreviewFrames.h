#pragma once
// The dashboard preview's supply of frames: a frame consumer of the scene
// that shrinks every finished output frame on the render thread (by an
// integer factor through FrameDownscale: linear light, alpha-weighted so
// edges keep their colour) and keeps
// the newest one for the main thread. The main thread never waits: it
// takes the newest frame when there is one it has not seen.
//
// Pixels as RenderedFrame: BGRA, rows top first, sRGB, straight alpha.
// The small frames are reused, not allocated per frame.

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "render/RenderedFramePool.h"
#include "scene/RenderedFrame.h"

namespace velmora {

class PreviewFrames {
 public:
  // The preview is at most this wide; the factor is the largest integer
  // that gets the frame there.
  static constexpr int maximumWidth = 480;

  // The render thread (one thread): shrinks and keeps the frame.
  void consume(const RenderedFrame& frame);
  // Main thread: the newest frame if it is newer than `seenSequence`.
  std::shared_ptr<const RenderedFrame> newerThan(std::uint64_t seenSequence) const;

  static std::shared_ptr<RenderedFrame> shrink(const RenderedFrame& frame, int factor);
  // The same into `out`, every byte written.
  static void shrinkInto(const RenderedFrame& frame, int factor, RenderedFrame& out);

 private:
  // Three small frames: the newest (kept here), one the main thread may be
  // uploading, one being written on the render thread.
  RenderedFramePool pool_{3};
  mutable std::mutex mutex_;
  std::shared_ptr<const RenderedFrame> latest_;
};

}  // namespace velmora
