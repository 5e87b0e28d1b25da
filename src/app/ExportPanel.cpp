#include "app/ExportPanel.h"

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
  ImGui::TextDisabled("Both characters as glTF (.glb) with ARKit-named morph targets");
  ImGui::SetNextItemWidth(-1.0f);
  ImGui::InputText("##folder", folder_, sizeof folder_);
  const bool busy = progress_->running;
  if (busy) ImGui::BeginDisabled();
  if (ImGui::Button("Export characters")) start(folder_);
  if (busy) ImGui::EndDisabled();
  for (const auto& line : progress_->results) ImGui::TextWrapped("%s", line.c_str());
}

}  // namespace velmora
