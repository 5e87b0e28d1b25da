// "velmora --output-selftest FOLDER" seen from outside, with and without a
// private PipeWire session, the NDI runtime's test double and GL.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "support/PrivatePipeWire.h"
#include "support/StbImage.h"
#include "support/VelmoraRun.h"

namespace velmora {
namespace {

// With a daemon and the runtime's double both outputs check out and the
// received frame is saved. Each failing part ends with the RESULT line that
// says why, the run still exits 0 and the rest is still checked: no daemon
// and no runtime; no GL at all (the EGL loader finds no driver), where the
// frame wait gives up after its rounds rather than waiting out each round's
// frame (minutes), and a source of our name on another machine is not ours
// (our sender never starts); a runtime whose discovery cannot start.
TEST(OutputSelfTestPipeWire, EachPartSaysWhatItFoundAndTheRunExitsZero) {
  test::PrivatePipeWire session;  // not started yet: no daemon answers
  test::TempDir out;
  struct Row {
    bool daemon, gl, frame, discovered;
    std::vector<std::string> env, lines;
  };
  const std::string ndi = "NDI_RUNTIME_DIR_V6=" VELMORA_NDI_DOUBLE_DIR;
  const Row rows[] = {
      {false, true, false, false, {"NDI_RUNTIME_DIR_V6=" + out.path().string()},  // no runtime anywhere: an empty folder
       {"[selftest] Syphon: PipeWire video source could not be created (is PipeWire running?)",
        "[selftest] Syphon directory sees 0 server(s): ", "[selftest] RESULT Syphon: our server is NOT visible to other apps",
        "[selftest] RESULT NDI: runtime not loaded, nothing to check"}},
      // Our node, named with its application, is the only video source here.
      {true, true, true, true, {ndi},
       {"[selftest] Syphon framework: /usr/lib/x86_64-linux-gnu/libpipewire-0.3.so.0",
        "[selftest] NDI runtime: " VELMORA_NDI_DOUBLE_DIR "/libndi.so.6",
        "[selftest] Syphon directory sees 1 server(s): Velmora (Velmora)",
        "[selftest] Syphon client received a 1920x1080 frame, hasClients=true",
        "[selftest] RESULT Syphon: OK (frame saved to syphon_received.png)",
        "[selftest] RESULT NDI: OK, source is discoverable", "[Syphon] Server stopped", "[NDI] Sender stopped"}},
      {true, false, false, false,
       {ndi, "NDI_DOUBLE_FAIL_CREATE=1", "NDI_DOUBLE_REMOTE_SOURCES=STAGE-LEFT (Velmora)",
        "__EGL_VENDOR_LIBRARY_FILENAMES=" + (out.path() / "no-vendor.json").string()},
       {"[selftest] RESULT Syphon: visible, client connected but no frame arrived",
        "[selftest] NDI discovery sees: STAGE-LEFT (Velmora)", "[selftest] RESULT NDI: source NOT discovered"}},
      {true, true, true, false, {ndi, "NDI_DOUBLE_FAIL_FIND=1"}, {"[selftest] RESULT NDI: could not start discovery"}},
  };
  bool started = false;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.lines.back());
    if (row.daemon && !started) started = session.start();
    ASSERT_EQ(started, row.daemon);  // started for the first row that needs it, and kept
    // Run to its end (status 0) in the session's environment. The operator's
    // NDI switch, on before the check, is on after it.
    std::vector<std::string> env = session.env();
    env.insert(env.end(), row.env.begin(), row.env.end());
    const auto folder = out.path() / std::to_string(&row - rows) / "nested";  // created by the run
    test::VelmoraRun run({.settings = {{"ndiOutputEnabled", !row.gl}}, .env = env, .args = {"--output-selftest", folder.string()}});
    EXPECT_EQ(run->wait(120), 0) << run->output();
    for (const auto& line : row.lines) EXPECT_EQ(run->printed(line), 1) << line << "\n" << run->output();
    EXPECT_EQ(std::any_of(run->lines().begin(), run->lines().end(), [](const std::string& l) {
      return l.starts_with("[selftest] NDI discovery sees: ") && l.find(" (Velmora)") != std::string::npos &&
             l.find("STAGE-LEFT") == std::string::npos;
    }), row.discovered) << run->output();
    // The saved frame: the character, opaque in the middle, on a transparent background.
    const test::Picture frame = test::loadPicture((folder / "syphon_received.png").string());
    EXPECT_EQ(frame.width, row.frame ? 1920 : 0);
    if (frame.width == 1920) {
      EXPECT_EQ(std::tuple(frame.height, frame.alpha(0, 0), frame.alpha(1919, 1079), frame.alpha(960, 540)),
                std::tuple(1080, 0, 0, 255));
    }
    // (What the renderer says without GL is the batch runs' test.)
    EXPECT_TRUE(row.gl || run.settings()["ndiOutputEnabled"] == true) << run.settings().dump();
  }
}

}  // namespace
}  // namespace velmora
