#include "ui/OutputsPanel.h"

#include <imgui.h>

#include "ui/DashboardContext.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

void OutputsPanel::draw() {
  FaceTrackingState& state = context_.state;
  bool syphon = state.isSyphonActive();
  if (ImGui::Checkbox("Syphon (PipeWire \"Velmora\")", &syphon)) state.setIsSyphonActive(syphon);
  ImGui::TextDisabled("  %s", state.syphonStatus().c_str());
  bool ndi = state.isNDIActive();
  if (ImGui::Checkbox("NDI", &ndi)) state.setIsNDIActive(ndi);
  ImGui::TextDisabled("  %s", state.ndiStatus().c_str());

  bool projector = state.isProjectorFullscreen();
  const bool available = static_cast<bool>(context_.toggleProjector);
  if (!available) ImGui::BeginDisabled();
  if (ImGui::Checkbox("Projector (Ctrl+P)", &projector) && context_.toggleProjector) context_.toggleProjector();
  if (!available) ImGui::EndDisabled();
  const std::string monitor = context_.projectorMonitor ? context_.projectorMonitor() : std::string();
  if (state.isProjectorFullscreen()) {
    ImGui::TextDisabled("  open on '%s'", monitor.c_str());
  } else {
    ImGui::TextDisabled("  closed");
  }
}

}  // namespace velmora
