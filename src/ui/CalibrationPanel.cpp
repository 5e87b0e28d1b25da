#include "ui/CalibrationPanel.h"

#include <imgui.h>

#include "ui/CharacterChoices.h"
#include "ui/DashboardContext.h"
#include "stage/CharacterModelType.h"
#include "stage/TrackingDetail.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

namespace {

// A slider over one float property: the setter runs only on a change.
void slider(const char* label, float value, float lo, float hi, const char* format, FaceTrackingState& state,
            void (FaceTrackingState::*set)(float)) {
  if (ImGui::SliderFloat(label, &value, lo, hi, format, ImGuiSliderFlags_AlwaysClamp)) (state.*set)(value);
}

void checkbox(const char* label, bool value, FaceTrackingState& state, void (FaceTrackingState::*set)(bool)) {
  if (ImGui::Checkbox(label, &value)) (state.*set)(value);
}

}  // namespace

void CalibrationPanel::draw() {
  FaceTrackingState& state = context_.state;
  if (ImGui::Button("Recentre")) state.recentreNeutralPose();
  ImGui::SameLine();
  if (ImGui::Button("Reset calibration")) state.resetCalibration();
  ImGui::SameLine();
  if (state.isCalibrated()) {
    ImGui::TextColored(ImVec4(0.4f, 0.9f, 0.5f, 1.0f), "Calibrated");
  } else {
    ImGui::TextDisabled("Not calibrated");
  }

  ImGui::PushItemWidth(-140.0f);
  slider("Smoothing", state.smoothing(), 0.0f, 1.0f, "%.2f", state, &FaceTrackingState::setSmoothing);
  slider("Sensitivity", state.globalSensitivity(), 0.1f, 5.0f, "%.2f", state, &FaceTrackingState::setGlobalSensitivity);
  slider("Mouth", state.mouthSensitivity(), 0.0f, 3.0f, "%.2f", state, &FaceTrackingState::setMouthSensitivity);
  slider("Brows", state.browSensitivity(), 0.0f, 3.0f, "%.2f", state, &FaceTrackingState::setBrowSensitivity);
  slider("Eyes", state.eyeSensitivity(), 0.0f, 3.0f, "%.2f", state, &FaceTrackingState::setEyeSensitivity);
  slider("Rotation scale", state.rotationScale(), 0.0f, 3.0f, "%.2f", state, &FaceTrackingState::setRotationScale);
  slider("Opacity", state.maskOpacity(), 0.0f, 1.0f, "%.2f", state, &FaceTrackingState::setMaskOpacity);
  ImGui::PopItemWidth();

  checkbox("Lock rotation", state.lockRotation(), state, &FaceTrackingState::setLockRotation);
  ImGui::TextDisabled("Keep the sender's sign:");
  checkbox("Up/down", state.reverseUpDown(), state, &FaceTrackingState::setReverseUpDown);
  ImGui::SameLine();
  checkbox("Left/right", state.reverseLeftRight(), state, &FaceTrackingState::setReverseLeftRight);
  ImGui::SameLine();
  checkbox("Tilt", state.reverseTilt(), state, &FaceTrackingState::setReverseTilt);

  ImGui::PushItemWidth(-140.0f);
  CharacterChoices* files = context_.characterFiles;
  const bool fileShown = !state.characterFile().empty();
  std::string current(displayName(state.characterModel()));
  if (files && fileShown)
    for (const auto& e : files->entries())
      if (e.path == state.characterFile()) current = e.name;
  if (ImGui::BeginCombo("Character", current.c_str())) {
    for (const CharacterModelType model : allCases<CharacterModelType>()) {
      const std::string name(displayName(model));
      const bool chosen = model == state.characterModel() && !fileShown;
      if (ImGui::Selectable(name.c_str(), chosen) && !chosen) {
        if (model == state.characterModel())
          state.handleCharacterModelChange();  // back from a file to the same built-in one
        else
          state.setCharacterModel(model);
      }
    }
    if (files) {
      // Name, blendshapes matched of 52, triangles, and the framing rule.
      for (const auto& e : files->entries()) {
        std::string row = e.name + "##" + e.path;
        if (e.reading)
          row = e.name + "  (reading...)##" + e.path;
        else if (!e.error.empty())
          row = e.name + "  (does not read)##" + e.path;
        else if (e.known)
          row = e.name + "  " + std::to_string(e.matchedTargets) + "/52, " + std::to_string(e.triangles) +
                " triangles, " + std::string(CharacterFraming::label(e.framing)) + "##" + e.path;
        if (ImGui::Selectable(row.c_str(), fileShown && e.path == state.characterFile())) files->open(e.path);
        if (!e.error.empty() && ImGui::IsItemHovered()) ImGui::SetTooltip("%s", e.error.c_str());
      }
    }
    ImGui::EndCombo();
  }
  if (files) {
    // "Open...": a path typed or pasted (there is no system file dialog).
    ImGui::InputTextWithHint("##characterPath", "path to a .glb or .gltf file", characterPath_, sizeof characterPath_);
    ImGui::SameLine();
    if (ImGui::Button("Open...") && characterPath_[0] != '\0') files->open(characterPath_);
    if (!state.characterStatus().empty()) ImGui::TextWrapped("%s", state.characterStatus().c_str());
  }
  const std::string detail(label(state.trackingDetail()));
  if (ImGui::BeginCombo("Tracker detail", detail.c_str())) {
    for (const TrackingDetail level : allCases<TrackingDetail>()) {
      const std::string name(label(level));
      if (ImGui::Selectable(name.c_str(), level == state.trackingDetail()) && level != state.trackingDetail()) {
        state.setTrackingDetail(level);
      }
    }
    ImGui::EndCombo();
  }
  ImGui::PopItemWidth();
}

}  // namespace velmora
