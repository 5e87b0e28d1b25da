#include "render/PngWriter.h"

#include <cerrno>
#include <cstring>

// The one definition of stb_image_write in the program.
#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#include <stb_image_write.h>
#pragma GCC diagnostic pop

namespace velmora {

bool PngWriter::write(const std::string& path, const RenderedFrame& frame, std::string* error) {
  return writeBGRA(path, frame.width, frame.height, frame.pixels, error);
}

bool PngWriter::writeBGRA(const std::string& path, int width, int height, const std::vector<std::uint8_t>& bgra,
                          std::string* error) {
  if (width <= 0 || height <= 0 || bgra.size() < static_cast<std::size_t>(width) * height * 4) {
    if (error) *error = "PngWriter::write(): " + path + ": empty or short image";
    return false;
  }
  std::vector<std::uint8_t> rgba(bgra.begin(), bgra.begin() + static_cast<std::ptrdiff_t>(width) * height * 4);
  for (std::size_t i = 0; i < rgba.size(); i += 4) std::swap(rgba[i], rgba[i + 2]);
  errno = 0;
  if (!stbi_write_png(path.c_str(), width, height, 4, rgba.data(), width * 4)) {
    if (error) *error = "PngWriter::write(): cannot write " + path + (errno ? std::string(": ") + std::strerror(errno) : "");
    return false;
  }
  return true;
}

}  // namespace velmora
