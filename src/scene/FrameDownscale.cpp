#include "scene/FrameDownscale.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace velmora {

float FrameDownscale::toLinear(std::uint8_t encoded) {
  // A table: the preview decodes two million values per frame.
  static const std::array<float, 256> table = [] {
    std::array<float, 256> t{};
    for (int v = 0; v < 256; ++v) {
      const float c = static_cast<float>(v) / 255.0f;
      t[static_cast<std::size_t>(v)] = c <= 0.04045f ? c / 12.92f : std::pow((c + 0.055f) / 1.055f, 2.4f);
    }
    return t;
  }();
  return table[encoded];
}

std::uint8_t FrameDownscale::toSRGB(float linear) {
  const float c = std::clamp(linear, 0.0f, 1.0f);
  const float s = c <= 0.0031308f ? c * 12.92f : 1.055f * std::pow(c, 1.0f / 2.4f) - 0.055f;
  return static_cast<std::uint8_t>(std::lround(s * 255.0f));
}

FrameDownscale::LinearPixel FrameDownscale::average(const RenderedFrame& frame, int width, int height, int x, int y) {
  LinearPixel sum;
  if (frame.pixels.size() < static_cast<std::size_t>(frame.width) * frame.height * 4) return sum;
  const int x0 = x * frame.width / width, x1 = std::max(x0 + 1, (x + 1) * frame.width / width);
  const int y0 = y * frame.height / height, y1 = std::max(y0 + 1, (y + 1) * frame.height / height);
  int n = 0;
  for (int sy = y0; sy < std::min(y1, frame.height); ++sy) {
    for (int sx = x0; sx < std::min(x1, frame.width); ++sx) {
      const std::uint8_t* p = frame.pixel(sx, sy);
      const float pa = p[3] / 255.0f;
      sum.b += toLinear(p[0]) * pa;
      sum.g += toLinear(p[1]) * pa;
      sum.r += toLinear(p[2]) * pa;
      sum.a += pa;
      ++n;
    }
  }
  if (n > 0) {
    sum.r /= n;
    sum.g /= n;
    sum.b /= n;
    sum.a /= n;
  }
  return sum;
}

RenderedFrame FrameDownscale::shrink(const RenderedFrame& frame, int width, int height) {
  RenderedFrame out;
  shrinkInto(frame, width, height, out);
  return out;
}

void FrameDownscale::shrinkInto(const RenderedFrame& frame, int width, int height, RenderedFrame& out) {
  out.width = std::max(0, width);
  out.height = std::max(0, height);
  out.time = frame.time;
  out.sequence = frame.sequence;
  out.pixels.assign(static_cast<std::size_t>(out.width) * out.height * 4, 0);  // no allocation once sized
  for (int y = 0; y < out.height; ++y) {
    for (int x = 0; x < out.width; ++x) {
      const LinearPixel p = average(frame, out.width, out.height, x, y);
      const auto alpha = static_cast<std::uint8_t>(std::lround(std::clamp(p.a, 0.0f, 1.0f) * 255.0f));
      if (alpha == 0) continue;
      std::uint8_t* q = out.pixels.data() + (static_cast<std::size_t>(y) * out.width + x) * 4;
      q[0] = toSRGB(p.b / p.a);
      q[1] = toSRGB(p.g / p.a);
      q[2] = toSRGB(p.r / p.a);
      q[3] = alpha;
    }
  }
}

}  // namespace velmora
