#pragma once
// Box-filtering a RenderedFrame to a smaller size, averaged in LINEAR LIGHT
// with colour premultiplied by alpha: sRGB values are decoded before they
// are summed (averaging encoded values darkens edges and fine detail), and
// a transparent pixel's (0, 0, 0) does not darken the colour beside it.
// The dashboard's preview and the snapshot's contact sheet both shrink
// frames here. Pure functions; any thread.

#include <cstdint>

#include "scene/RenderedFrame.h"

namespace velmora {

class FrameDownscale {
 public:
  // Linear-light colour premultiplied by alpha, and alpha; each 0..1.
  struct LinearPixel {
    float b = 0, g = 0, r = 0, a = 0;
  };

  // The source pixels under pixel (x, y) of a width x height result,
  // averaged (any source size: each output pixel covers at least one source
  // pixel). A frame without pixels gives (0, 0, 0, 0).
  static LinearPixel average(const RenderedFrame& frame, int width, int height, int x, int y);
  // The frame at width x height, back in sRGB with straight alpha, time and
  // sequence kept. A frame whose pixels are missing gives transparent pixels.
  static RenderedFrame shrink(const RenderedFrame& frame, int width, int height);
  // The same into `out`, whose pixel memory is reused when it is big enough.
  static void shrinkInto(const RenderedFrame& frame, int width, int height, RenderedFrame& out);

  // sRGB encoding <-> linear light, 0..1.
  static float toLinear(std::uint8_t encoded);
  static std::uint8_t toSRGB(float linear);
};

}  // namespace velmora
