// "velmora --output-selftest FOLDER" seen from outside: with a private
// PipeWire session and the NDI runtime's test double both outputs check out
// and the received frame is saved; without them each part ends with the
// RESULT line that says why, and the run still exits 0.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/PrivatePipeWire.h"
#include "support/StbImage.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

const std::string kVelmora = test::builtProgram("velmora");

// Runs the self-test to its end in the session's environment; the lines it
// printed. Settings live in `configDir` when given, else in a fresh folder.
std::vector<std::string> selfTest(const test::PrivatePipeWire& session, const std::filesystem::path& out,
                                  std::vector<std::string> env, int* status,
                                  const std::filesystem::path& configDir = {}) {
  test::TempDir config;
  for (const auto& e : session.env()) env.push_back(e);
  env.push_back("VELMORA_CONFIG_DIR=" + (configDir.empty() ? config.path() : configDir).string());
  test::ChildProcess velmora({kVelmora, "--output-selftest", out.string()}, env);
  *status = velmora.wait(120);
  return velmora.lines();
}

bool has(const std::vector<std::string>& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}
std::string joined(const std::vector<std::string>& lines) {
  std::string all;
  for (const auto& l : lines) all += l + "\n";
  return all;
}

TEST(OutputSelfTestPipeWire, BothOutputsCheckOutWithADaemonAndARuntime) {
  test::PrivatePipeWire session;
  ASSERT_TRUE(session.start());
  test::TempDir out;
  const auto folder = out.path() / "nested" / "out";  // created by the run
  int status = -1;
  const auto lines = selfTest(session, folder, {"NDI_RUNTIME_DIR_V6=" VELMORA_NDI_DOUBLE_DIR}, &status);
  EXPECT_EQ(status, 0) << joined(lines);
  EXPECT_TRUE(has(lines, "[selftest] Syphon framework: /usr/lib/x86_64-linux-gnu/libpipewire-0.3.so.0")) << joined(lines);
  EXPECT_TRUE(has(lines, "[selftest] NDI runtime: " VELMORA_NDI_DOUBLE_DIR "/libndi.so.6")) << joined(lines);
  // Our node, named with its application, is the only video source here.
  EXPECT_TRUE(has(lines, "[selftest] Syphon directory sees 1 server(s): Velmora (Velmora)")) << joined(lines);
  EXPECT_TRUE(has(lines, "[selftest] Syphon client received a 1920x1080 frame, hasClients=true")) << joined(lines);
  EXPECT_TRUE(has(lines, "[selftest] RESULT Syphon: OK (frame saved to syphon_received.png)")) << joined(lines);
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& l) {
    return l.rfind("[selftest] NDI discovery sees: ", 0) == 0 && l.find(" (Velmora)") != std::string::npos;
  })) << joined(lines);
  EXPECT_TRUE(has(lines, "[selftest] RESULT NDI: OK, source is discoverable")) << joined(lines);
  EXPECT_TRUE(has(lines, "[Syphon] Server stopped"));
  EXPECT_TRUE(has(lines, "[NDI] Sender stopped"));

  // The saved frame: the character, opaque in the middle, on a transparent background.
  int w = 0, h = 0, channels = 0;
  stbi_uc* pixels = stbi_load((folder / "syphon_received.png").c_str(), &w, &h, &channels, 4);
  ASSERT_NE(pixels, nullptr);
  EXPECT_EQ(w, 1920);
  EXPECT_EQ(h, 1080);
  auto alpha = [&](int x, int y) { return pixels[(static_cast<std::size_t>(y) * w + x) * 4 + 3]; };
  EXPECT_EQ(alpha(0, 0), 0);
  EXPECT_EQ(alpha(w - 1, h - 1), 0);
  EXPECT_EQ(alpha(w / 2, h / 2), 255);
  stbi_image_free(pixels);
}

// Each failing part ends with the RESULT line that says why, and the run
// still exits 0: no daemon and no runtime; then no GL at all (the EGL loader
// finds no driver), where the frame wait gives up after its rounds rather
// than waiting out each round's frame (minutes) and NDI is still checked;
// then a runtime whose discovery cannot start.
TEST(OutputSelfTestPipeWire, EachFailingPartSaysWhyAndTheRestIsStillChecked) {
  test::PrivatePipeWire session;  // not started yet: no daemon answers
  test::TempDir out;
  int status = -1;
  // No runtime anywhere: the environment names an empty folder.
  auto lines = selfTest(session, out.path(), {"NDI_RUNTIME_DIR_V6=" + out.path().string()}, &status);
  EXPECT_EQ(status, 0) << joined(lines);
  EXPECT_TRUE(has(lines, "[selftest] Syphon: PipeWire video source could not be created (is PipeWire running?)"))
      << joined(lines);
  EXPECT_TRUE(has(lines, "[selftest] Syphon directory sees 0 server(s): ")) << joined(lines);
  EXPECT_TRUE(has(lines, "[selftest] RESULT Syphon: our server is NOT visible to other apps")) << joined(lines);
  EXPECT_TRUE(has(lines, "[selftest] RESULT NDI: runtime not loaded, nothing to check")) << joined(lines);
  EXPECT_FALSE(std::filesystem::exists(out.path() / "syphon_received.png"));

  // No renderer. The operator's NDI switch, on before the check, is on after
  // it; and a source of the same name on another machine is not ours (our
  // sender never starts here).
  ASSERT_TRUE(session.start());
  test::TempDir config;
  std::ofstream(config.path() / "settings.json") << R"({"ndiOutputEnabled": true})";
  lines = selfTest(session, out.path(),
                   {"NDI_RUNTIME_DIR_V6=" VELMORA_NDI_DOUBLE_DIR, "NDI_DOUBLE_FAIL_CREATE=1",
                    "NDI_DOUBLE_REMOTE_SOURCES=STAGE-LEFT (Velmora)",
                    "__EGL_VENDOR_LIBRARY_FILENAMES=" + (out.path() / "no-vendor.json").string()},
                   &status, config.path());
  EXPECT_EQ(status, 0) << joined(lines);
  EXPECT_TRUE(std::any_of(lines.begin(), lines.end(),
                          [](const std::string& l) { return l.rfind("[Renderer] ", 0) == 0 && l.find("nothing will be rendered") != std::string::npos; }))
      << joined(lines);
  EXPECT_TRUE(has(lines, "[selftest] RESULT Syphon: visible, client connected but no frame arrived")) << joined(lines);
  EXPECT_FALSE(std::filesystem::exists(out.path() / "syphon_received.png"));
  EXPECT_TRUE(has(lines, "[selftest] NDI discovery sees: STAGE-LEFT (Velmora)")) << joined(lines);
  EXPECT_TRUE(has(lines, "[selftest] RESULT NDI: source NOT discovered")) << joined(lines);
  std::ifstream settingsFile(config.path() / "settings.json");
  std::string settings(std::istreambuf_iterator<char>(settingsFile), {});
  std::erase_if(settings, [](char c) { return c == ' ' || c == '\n'; });
  EXPECT_NE(settings.find(R"("ndiOutputEnabled":true)"), std::string::npos) << settings;

  lines = selfTest(session, out.path(), {"NDI_RUNTIME_DIR_V6=" VELMORA_NDI_DOUBLE_DIR, "NDI_DOUBLE_FAIL_FIND=1"},
                   &status);
  EXPECT_EQ(status, 0) << joined(lines);
  EXPECT_TRUE(has(lines, "[selftest] RESULT NDI: could not start discovery")) << joined(lines);
}

}  // namespace
}  // namespace velmora
