#include "ui/CuesPanel.h"

#include <imgui.h>

#include <algorithm>
#include <cstdio>

#include "animation/CharacterAnimationController.h"
#include "ui/DashboardContext.h"
#include "stage/CharacterModelType.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {

CuesPanel::CuesPanel(DashboardContext& context) : context_(context) {
  observerToken_ = context_.animation.observe([this] {
    if (context_.animation.activeCue()) {
      cueStartTime_ = context_.clock();
    } else {
      cueStartTime_.reset();
    }
  });
  if (context_.animation.activeCue()) cueStartTime_ = context_.clock();
}

CuesPanel::~CuesPanel() { context_.animation.unobserve(observerToken_); }

void CuesPanel::fire(AnimationCue::Kind kind) {
  const CharacterModelType model = AnimationCue::character(kind);
  if (context_.state.characterModel() != model) context_.state.setCharacterModel(model);
  context_.animation.trigger(AnimationCue::make(kind, AnimationCue::defaultDuration(kind)), context_.clock());
}

void CuesPanel::stopWithFade() { context_.animation.reset(true, context_.clock()); }

std::optional<double> CuesPanel::progress() const {
  const auto& cue = context_.animation.activeCue();
  if (!cue || !cueStartTime_) return std::nullopt;
  const double duration = cue->duration();
  if (!(duration > 0.0)) return 1.0;
  return std::clamp((context_.clock() - *cueStartTime_) / duration, 0.0, 1.0);
}

void CuesPanel::draw() {
  const auto& animation = context_.animation;
  ImGui::Text("Active: %s", animation.activeCueName().c_str());
  if (const auto p = progress()) {
    ImGui::ProgressBar(static_cast<float>(*p), ImVec2(-90.0f, 0.0f));
  } else {
    ImGui::ProgressBar(0.0f, ImVec2(-90.0f, 0.0f), animation.isFadingOut() ? "fading" : "live tracking");
  }
  ImGui::SameLine();
  if (ImGui::Button("Stop (fade)")) stopWithFade();

  for (const CharacterModelType model : allCases<CharacterModelType>()) {
    const std::string title(displayName(model));
    ImGui::Separator();
    ImGui::TextDisabled("%s", title.c_str());
    const float right = ImGui::GetWindowPos().x + ImGui::GetWindowContentRegionMax().x;
    const ImGuiStyle& style = ImGui::GetStyle();
    bool first = true;
    for (const AnimationCue::Kind kind : AnimationCue::allKinds) {
      if (AnimationCue::character(kind) != model) continue;
      char label[128];
      std::snprintf(label, sizeof label, "%s (%.1f s)", AnimationCue::name(kind).c_str(),
                    AnimationCue::defaultDuration(kind));
      // Flow the buttons into rows that fit the column.
      const float width = ImGui::CalcTextSize(label).x + style.FramePadding.x * 2.0f;
      if (!first && ImGui::GetItemRectMax().x + style.ItemSpacing.x + width <= right) ImGui::SameLine();
      first = false;
      if (ImGui::Button(label)) fire(kind);
    }
  }
}

}  // namespace velmora
