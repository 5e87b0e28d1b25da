#pragma once
// Writes frames and other BGRA images as PNG files (RGBA, straight alpha,
// 8 bits per channel). Any thread.

#include <cstdint>
#include <string>
#include <vector>

#include "scene/RenderedFrame.h"

namespace velmora {

class PngWriter {
 public:
  // False with the reason (e.g. the folder does not exist) in *error.
  static bool write(const std::string& path, const RenderedFrame& frame, std::string* error = nullptr);
  static bool writeBGRA(const std::string& path, int width, int height, const std::vector<std::uint8_t>& bgra,
                        std::string* error = nullptr);
};

}  // namespace velmora
