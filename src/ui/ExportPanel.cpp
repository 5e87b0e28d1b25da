#include "ui/ExportPanel.h"

#include <imgui.h>

#include <cstdio>
#include <cstdlib>

namespace velmora {

ExportPanel::ExportPanel() {
  const char* home = std::getenv("HOME");
  std::snprintf(folder_, sizeof folder_, "%s/velmora-export", home && *home ? home : ".");
}

bool ExportPanel::start(const std::string& folder) {
  if (progress_->running || folder.empty()) return false;
  progress_->running = true;
  progress_->results = {"Exporting to " + folder + " ..."};
  std::weak_ptr<Progress> weak = progress_;
  CharacterExport::runInBackground(folder, [weak](std::vector<CharacterExport::Outcome> outcomes) {
    auto progress = weak.lock();
    if (!progress) return;
    progress->running = false;
    progress->results.clear();
    for (const auto& outcome : outcomes) progress->results.push_back(CharacterExport::describe(outcome));
  });
  return true;
}

void ExportPanel::draw() {
  const bool busy = progress_->running;
  if (busy) ImGui::BeginDisabled();
  if (ImGui::Button("Export characters...")) ImGui::OpenPopup("Export characters");
  if (busy) ImGui::EndDisabled();
  ImGui::SameLine();
  ImGui::TextDisabled("as glTF (.glb)");
  // The dialog asks where; the export itself starts on "Export".
  if (ImGui::BeginPopupModal("Export characters", nullptr, ImGuiWindowFlags_AlwaysAutoResize)) {
    ImGui::TextUnformatted("Both characters as glTF (.glb) with ARKit-named morph targets, into the folder:");
    ImGui::SetNextItemWidth(420.0f);
    ImGui::InputText("##folder", folder_, sizeof folder_);
    if (ImGui::Button("Export")) {
      start(folder_);
      ImGui::CloseCurrentPopup();
    }
    ImGui::SameLine();
    if (ImGui::Button("Cancel")) ImGui::CloseCurrentPopup();
    ImGui::EndPopup();
  }
  for (const auto& line : progress_->results) ImGui::TextWrapped("%s", line.c_str());
}

}  // namespace velmora
