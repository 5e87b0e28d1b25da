#pragma once
// A decoded picture for a material: 8-bit RGBA rows, top row first (as PNG
// and JPEG store them, and as glTF's texture coordinates expect: v = 0 is the
// top). Immutable once built and shared by pointer, so a renderer can upload
// it once per GL context and find it again by its identity.

#include <cstdint>
#include <string>
#include <vector>

namespace velmora {

struct TextureImage {
  std::string name;
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgba;  // width * height * 4 bytes
};

}  // namespace velmora
