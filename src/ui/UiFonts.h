#pragma once
// The dashboard's fonts: DejaVu Sans at 15 px for everything and 30 px for
// the address the operator types into the phone, with the glyphs the
// catalogue and the status texts use (Latin-1 and general punctuation: en
// dashes, ellipses, the degree sign). Falls back to ImGui's built-in font
// when DejaVu is not installed. Call before the first ImGui frame.

struct ImFont;
struct ImGuiIO;

namespace velmora {

class UiFonts {
 public:
  // Adds both fonts to io's atlas; returns the large one.
  static ImFont* load(ImGuiIO& io);
};

}  // namespace velmora
