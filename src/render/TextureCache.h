#pragma once
// The GPU copies of material pictures, for one GL context, beside the mesh
// cache: every TextureImage is uploaded once (with mipmaps) and found again
// by its identity and colour space; entries whose image has been freed on
// the CPU side are deleted by purgeExpired().
//
// Threads: the render thread, with the owning context current.

#include <cstddef>
#include <map>
#include <memory>
#include <utility>

#include "stage/Material.h"

namespace velmora {

class TextureCache {
 public:
  TextureCache() = default;
  ~TextureCache();
  TextureCache(const TextureCache&) = delete;
  TextureCache& operator=(const TextureCache&) = delete;

  // Binds the texture of `slot` to texture unit `unit` with the slot's
  // sampling (wrap, filter); srgb: the texels are sRGB-encoded colour
  // (decoded to linear by the sampler). False (nothing bound) when the slot
  // has no usable image.
  bool bind(const MaterialTexture& slot, bool srgb, int unit);

  void purgeExpired();

  std::size_t uploadCount() const { return uploads_; }
  // GPU bytes of the live textures, mipmaps included (an estimate: 4/3 of level 0).
  std::size_t bytes() const { return bytes_; }

 private:
  struct Entry {
    std::weak_ptr<const TextureImage> owner;
    unsigned texture = 0;
    std::size_t bytes = 0;
  };
  std::map<std::pair<const void*, bool>, Entry> entries_;
  std::size_t uploads_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace velmora
