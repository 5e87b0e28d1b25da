#include "ui/UiFonts.h"

#include <imgui.h>

#include <filesystem>

namespace velmora {

namespace {
const char* const kUiFont = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
}  // namespace

ImFont* UiFonts::load(ImGuiIO& io) {
  static const ImWchar ranges[] = {0x0020, 0x00FF, 0x2000, 0x206F, 0};
  ImFont* large = nullptr;
  if (std::filesystem::exists(kUiFont)) {
    io.Fonts->AddFontFromFileTTF(kUiFont, 15.0f, nullptr, ranges);
    large = io.Fonts->AddFontFromFileTTF(kUiFont, 30.0f, nullptr, ranges);
  }
  if (!large) {
    io.Fonts->Clear();
    io.Fonts->AddFontDefault();
    ImFontConfig config;
    config.SizePixels = 26.0f;
    large = io.Fonts->AddFontDefault(&config);
  }
  return large;
}

}  // namespace velmora
