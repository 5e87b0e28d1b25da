#pragma once
// One finished output frame in main memory.
//
// Pixel convention, the same for every output (PNG files, the video
// publishers, the projector): 8-bit BGRA, rows top first, colour encoded
// sRGB, STRAIGHT (not premultiplied) alpha. A pixel the character does not
// cover is (0, 0, 0, 0); a fully covered pixel has alpha 255; edge and faded
// pixels carry their own colour with partial alpha.

#include <cstdint>
#include <vector>

namespace velmora {

struct RenderedFrame {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> pixels;  // width * height * 4 bytes, B G R A
  double time = 0.0;                 // the frame description's capture time
  std::uint64_t sequence = 0;
  double newestArrival = 0.0;        // the frame description's newestArrival

  int bytesPerRow() const { return width * 4; }
  const std::uint8_t* pixel(int x, int y) const { return pixels.data() + (static_cast<std::size_t>(y) * width + x) * 4; }
};

}  // namespace velmora
