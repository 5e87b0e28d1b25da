#pragma once
// A status or error line in a dashboard column: wrapped at the column's
// right edge, never clipped, so the whole reason ("Syphon: PipeWire video
// source could not be created (is PipeWire running?)") is readable however
// narrow the column. Main thread, inside an ImGui window.

#include <string>

struct ImVec4;

namespace velmora {

class StatusText {
 public:
  StatusText() = delete;

  // In the style's dimmed text colour.
  static void dimmed(const std::string& text);
  // In the given colour (warnings, errors).
  static void coloured(const ImVec4& colour, const std::string& text);
};

}  // namespace velmora
