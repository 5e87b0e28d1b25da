#include "ui/Dashboard.h"

#include <imgui.h>

#include <cstdio>

#include "ui/CalibrationPanel.h"
#include "ui/ConnectionPanel.h"
#include "ui/CuesPanel.h"
#include "ui/DashboardContext.h"
#include "ui/ExportPanel.h"
#include "ui/ExpressionPanel.h"
#include "ui/LightingPanel.h"
#include "ui/MenuCommands.h"
#include "ui/OSCCommandsWindow.h"
#include "ui/OutputsPanel.h"
#include "ui/PreviewPanel.h"
#include "ui/RemoteControlPanel.h"
#include "ui/SafetyPanel.h"
#include "ui/WireframeTrackerView.h"

namespace velmora {

namespace {

// A titled section of a column, open unless the operator folds it.
template <class Draw>
void section(const char* title, Draw&& draw) {
  if (ImGui::CollapsingHeader(title, ImGuiTreeNodeFlags_DefaultOpen)) {
    ImGui::PushID(title);
    draw();
    ImGui::PopID();
    ImGui::Spacing();
  }
}

}  // namespace

Dashboard::Dashboard(DashboardContext& context, const PreviewFrames& frames, const WireframeTracker& tracker,
                     bool withGl)
    : context_(context),
      connection_(std::make_unique<ConnectionPanel>(context)),
      preview_(std::make_unique<PreviewPanel>(context, frames, withGl)),
      expression_(std::make_unique<ExpressionPanel>(context)),
      calibration_(std::make_unique<CalibrationPanel>(context)),
      cues_(std::make_unique<CuesPanel>(context)),
      outputs_(std::make_unique<OutputsPanel>(context)),
      remote_(std::make_unique<RemoteControlPanel>(context)),
      lighting_(std::make_unique<LightingPanel>(context)),
      safety_(std::make_unique<SafetyPanel>(context)),
      oscCommands_(std::make_unique<OSCCommandsWindow>(context)),
      wireframe_(std::make_unique<WireframeTrackerView>(context, tracker)),
      export_(std::make_unique<ExportPanel>()) {}

Dashboard::~Dashboard() = default;

bool Dashboard::handleKey(int key, int mods) {
  const auto command = MenuCommands::forShortcut(key, mods);
  if (!command) return false;
  MenuCommands::perform(*command, context_);
  return true;
}

void Dashboard::drawMenuBar() {
  if (!ImGui::BeginMainMenuBar()) return;
  for (const Menu& menu : MenuCommands::menus()) {
    if (!ImGui::BeginMenu(menu.title.c_str())) continue;
    for (const MenuEntry& entry : menu.entries) {
      if (entry.separatorBefore) ImGui::Separator();
      if (ImGui::MenuItem(entry.label.c_str(), entry.shortcut.empty() ? nullptr : entry.shortcut.c_str())) {
        MenuCommands::perform(entry.command, context_);
      }
    }
    ImGui::EndMenu();
  }
  // The dashboard's own frame rate, so the operator sees it stay at 60
  // while the renderer works (ImGui's average over the last 120 frames).
  char rate[32];
  std::snprintf(rate, sizeof rate, "UI %.0f fps", ImGui::GetIO().Framerate);
  ImGui::SameLine(ImGui::GetWindowWidth() - ImGui::CalcTextSize(rate).x - 16.0f);
  ImGui::TextDisabled("%s", rate);
  ImGui::EndMainMenuBar();
}

void Dashboard::draw(ImFont* largeFont) {
  drawMenuBar();

  const ImGuiViewport* viewport = ImGui::GetMainViewport();
  ImGui::SetNextWindowPos(viewport->WorkPos);
  ImGui::SetNextWindowSize(viewport->WorkSize);
  const ImGuiWindowFlags hostFlags = ImGuiWindowFlags_NoDecoration | ImGuiWindowFlags_NoMove |
                                     ImGuiWindowFlags_NoSavedSettings | ImGuiWindowFlags_NoBringToFrontOnFocus;
  ImGui::PushStyleVar(ImGuiStyleVar_WindowRounding, 0.0f);
  ImGui::Begin("Dashboard", nullptr, hostFlags);
  ImGui::PopStyleVar();
  const float total = ImGui::GetContentRegionAvail().x;
  const float spacing = ImGui::GetStyle().ItemSpacing.x;
  const float left = std::max(300.0f, total * 0.27f);
  const float middle = std::max(360.0f, total * 0.36f);

  ImGui::BeginChild("left", ImVec2(left, 0.0f), true);
  section("Connection", [&] { connection_->draw(largeFont); });
  section("Outputs", [&] { outputs_->draw(); });
  section("Remote control", [&] { remote_->draw(); });
  section("Show safety", [&] { safety_->draw(); });
  section("Cues", [&] { cues_->draw(); });
  ImGui::EndChild();

  ImGui::SameLine();
  ImGui::BeginChild("middle", ImVec2(middle, 0.0f), true);
  section("Preview", [&] { preview_->draw(); });
  section("Wireframe tracker", [&] { wireframe_->draw(); });
  section("Lighting", [&] { lighting_->draw(); });
  section("Export", [&] { export_->draw(); });
  ImGui::EndChild();

  ImGui::SameLine();
  ImGui::BeginChild("right", ImVec2(std::max(0.0f, total - left - middle - 2.0f * spacing), 0.0f), true);
  section("Calibration & tuning", [&] { calibration_->draw(); });
  section("Expression", [&] { expression_->draw(); });
  ImGui::EndChild();
  ImGui::End();

  oscCommands_->draw();
}

}  // namespace velmora
