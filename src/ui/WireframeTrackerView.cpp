#include "ui/WireframeTrackerView.h"

#include <imgui.h>

#include <algorithm>
#include <cmath>

#include "ui/DashboardContext.h"
#include "ui/WireframeTracker.h"
#include "stage/TrackingDetail.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

void WireframeTrackerView::draw() {
  FaceTrackingState& state = context_.state;
  for (const TrackingDetail level : allCases<TrackingDetail>()) {
    const std::string name(label(level));
    if (ImGui::RadioButton(name.c_str(), state.trackingDetail() == level) && state.trackingDetail() != level) {
      state.setTrackingDetail(level);
    }
    ImGui::SameLine();
  }
  ImGui::NewLine();

  const WireframeLevel& level = tracker_.level();
  const float width = std::max(64.0f, ImGui::GetContentRegionAvail().x);
  const float height = std::min(width * 0.75f, 300.0f);
  const ImVec2 origin = ImGui::GetCursorScreenPos();
  ImDrawList* draw = ImGui::GetWindowDrawList();
  draw->AddRectFilled(origin, ImVec2(origin.x + width, origin.y + height), IM_COL32(12, 14, 20, 255));
  // Scale from the face's extent, so every detail level fills the view alike.
  float extent = 1e-3f;
  for (const float3& p : level.points) extent = std::max({extent, std::abs(p.x), std::abs(p.y)});
  const float scale = 0.45f * std::min(width, height) / extent;
  const ImVec2 centre(origin.x + width * 0.5f, origin.y + height * 0.5f);
  std::vector<ImVec2> screen;
  screen.reserve(level.points.size());
  const float3 rotation = tracker_.headRotation();
  for (const float3& p : level.points) {
    const float2 q = WireframeTracker::project(p, rotation);
    screen.emplace_back(centre.x + q.x * scale, centre.y - q.y * scale);
  }
  draw->PushClipRect(origin, ImVec2(origin.x + width, origin.y + height), true);
  for (const auto& segment : level.segments) {
    draw->AddLine(screen[segment[0]], screen[segment[1]], IM_COL32(60, 200, 140, 200), 1.0f);
  }
  for (const ImVec2& p : screen) draw->AddRectFilled(ImVec2(p.x - 1.0f, p.y - 1.0f), ImVec2(p.x + 1.0f, p.y + 1.0f),
                                                     IM_COL32(180, 255, 220, 255));
  draw->PopClipRect();
  ImGui::Dummy(ImVec2(width, height));
  ImGui::TextDisabled("%zu points, %zu lines", level.points.size(), level.segments.size());
}

}  // namespace velmora
