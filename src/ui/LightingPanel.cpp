#include "ui/LightingPanel.h"

#include <imgui.h>

#include <algorithm>

#include "ui/DashboardContext.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

const std::vector<LightingPanel::Control>& LightingPanel::controls() {
  static const std::vector<Control> table = {
      {"Key", &LightingSettings::key, 0.0, 3.0},
      {"Fill", &LightingSettings::fill, 0.0, 3.0},
      {"Rim", &LightingSettings::rim, 0.0, 3.0},
      {"Ambient", &LightingSettings::ambient, 0.0, 3.0},
      {"Key height (m)", &LightingSettings::keyHeight, -3.0, 3.0},
      {"Key side (m)", &LightingSettings::keySide, -3.0, 3.0},
      {"Warmth", &LightingSettings::warmth, -1.0, 1.0},
      {"Shadow", &LightingSettings::shadow, 0.0, 1.0},
  };
  return table;
}

void LightingPanel::choosePreset(std::size_t index) {
  const auto& presets = LightingSettings::presets();
  if (index < presets.size()) context_.state.setLighting(presets[index]);
}

void LightingPanel::setField(double LightingSettings::*field, double value) {
  for (const Control& control : controls()) {
    if (control.field == field) value = std::clamp(value, control.lo, control.hi);
  }
  LightingSettings edited = context_.state.lighting();
  edited.*field = value;
  edited.preset = LightingSettings::customName;
  context_.state.setLighting(std::move(edited));
}

void LightingPanel::setMaster(float value) {
  context_.state.setLightIntensity(std::clamp(value, 0.0f, masterMaximum));
}

void LightingPanel::draw() {
  const LightingSettings lighting = context_.state.lighting();  // a copy: an edit replaces the record
  ImGui::Text("Look: %s", lighting.preset.c_str());
  const auto& names = LightingSettings::presetNames();
  for (std::size_t i = 0; i < names.size(); ++i) {
    const bool current = names[i] == lighting.preset;
    if (current) ImGui::PushStyleColor(ImGuiCol_Button, ImGui::GetStyleColorVec4(ImGuiCol_ButtonActive));
    if (ImGui::Button(names[i].c_str(), ImVec2(110.0f, 0.0f))) choosePreset(i);
    if (current) ImGui::PopStyleColor();
    if (i % 3 != 2) ImGui::SameLine();
  }
  ImGui::PushItemWidth(-120.0f);
  float master = context_.state.lightIntensity();
  if (ImGui::SliderFloat("Master", &master, 0.0f, masterMaximum, "%.2f", ImGuiSliderFlags_AlwaysClamp)) {
    setMaster(master);
  }
  for (const Control& control : controls()) {
    float value = static_cast<float>(lighting.*control.field);
    if (ImGui::SliderFloat(control.label, &value, static_cast<float>(control.lo), static_cast<float>(control.hi),
                           "%.2f", ImGuiSliderFlags_AlwaysClamp)) {
      setField(control.field, value);
    }
  }
  ImGui::PopItemWidth();
}

}  // namespace velmora
