#pragma once
// stb_image for the tests that read PNGs back (snapshots, consumer frames,
// screenshots). Compiled static into each test file that includes it, so
// several files of one test program can each have it; loadPicture() too.
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wsign-compare"
#pragma GCC diagnostic ignored "-Wunused-function"
#include <stb/stb_image.h>
#pragma GCC diagnostic pop

#include <cstddef>
#include <string>
#include <vector>

namespace velmora::test {
namespace {

// A picture read back as RGBA rows, top row first; width 0 when unreadable.
struct Picture {
  int width = 0, height = 0;
  std::vector<unsigned char> rgba;
  const unsigned char* at(int x, int y) const { return &rgba[(static_cast<std::size_t>(y) * width + x) * 4]; }
  int alpha(int x, int y) const { return at(x, y)[3]; }
  // Pixels in [x0, x1) x [y0, y1) for which pred(r, g, b, a) holds.
  template <class Pred>
  std::size_t count(int x0, int y0, int x1, int y1, Pred pred) const {
    std::size_t n = 0;
    for (int y = y0; y < y1; ++y)
      for (int x = x0; x < x1; ++x) n += pred(at(x, y)[0], at(x, y)[1], at(x, y)[2], at(x, y)[3]) ? 1 : 0;
    return n;
  }
};

inline Picture loadPicture(const std::string& path) {
  Picture picture;
  int channels = 0;
  stbi_uc* data = stbi_load(path.c_str(), &picture.width, &picture.height, &channels, 4);
  if (!data) return {};
  picture.rgba.assign(data, data + static_cast<std::size_t>(picture.width) * picture.height * 4);
  stbi_image_free(data);
  return picture;
}

}  // namespace
}  // namespace velmora::test
