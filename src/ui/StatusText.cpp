#include "ui/StatusText.h"

#include <imgui.h>

namespace velmora {

void StatusText::dimmed(const std::string& text) {
  coloured(ImGui::GetStyleColorVec4(ImGuiCol_TextDisabled), text);
}

void StatusText::coloured(const ImVec4& colour, const std::string& text) {
  ImGui::PushStyleColor(ImGuiCol_Text, colour);
  // "%s": a status may hold a '%' of its own.
  ImGui::TextWrapped("%s", text.c_str());
  ImGui::PopStyleColor();
}

}  // namespace velmora
