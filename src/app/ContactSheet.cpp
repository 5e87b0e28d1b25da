#include "app/ContactSheet.h"

#include <algorithm>

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wsign-compare"
#include <stb_easy_font.h>
#pragma GCC diagnostic pop

#include "scene/FrameDownscale.h"

namespace velmora {

ContactSheet::ContactSheet(int columns, int tileWidth, int tileHeight)
    : columns_(std::max(1, columns)), tileWidth_(std::max(1, tileWidth)), tileHeight_(std::max(1, tileHeight)) {}

void ContactSheet::add(const RenderedFrame& frame, const std::string& label) {
  Tile tile;
  tile.label = label;
  tile.bgra.resize(static_cast<std::size_t>(tileWidth_) * tileHeight_ * 4);
  const int tw = tileWidth_, th = tileHeight_;
  for (int y = 0; y < th; ++y)
    for (int x = 0; x < tw; ++x) {
      const FrameDownscale::LinearPixel p = FrameDownscale::average(frame, tw, th, x, y);
      // Over an 8-pixel checkerboard of light and mid grey.
      const float check = ((x / 8 + y / 8) % 2) ? FrameDownscale::toLinear(200) : FrameDownscale::toLinear(140);
      std::uint8_t* out = tile.bgra.data() + (static_cast<std::size_t>(y) * tw + x) * 4;
      out[0] = FrameDownscale::toSRGB(p.b + check * (1 - p.a));
      out[1] = FrameDownscale::toSRGB(p.g + check * (1 - p.a));
      out[2] = FrameDownscale::toSRGB(p.r + check * (1 - p.a));
      out[3] = 255;
    }
  tiles_.push_back(std::move(tile));
}

RenderedFrame ContactSheet::compose() const {
  RenderedFrame sheet;
  const int cellW = tileWidth_ + margin, cellH = tileHeight_ + labelHeight + margin;
  const int rows = std::max(1, static_cast<int>((tiles_.size() + columns_ - 1) / columns_));
  sheet.width = columns_ * cellW + margin;
  sheet.height = rows * cellH + margin;
  sheet.pixels.assign(static_cast<std::size_t>(sheet.width) * sheet.height * 4, 0);
  for (std::size_t i = 0; i < sheet.pixels.size(); i += 4) {
    sheet.pixels[i] = sheet.pixels[i + 1] = sheet.pixels[i + 2] = 40;  // dark grey
    sheet.pixels[i + 3] = 255;
  }
  auto fill = [&](int x0, int y0, int x1, int y1, std::uint8_t v) {
    for (int y = std::max(0, y0); y < std::min(sheet.height, y1); ++y)
      for (int x = std::max(0, x0); x < std::min(sheet.width, x1); ++x) {
        std::uint8_t* p = sheet.pixels.data() + (static_cast<std::size_t>(y) * sheet.width + x) * 4;
        p[0] = p[1] = p[2] = v;
      }
  };
  std::vector<char> quads(60000);  // room for ~900 quads
  for (std::size_t i = 0; i < tiles_.size(); ++i) {
    const int cx = margin + static_cast<int>(i % columns_) * cellW;
    const int cy = margin + static_cast<int>(i / columns_) * cellH;
    for (int y = 0; y < tileHeight_; ++y)
      std::copy_n(tiles_[i].bgra.data() + static_cast<std::size_t>(y) * tileWidth_ * 4, tileWidth_ * 4,
                  sheet.pixels.data() + (static_cast<std::size_t>(cy + y) * sheet.width + cx) * 4);
    // The label in stb_easy_font's quads, drawn at twice its 7-pixel size
    // and cut at the tile's width.
    std::string text = tiles_[i].label;
    const int scale = 2;
    while (!text.empty() && stb_easy_font_width(text.data()) * scale > tileWidth_) text.pop_back();
    const int quadCount = stb_easy_font_print(0, 0, text.data(), nullptr, quads.data(), static_cast<int>(quads.size()));
    for (int q = 0; q < quadCount; ++q) {
      const float* v = reinterpret_cast<const float*>(quads.data() + q * 4 * 16);
      const float qx0 = v[0], qy0 = v[1], qx1 = v[8], qy1 = v[9];
      fill(cx + static_cast<int>(qx0 * scale), cy + tileHeight_ + 4 + static_cast<int>(qy0 * scale),
           cx + static_cast<int>(qx1 * scale), cy + tileHeight_ + 4 + static_cast<int>(qy1 * scale), 235);
    }
  }
  return sheet;
}

}  // namespace velmora
