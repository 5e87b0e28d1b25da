#include "ui/PreviewPanel.h"

#include <imgui.h>

#include <algorithm>
#include <cstdint>

#include "render/FrameTexture.h"
#include "tracking/FaceTrackingState.h"
#include "ui/DashboardContext.h"
#include "ui/PreviewFrames.h"

namespace velmora {

PreviewPanel::PreviewPanel(DashboardContext& context, const PreviewFrames& frames, bool withGl)
    : context_(context), frames_(frames), texture_(withGl ? std::make_unique<FrameTexture>() : nullptr) {}

PreviewPanel::~PreviewPanel() = default;

void PreviewPanel::draw() {
  if (auto frame = frames_.newerThan(seen_)) {
    if (texture_) texture_->upload(*frame);
    seen_ = frame->sequence;
  }
  // 16:9 like the output, as wide as the column.
  const float width = std::max(64.0f, ImGui::GetContentRegionAvail().x);
  const float height = width * 9.0f / 16.0f;
  const ImVec2 origin = ImGui::GetCursorScreenPos();
  const ImVec2 end(origin.x + width, origin.y + height);
  ImDrawList* draw = ImGui::GetWindowDrawList();
  const float cell = 12.0f;
  draw->PushClipRect(origin, end, true);
  for (int row = 0; origin.y + row * cell < end.y; ++row) {
    for (int col = 0; origin.x + col * cell < end.x; ++col) {
      const ImU32 colour = ((row + col) & 1) ? IM_COL32(150, 150, 150, 255) : IM_COL32(105, 105, 105, 255);
      draw->AddRectFilled(ImVec2(origin.x + col * cell, origin.y + row * cell),
                          ImVec2(origin.x + (col + 1) * cell, origin.y + (row + 1) * cell), colour);
    }
  }
  if (texture_ && texture_->width() > 0) {
    // ImGui's texture id for the OpenGL backend is the texture name.
    draw->AddImage(reinterpret_cast<ImTextureID>(static_cast<std::uintptr_t>(texture_->name())), origin, end);
  } else {
    const FaceTrackingState& state = context_.state;
    const char* why = (!state.isSyphonActive() && !state.isNDIActive())
                          ? "No output frames: Syphon and NDI are off"
                          : "Waiting for the first frame...";
    draw->AddText(ImVec2(origin.x + 10.0f, origin.y + 10.0f), IM_COL32(255, 255, 255, 255), why);
  }
  draw->PopClipRect();
  ImGui::Dummy(ImVec2(width, height));
}

}  // namespace velmora
