#pragma once
// A RenderedFrame (BGRA, rows top first, straight alpha) as a GL texture:
// the dashboard's preview and the projector window both show frames so.
// Linear filtering, edges clamped. Re-specified when the size changes,
// otherwise updated in place.
//
// Threads: whichever thread has the texture's context current; construct,
// upload and destroy with the same context current.

#include "scene/RenderedFrame.h"

namespace velmora {

class FrameTexture {
 public:
  FrameTexture() = default;
  ~FrameTexture();
  FrameTexture(const FrameTexture&) = delete;
  FrameTexture& operator=(const FrameTexture&) = delete;

  // Creates the texture on first use; an empty frame changes nothing.
  void upload(const RenderedFrame& frame);
  // The GL texture name; 0 before the first upload.
  unsigned name() const { return texture_; }
  int width() const { return width_; }
  int height() const { return height_; }

 private:
  unsigned texture_ = 0;
  int width_ = 0, height_ = 0;
};

}  // namespace velmora
