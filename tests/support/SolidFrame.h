#pragma once
// A frame of one flat colour, for tests of the CPU image paths.
#include <cstdint>

#include "scene/RenderedFrame.h"

namespace velmora::test {

inline RenderedFrame solidFrame(int w, int h, std::uint8_t b, std::uint8_t g, std::uint8_t r, std::uint8_t a) {
  RenderedFrame f;
  f.width = w;
  f.height = h;
  for (int i = 0; i < w * h; ++i) f.pixels.insert(f.pixels.end(), {b, g, r, a});
  return f;
}

}  // namespace velmora::test
