#include "ui/ExpressionPanel.h"

#include <imgui.h>

#include <algorithm>

#include "ui/DashboardContext.h"
#include "base/Math.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

namespace {

// Two stacked bars in one cell: the raw value (grey, with the range marked)
// over the processed value (blue).
void valueBars(float raw, float processed, float floor, float ceiling) {
  const ImVec2 origin = ImGui::GetCursorScreenPos();
  const float width = std::max(40.0f, ImGui::GetContentRegionAvail().x);
  const float height = ImGui::GetTextLineHeight();
  ImDrawList* draw = ImGui::GetWindowDrawList();
  const float half = height * 0.5f;
  auto clamp01 = [](float v) { return std::isfinite(v) ? std::clamp(v, 0.0f, 1.0f) : 0.0f; };
  draw->AddRectFilled(origin, ImVec2(origin.x + width, origin.y + height), IM_COL32(40, 40, 46, 255));
  draw->AddRectFilled(ImVec2(origin.x + width * floor, origin.y),
                      ImVec2(origin.x + width * ceiling, origin.y + half - 1.0f), IM_COL32(70, 70, 90, 255));
  draw->AddRectFilled(origin, ImVec2(origin.x + width * clamp01(raw), origin.y + half - 1.0f),
                      IM_COL32(170, 170, 170, 255));
  draw->AddRectFilled(ImVec2(origin.x, origin.y + half),
                      ImVec2(origin.x + width * clamp01(processed), origin.y + height), IM_COL32(80, 150, 250, 255));
  ImGui::Dummy(ImVec2(width, height));
}

}  // namespace

std::vector<std::string> ExpressionPanel::rowNames(const FaceTrackingState& state) {
  std::vector<std::string> names;
  names.reserve(state.rawBlendshapes().size());
  for (const auto& [name, value] : state.rawBlendshapes()) names.emplace_back(name);
  std::sort(names.begin(), names.end());
  return names;
}

void ExpressionPanel::applyRangeEdit(FaceTrackingState& state, const std::string& name, float oldFloor,
                                     float oldCeiling, float newFloor, float newCeiling) {
  if (newFloor != oldFloor) state.setRange(name, newFloor, std::nullopt);
  if (newCeiling != oldCeiling) state.setRange(name, std::nullopt, newCeiling);
}

void ExpressionPanel::drawHead() {
  const FaceTrackingState& state = context_.state;
  const float3 raw = glm::degrees(state.rawRotation());
  const float3 out = glm::degrees(state.headRotation());
  ImGui::Text("Head (degrees)   pitch    yaw   roll");
  ImGui::Text("  received     %6.1f %6.1f %6.1f", raw.x, raw.y, raw.z);
  ImGui::Text("  processed    %6.1f %6.1f %6.1f", out.x, out.y, out.z);
}

void ExpressionPanel::draw() {
  FaceTrackingState& state = context_.state;
  if (ImGui::Button("Set floors from current pose")) state.setFloorsFromCurrentPose();
  ImGui::SameLine();
  if (ImGui::Button("Reset all ranges")) state.resetAllRanges();
  drawHead();

  const std::vector<std::string> names = rowNames(state);
  if (names.empty()) {
    ImGui::TextDisabled("No expression received yet.");
    return;
  }
  const ImGuiTableFlags flags = ImGuiTableFlags_RowBg | ImGuiTableFlags_SizingStretchProp;
  if (!ImGui::BeginTable("expression", 3, flags)) return;
  ImGui::TableSetupColumn("Blendshape", ImGuiTableColumnFlags_WidthFixed, 130.0f);
  ImGui::TableSetupColumn("raw / processed", ImGuiTableColumnFlags_WidthStretch, 1.0f);
  ImGui::TableSetupColumn("floor - ceiling", ImGuiTableColumnFlags_WidthFixed, 130.0f);
  ImGui::TableHeadersRow();
  const auto& raw = state.rawBlendshapes();
  const auto& processed = state.blendshapes();
  for (const std::string& name : names) {
    ImGui::PushID(name.c_str());
    ImGui::TableNextRow();
    ImGui::TableNextColumn();
    ImGui::TextUnformatted(name.c_str());
    ImGui::TableNextColumn();
    const auto range = state.range(name);
    const auto r = raw.find(name);
    const auto p = processed.find(name);
    valueBars(r != raw.end() ? r->second : 0.0f, p != processed.end() ? p->second : 0.0f, range.floor,
              range.ceiling);
    ImGui::TableNextColumn();
    float floor = range.floor, ceiling = range.ceiling;
    ImGui::SetNextItemWidth(-1.0f);
    if (ImGui::DragFloatRange2("##range", &floor, &ceiling, 0.005f, 0.0f, 1.0f, "%.2f", "%.2f",
                               ImGuiSliderFlags_AlwaysClamp)) {
      applyRangeEdit(state, name, range.floor, range.ceiling, floor, ceiling);
    }
    ImGui::PopID();
  }
  ImGui::EndTable();
}

}  // namespace velmora
