#include "ui/SafetyPanel.h"

#include <imgui.h>

#include <cstdio>
#include <cstring>

#include "tracking/FaceTrackingState.h"
#include "tracking/TrackingLossEase.h"
#include "ui/DashboardContext.h"
#include "ui/ShowSafetyControls.h"

namespace velmora {

namespace {

void copyInto(char* buffer, std::size_t size, const std::string& text) {
  std::snprintf(buffer, size, "%s", text.c_str());
}

const ImVec4 kWarning(1.0f, 0.45f, 0.35f, 1.0f);

}  // namespace

SafetyPanel::SafetyPanel(DashboardContext& context) : context_(context) {
  if (context_.safety) copyInto(recordFile_, sizeof recordFile_, context_.safety->defaultRecordingFile());
}

std::vector<std::string> SafetyPanel::splitLines(const std::string& text) {
  std::vector<std::string> out;
  std::size_t start = 0;
  while (start <= text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    const auto first = line.find_first_not_of(" \t\r");
    const auto last = line.find_last_not_of(" \t\r");
    if (first != std::string::npos) out.push_back(line.substr(first, last - first + 1));
    start = end + 1;
  }
  return out;
}

std::string SafetyPanel::joinLines(const std::vector<std::string>& entries) {
  std::string text;
  for (const auto& e : entries) text += (text.empty() ? "" : "\n") + e;
  return text;
}

void SafetyPanel::applyRelayTargets(const std::string& text) { context_.state.setRelayTargets(splitLines(text)); }

void SafetyPanel::applyTrackingAllowed(const std::string& text) {
  context_.state.setTrackingAllowedSenders(splitLines(text));
}

void SafetyPanel::applyOscAllowed(const std::string& text) { context_.state.setOscAllowedSenders(splitLines(text)); }

void SafetyPanel::draw() {
  if (!loaded_) {
    const FaceTrackingState& state = context_.state;
    copyInto(relayText_, sizeof relayText_, joinLines(state.relayTargets()));
    copyInto(trackingAllowedText_, sizeof trackingAllowedText_, joinLines(state.trackingAllowedSenders()));
    copyInto(oscAllowedText_, sizeof oscAllowedText_, joinLines(state.oscAllowedSenders()));
    copyInto(trackingBind_, sizeof trackingBind_, state.trackingBindAddress());
    copyInto(oscBind_, sizeof oscBind_, state.oscBindAddress());
    loaded_ = true;
  }
  drawRecording();
  ImGui::Separator();
  drawTrackingLoss();
  ImGui::Separator();
  drawRelay();
  ImGui::Separator();
  drawTrustedSenders();
}

void SafetyPanel::drawRecording() {
  ShowSafetyControls* safety = context_.safety;
  if (!safety) {
    ImGui::TextDisabled("Recording is not available here");
    return;
  }
  const bool recording = safety->isRecording();
  ImGui::SetNextItemWidth(-110.0f);
  ImGui::InputText("##recordfile", recordFile_, sizeof recordFile_,
                   recording ? ImGuiInputTextFlags_ReadOnly : ImGuiInputTextFlags_None);
  ImGui::SameLine();
  if (recording) {
    if (ImGui::Button("Stop recording")) safety->stopRecording();
  } else if (ImGui::Button("Record")) {
    if (std::strlen(recordFile_) == 0) copyInto(recordFile_, sizeof recordFile_, safety->defaultRecordingFile());
    safety->startRecording(recordFile_);
  }
  const std::string status = safety->recordingStatus();
  if (status.rfind("Recording stopped", 0) == 0 || status.rfind("Not recording:", 0) == 0) {
    ImGui::TextColored(kWarning, "%s", status.c_str());
  } else {
    ImGui::TextWrapped("%s", status.c_str());
  }
}

void SafetyPanel::drawTrackingLoss() {
  FaceTrackingState& state = context_.state;
  float timeout = static_cast<float>(state.trackingTimeout());
  ImGui::SetNextItemWidth(160.0f);
  if (ImGui::SliderFloat("Ease to neutral after (s)", &timeout, 0.0f, 5.0f, timeout == 0.0f ? "off" : "%.1f s")) {
    state.setTrackingTimeout(static_cast<double>(timeout));
  }
  if (state.isTrackingLost()) {
    const auto since = state.trackingLostSince().value_or(wallNow());
    const std::string text = TrackingLossEase::lostText(std::chrono::duration<double>(wallNow() - since).count());
    ImGui::TextColored(kWarning, "%s", text.c_str());
  }
}

void SafetyPanel::drawRelay() {
  ImGui::TextWrapped("Relay the phone's stream to (host:port, one per line):");
  ImGui::InputTextMultiline("##relay", relayText_, sizeof relayText_, ImVec2(-1.0f, ImGui::GetTextLineHeight() * 3.5f));
  if (ImGui::SmallButton("Apply##relay")) applyRelayTargets(relayText_);
  if (context_.safety) {
    for (const std::string& line : context_.safety->relayStatus()) {
      const bool bad = line.find(": error:") != std::string::npos || line.find(": refused:") != std::string::npos ||
                       line.find(": malformed:") != std::string::npos;
      if (bad) {
        ImGui::TextColored(kWarning, "%s", line.c_str());
      } else {
        ImGui::TextUnformatted(line.c_str());
      }
    }
  }
}

void SafetyPanel::drawTrustedSenders() {
  ShowSafetyControls* safety = context_.safety;
  auto block = [safety](const char* title, char* list, std::size_t listSize, char* bind, std::size_t bindSize,
                  std::uint64_t refused, auto&& applyList, auto&& applyBind) {
    ImGui::PushID(title);
    ImGui::TextWrapped("%s from (addresses or CIDR blocks, one per line; empty: everyone):", title);
    ImGui::InputTextMultiline("##list", list, listSize, ImVec2(-1.0f, ImGui::GetTextLineHeight() * 3.0f));
    if (safety) {
      for (const std::string& m : safety->malformedSenders(splitLines(list))) {
        ImGui::TextColored(kWarning, "Skipped %s", m.c_str());
      }
    }
    if (ImGui::SmallButton("Apply list")) applyList();
    ImGui::SameLine();
    ImGui::Text("%llu refused", static_cast<unsigned long long>(refused));
    ImGui::SetNextItemWidth(140.0f);
    ImGui::InputText("Listen on", bind, bindSize);
    ImGui::SameLine();
    if (ImGui::SmallButton("Apply address")) applyBind();
    if (safety && !safety->isBindAddress(bind)) {
      ImGui::TextColored(kWarning, "Not an IPv4 address");
    } else if (bind[0] == 0) {
      ImGui::TextDisabled("(empty: every interface)");
    }
    ImGui::PopID();
  };
  FaceTrackingState& state = context_.state;
  block("Tracking", trackingAllowedText_, sizeof trackingAllowedText_, trackingBind_, sizeof trackingBind_,
        safety ? safety->refusedTracking() : 0, [&] { applyTrackingAllowed(trackingAllowedText_); },
        [&] { state.setTrackingBindAddress(trackingBind_); });
  ImGui::Spacing();
  block("OSC cues", oscAllowedText_, sizeof oscAllowedText_, oscBind_, sizeof oscBind_,
        safety ? safety->refusedOsc() : 0, [&] { applyOscAllowed(oscAllowedText_); },
        [&] { state.setOscBindAddress(oscBind_); });
}

}  // namespace velmora
