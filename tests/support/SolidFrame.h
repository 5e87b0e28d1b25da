#pragma once
// A frame of one flat colour, for tests of the CPU image paths.
#include <cstddef>
#include <cstdint>

#include "scene/RenderedFrame.h"

namespace velmora::test {

inline RenderedFrame solidFrame(int w, int h, std::uint8_t b, std::uint8_t g, std::uint8_t r, std::uint8_t a) {
  RenderedFrame f;
  f.width = w;
  f.height = h;
  f.pixels.resize(static_cast<std::size_t>(w) * h * 4);
  for (std::size_t i = 0; i < f.pixels.size(); i += 4) {
    f.pixels[i] = b;
    f.pixels[i + 1] = g;
    f.pixels[i + 2] = r;
    f.pixels[i + 3] = a;
  }
  return f;
}

}  // namespace velmora::test
