#include "ui/RemoteControlPanel.h"

#include <imgui.h>

#include <cstdio>

#include "ui/DashboardContext.h"
#include "ui/OscPortField.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

RemoteControlPanel::RemoteControlPanel(DashboardContext& context) : context_(context) {
  std::snprintf(portText_, sizeof portText_, "%d", context_.state.oscPort());
}

std::string RemoteControlPanel::applyPort(const std::string& text) {
  const OscPortCheck check = OscPortField::check(text);
  portMessage_ = check.message;
  if (!check.port) return portMessage_;
  context_.state.setOscPort(*check.port);
  if (context_.restartCueServer) context_.restartCueServer();
  return portMessage_;
}

void RemoteControlPanel::draw() {
  FaceTrackingState& state = context_.state;
  bool enabled = state.isOSCEnabled();
  if (ImGui::Checkbox("OSC cues", &enabled)) state.setIsOSCEnabled(enabled);
  ImGui::SameLine();
  ImGui::SetNextItemWidth(80.0f);
  const bool entered = ImGui::InputText("##port", portText_, sizeof portText_,
                                        ImGuiInputTextFlags_CharsDecimal | ImGuiInputTextFlags_EnterReturnsTrue);
  ImGui::SameLine();
  if (ImGui::Button("Apply port") || entered) applyPort(portText_);
  if (!portMessage_.empty()) ImGui::TextColored(ImVec4(1.0f, 0.5f, 0.4f, 1.0f), "%s", portMessage_.c_str());
  ImGui::TextWrapped("%s", state.oscStatus().c_str());
  ImGui::TextDisabled("Last command:");
  ImGui::SameLine();
  ImGui::TextWrapped("%s", state.lastQLabCommand().c_str());
  if (context_.lastOscReply) {
    ImGui::TextDisabled("Last reply:");
    ImGui::SameLine();
    ImGui::TextWrapped("%s", context_.lastOscReply().c_str());
  }
  if (context_.oscSubscribers) {
    const auto subscribers = context_.oscSubscribers();
    ImGui::TextDisabled("Subscribers: %zu", subscribers.size());
    for (const std::string& line : subscribers) ImGui::BulletText("%s", line.c_str());
  }
}

}  // namespace velmora
