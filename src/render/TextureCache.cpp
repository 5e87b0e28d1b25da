#include "render/TextureCache.h"

#include <epoxy/gl.h>

namespace velmora {

TextureCache::~TextureCache() {
  for (auto& [key, e] : entries_) glDeleteTextures(1, &e.texture);
}

bool TextureCache::bind(const MaterialTexture& slot, bool srgb, int unit) {
  const auto& image = slot.image;
  if (!image || image->width <= 0 || image->height <= 0 ||
      image->rgba.size() < static_cast<std::size_t>(image->width) * static_cast<std::size_t>(image->height) * 4)
    return false;
  const auto key = std::make_pair(static_cast<const void*>(image.get()), srgb);
  auto it = entries_.find(key);
  // A live entry at this address is this very image; an expired one is a
  // freed image whose address was reused.
  if (it != entries_.end() && it->second.owner.expired()) {
    glDeleteTextures(1, &it->second.texture);
    bytes_ -= it->second.bytes;
    entries_.erase(it);
    it = entries_.end();
  }
  glActiveTexture(GL_TEXTURE0 + static_cast<GLenum>(unit));
  if (it == entries_.end()) {
    Entry e;
    e.owner = image;
    glGenTextures(1, &e.texture);
    glBindTexture(GL_TEXTURE_2D, e.texture);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 4);
    // Rows top first, as glTF's v = 0 is the top row: uploaded unflipped,
    // texture coordinates read them as they are.
    glTexImage2D(GL_TEXTURE_2D, 0, srgb ? GL_SRGB8_ALPHA8 : GL_RGBA8, image->width, image->height, 0, GL_RGBA,
                 GL_UNSIGNED_BYTE, image->rgba.data());
    glGenerateMipmap(GL_TEXTURE_2D);
    e.bytes = image->rgba.size() * 4 / 3;
    bytes_ += e.bytes;
    ++uploads_;
    it = entries_.emplace(key, e).first;
  } else {
    glBindTexture(GL_TEXTURE_2D, it->second.texture);
  }
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, slot.clampS ? GL_CLAMP_TO_EDGE : GL_REPEAT);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, slot.clampT ? GL_CLAMP_TO_EDGE : GL_REPEAT);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, slot.nearest ? GL_NEAREST : GL_LINEAR);
  glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR_MIPMAP_LINEAR);
  return true;
}

void TextureCache::purgeExpired() {
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (!it->second.owner.expired()) {
      ++it;
      continue;
    }
    glDeleteTextures(1, &it->second.texture);
    bytes_ -= it->second.bytes;
    it = entries_.erase(it);
  }
}

}  // namespace velmora
