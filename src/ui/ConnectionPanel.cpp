#include "ui/ConnectionPanel.h"

#include <imgui.h>

#include <chrono>
#include <cstdio>

#include "ui/DashboardContext.h"
#include "ui/StatusText.h"
#include "tracking/FaceTrackingState.h"
#include "tracking/TrackingLossEase.h"

namespace velmora {

std::string ConnectionPanel::ageText(std::optional<WallTime> last, WallTime now) {
  if (!last) return "never";
  const double seconds = std::max(0.0, std::chrono::duration<double>(now - *last).count());
  char text[64];
  if (seconds < 10.0) {
    std::snprintf(text, sizeof text, "%.1f s ago", seconds);
  } else if (seconds < 120.0) {
    std::snprintf(text, sizeof text, "%.0f s ago", seconds);
  } else if (seconds < 7200.0) {
    std::snprintf(text, sizeof text, "%.0f min ago", seconds / 60.0);
  } else {
    std::snprintf(text, sizeof text, "%.0f h ago", seconds / 3600.0);
  }
  return text;
}

void ConnectionPanel::draw(ImFont* largeFont) {
  const FaceTrackingState& state = context_.state;
  ImGui::TextDisabled("Enter this address in the phone's tracking app:");
  if (largeFont) ImGui::PushFont(largeFont);
  ImGui::TextUnformatted(state.localIP().c_str());
  if (largeFont) ImGui::PopFont();
  ImGui::SameLine();
  if (ImGui::SmallButton("Copy##address") && context_.setClipboard) context_.setClipboard(state.localIP());

  std::string ports;
  if (context_.trackingPorts) {
    for (const auto port : context_.trackingPorts()) ports += (ports.empty() ? "" : ", ") + std::to_string(port);
  }
  ImGui::Text("Tracking: UDP %s", ports.empty() ? "-" : ports.c_str());
  ImGui::Text("OSC cues: UDP %d", state.oscPort());
  ImGui::Separator();

  if (!state.isConnected()) {
    ImGui::TextColored(ImVec4(1.0f, 0.8f, 0.3f, 1.0f), "%s", state.senderIP().c_str());
  } else {
    const auto now = wallNow();
    const bool silent = state.lastPacketTimestamp() &&
                        std::chrono::duration<double>(now - *state.lastPacketTimestamp()).count() > silentAfterSeconds;
    if (state.senderApp().empty()) {
      ImGui::Text("Sender: %s", state.senderIP().c_str());
    } else {
      ImGui::Text("Sender: %s (%s)", state.senderIP().c_str(), state.senderApp().c_str());
    }
    ImGui::Text("%.1f packets/s, %llu received", state.incomingFPS(),
                static_cast<unsigned long long>(state.totalPacketsReceived()));
    const std::string age = ageText(state.lastPacketTimestamp(), now);
    if (state.isTrackingLost()) {
      // The character is easing to neutral until packets come back.
      const auto since = state.trackingLostSince().value_or(now);
      const std::string lost = TrackingLossEase::lostText(std::chrono::duration<double>(now - since).count());
      StatusText::coloured(ImVec4(1.0f, 0.45f, 0.35f, 1.0f), lost);
    } else if (silent) {
      ImGui::TextColored(ImVec4(1.0f, 0.45f, 0.35f, 1.0f), "Last packet %s (phone silent)", age.c_str());
    } else {
      ImGui::Text("Last packet %s", age.c_str());
    }
  }
  drawPhone();
  // The outputs publish it once frames holding tracked data reach them (0 until then).
  if (state.outputLatencyP50() > 0.0) {
    ImGui::Text("Latency to output: %.0f ms (p99 %.0f ms)", state.outputLatencyP50(), state.outputLatencyP99());
  } else {
    ImGui::TextDisabled("Latency to output: not measured yet");
  }
}

void ConnectionPanel::drawPhone() {
  FaceTrackingState& state = context_.state;
  static constexpr const char* apps[] = {"iFacialMocap", "VTube Studio"};
  if (!phoneFieldsLoaded_) {
    std::snprintf(phoneAddress_, sizeof phoneAddress_, "%s", state.phoneAddress().c_str());
    phoneApp_ = state.phoneApp() == apps[1] ? 1 : 0;
    phoneFieldsLoaded_ = true;
  }
  ImGui::Separator();
  StatusText::dimmed("Apps that send only when asked: the phone's address");
  ImGui::SetNextItemWidth(160.0f);
  const bool entered =
      ImGui::InputText("##phone", phoneAddress_, sizeof phoneAddress_, ImGuiInputTextFlags_EnterReturnsTrue);
  ImGui::SameLine();
  ImGui::SetNextItemWidth(120.0f);
  ImGui::Combo("##phoneapp", &phoneApp_, apps, 2);
  ImGui::SameLine();
  if (ImGui::SmallButton("Connect##phone") || entered) {
    state.setPhoneApp(apps[phoneApp_]);
    state.setPhoneAddress(phoneAddress_);
  }
  ImGui::TextUnformatted(state.phoneStatus().c_str());
}

}  // namespace velmora
