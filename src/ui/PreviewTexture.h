#pragma once
// The preview frame as a GL texture in the main window's context, for
// ImGui::Image. Uploads only when a newer frame is handed in (a few times a
// second on software GL; the frames are small). Main thread, with the main
// window's context current.

#include <cstdint>

#include "scene/RenderedFrame.h"

namespace velmora {

class PreviewTexture {
 public:
  PreviewTexture() = default;
  ~PreviewTexture();
  PreviewTexture(const PreviewTexture&) = delete;
  PreviewTexture& operator=(const PreviewTexture&) = delete;

  void upload(const RenderedFrame& frame);
  // The GL texture name as ImGui's texture id; 0 before the first frame.
  void* imguiTexture() const;
  int width() const { return width_; }
  int height() const { return height_; }

 private:
  unsigned int texture_ = 0;
  int width_ = 0, height_ = 0;
};

}  // namespace velmora
