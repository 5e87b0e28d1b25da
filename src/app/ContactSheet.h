#pragma once
// A grid of small, labelled versions of rendered frames on a checkerboard,
// so that transparency shows. Straight-alpha BGRA in, opaque BGRA out.
// Any thread.

#include <cstdint>
#include <string>
#include <vector>

#include "scene/RenderedFrame.h"

namespace velmora {

class ContactSheet {
 public:
  // Each cell: a thumbnail of tileWidth x tileHeight and a label strip below.
  ContactSheet(int columns, int tileWidth, int tileHeight);

  // Box-filters the frame down to the tile size (FrameDownscale, linear
  // light; any source size works) and composites it over the checkerboard.
  void add(const RenderedFrame& frame, const std::string& label);
  std::size_t count() const { return tiles_.size(); }

  // The sheet as one frame (alpha 255 everywhere).
  RenderedFrame compose() const;

  static constexpr int labelHeight = 22;
  static constexpr int margin = 6;

 private:
  struct Tile {
    std::vector<std::uint8_t> bgra;  // tileWidth x tileHeight, opaque
    std::string label;
  };
  int columns_, tileWidth_, tileHeight_;
  std::vector<Tile> tiles_;
};

}  // namespace velmora
