#include "render/FrameTexture.h"

#include <epoxy/gl.h>

namespace velmora {

FrameTexture::~FrameTexture() {
  if (texture_) glDeleteTextures(1, &texture_);
}

void FrameTexture::upload(const RenderedFrame& frame) {
  if (frame.width <= 0 || frame.height <= 0) return;
  if (!texture_) {
    glGenTextures(1, &texture_);
    glBindTexture(GL_TEXTURE_2D, texture_);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
    glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
  }
  glBindTexture(GL_TEXTURE_2D, texture_);
  glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
  glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
  if (frame.width != width_ || frame.height != height_) {
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, frame.width, frame.height, 0, GL_BGRA, GL_UNSIGNED_BYTE,
                 frame.pixels.data());
    width_ = frame.width;
    height_ = frame.height;
  } else {
    glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, frame.width, frame.height, GL_BGRA, GL_UNSIGNED_BYTE,
                    frame.pixels.data());
  }
  glBindTexture(GL_TEXTURE_2D, 0);
}

}  // namespace velmora
