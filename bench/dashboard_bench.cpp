// The dashboard's frame on the main thread (budget 4 ms): building every
// panel's UI and submitting its draw lists to GL, with all panels open, the
// OSC commands window shown, and a phone streaming (one 52-blendshape packet
// per frame, as the phone simulator sends at 60 packets/s, plus a new preview
// frame twice a second, as software GL delivers them). GL is a headless EGL
// context drawing into a 1366 x 768 framebuffer, like the main window's.
#include <benchmark/benchmark.h>
#include <epoxy/gl.h>
#include <imgui.h>
#include <backends/imgui_impl_opengl3.h>
#include <stdlib.h>

#include <cmath>
#include <filesystem>
#include <memory>

#include "animation/CharacterAnimationController.h"
#include "support/TempDir.h"
#include "ui/Dashboard.h"
#include "ui/DashboardContext.h"
#include "ui/PreviewFrames.h"
#include "ui/UiFonts.h"
#include "ui/WireframeTracker.h"
#include "base/MainQueue.h"
#include "base/SettingsStore.h"
#include "render/EglContext.h"
#include "stage/ARKitBlendShape.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

void BM_DashboardFrame(benchmark::State& st) {
  MainQueue::shared().bindToCurrentThread();
  auto egl = EglContext::create();
  if (!egl || !egl.value->makeCurrent()) {
    st.SkipWithError(("no GL context: " + egl.reason).c_str());
    return;
  }
  const test::TempDir folder;
  SettingsStore store(folder.path());
  FaceTrackingState state(store);
  CharacterAnimationController animation;
  double now = 1.0;
  DashboardContext context(state, animation, [&] { return now; });
  context.showOSCCommands = true;
  context.trackingPorts = [] { return std::vector<std::uint16_t>{11111, 49983, 39539}; };
  PreviewFrames frames;
  WireframeTracker tracker;

  const int width = 1366, height = 768;
  GLuint colour = 0, fbo = 0;
  glGenTextures(1, &colour);
  glBindTexture(GL_TEXTURE_2D, colour);
  glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
  glGenFramebuffers(1, &fbo);
  glBindFramebuffer(GL_FRAMEBUFFER, fbo);
  glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, colour, 0);

  ImGui::CreateContext();
  ImGuiIO& io = ImGui::GetIO();
  io.IniFilename = nullptr;
  io.DisplaySize = ImVec2(width, height);
  ImFont* large = UiFonts::load(io);
  ImGui::StyleColorsDark();
  ImGui_ImplOpenGL3_Init("#version 330 core");
  {
    Dashboard dashboard(context, frames, tracker, true);
    RenderedFrame output;
    output.width = 1920;
    output.height = 1080;
    output.pixels.assign(1920 * 1080 * 4, 128);
    std::uint64_t frame = 0;
    BlendshapeMap face;
    for (auto _ : st) {
      now += 1.0 / 60.0;
      ++frame;
      // The phone's packet and the tick's tracker update, outside the measure.
      st.PauseTiming();
      int i = 0;
      for (ARKitBlendShape shape : allCases<ARKitBlendShape>()) {
        face[std::string(rawValue(shape))] = 0.5f + 0.45f * std::sin(static_cast<float>(now * 3.0 + i++));
      }
      state.ingestPacket(face, float3(0.1f * std::sin(now), 0.2f * std::sin(now * 0.5), 0.0f), std::nullopt,
                         "127.0.0.1:50000");
      tracker.update(state);
      if (frame % 30 == 0) {
        output.sequence = frame;
        frames.consume(output);  // the render thread's share
      }
      st.ResumeTiming();

      ImGui_ImplOpenGL3_NewFrame();
      io.DeltaTime = 1.0f / 60.0f;
      ImGui::NewFrame();
      dashboard.draw(large);
      ImGui::Render();
      glViewport(0, 0, width, height);
      glClear(GL_COLOR_BUFFER_BIT);
      ImGui_ImplOpenGL3_RenderDrawData(ImGui::GetDrawData());
    }
    st.counters["vertices"] = ImGui::GetDrawData()->TotalVtxCount;
    glFinish();
  }
  ImGui_ImplOpenGL3_Shutdown();
  ImGui::DestroyContext();
  glDeleteFramebuffers(1, &fbo);
  glDeleteTextures(1, &colour);
}
BENCHMARK(BM_DashboardFrame)->Unit(benchmark::kMillisecond)->MinTime(3.0);

}  // namespace
}  // namespace velmora
