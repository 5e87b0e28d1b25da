#include "ui/OSCCommandsWindow.h"

#include <imgui.h>

#include "ui/DashboardContext.h"
#include "ui/OSCCommandsText.h"
#include "control/OSCCommandCatalog.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

void OSCCommandsWindow::copyAsText() {
  if (context_.setClipboard) context_.setClipboard(OSCCommandsText::build(context_.state.oscPort()));
}

void OSCCommandsWindow::draw() {
  if (!context_.showOSCCommands) {
    wasShown_ = false;
    return;
  }
  const ImGuiViewport* viewport = ImGui::GetMainViewport();
  ImGui::SetNextWindowPos(ImVec2(viewport->WorkPos.x + viewport->WorkSize.x * 0.5f,
                                 viewport->WorkPos.y + viewport->WorkSize.y * 0.5f),
                          ImGuiCond_Appearing, ImVec2(0.5f, 0.5f));
  ImGui::SetNextWindowSize(ImVec2(viewport->WorkSize.x * 0.8f, viewport->WorkSize.y * 0.85f), ImGuiCond_Appearing);
  if (!wasShown_) ImGui::SetNextWindowFocus();  // in front when it appears, not every frame
  wasShown_ = true;
  if (!ImGui::Begin(title, &context_.showOSCCommands, ImGuiWindowFlags_NoCollapse)) {
    ImGui::End();
    return;
  }
  ImGui::Text("Send to UDP port %d on %s. Addresses match in any letter case.", context_.state.oscPort(),
              context_.state.localIP().c_str());
  ImGui::SameLine();
  if (ImGui::Button("Copy as text")) copyAsText();
  ImGui::Separator();
  ImGui::BeginChild("commands");
  for (const std::string& group : OSCCommandCatalog::groups()) {
    if (!ImGui::CollapsingHeader(group.c_str(), ImGuiTreeNodeFlags_DefaultOpen)) continue;
    const ImGuiTableFlags flags = ImGuiTableFlags_RowBg | ImGuiTableFlags_BordersInnerV | ImGuiTableFlags_Resizable;
    if (!ImGui::BeginTable(group.c_str(), 4, flags)) continue;
    ImGui::TableSetupColumn("Address", ImGuiTableColumnFlags_WidthStretch, 0.22f);
    ImGui::TableSetupColumn("Aliases", ImGuiTableColumnFlags_WidthStretch, 0.26f);
    ImGui::TableSetupColumn("Argument", ImGuiTableColumnFlags_WidthStretch, 0.17f);
    ImGui::TableSetupColumn("Summary", ImGuiTableColumnFlags_WidthStretch, 0.35f);
    ImGui::TableHeadersRow();
    for (const OSCCommand* command : OSCCommandCatalog::commands(group)) {
      ImGui::TableNextRow();
      ImGui::TableNextColumn();
      ImGui::TextUnformatted(command->address.c_str());
      ImGui::TableNextColumn();
      std::string aliases;
      for (const auto& alias : command->aliases) aliases += (aliases.empty() ? "" : ", ") + alias;
      ImGui::TextWrapped("%s", aliases.c_str());
      ImGui::TableNextColumn();
      ImGui::TextWrapped("%s", command->arguments.c_str());
      ImGui::TableNextColumn();
      ImGui::TextWrapped("%s", command->summary.c_str());
    }
    ImGui::EndTable();
  }
  ImGui::EndChild();
  ImGui::End();
}

}  // namespace velmora
