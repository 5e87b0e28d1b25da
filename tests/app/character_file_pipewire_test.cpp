// A character made by a real third-party tool: Blender builds a textured head
// with ARKit-named shape keys and writes it with its own glTF exporter
// (tests/characters/blender/make.py); a headless velmora started with
// --character shows it in its PipeWire frame, and a jawOpen stream from a
// "phone" opens its jaw there. Skipped, saying why, where Blender is missing.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "support/PrivatePipeWire.h"
#include "support/StbImage.h"
#include "support/VelmoraRun.h"

namespace velmora {
namespace {

const std::string kMake = VELMORA_SOURCE_DIR "/tests/characters/blender/make.py";

// The lowest row with an opaque pixel (the chin), -1 when none.
int lowestCovered(const test::Picture& p) {
  for (int y = p.height - 1; y >= 0; --y)
    if (p.count(0, y, p.width, y + 1, [](int, int, int, int a) { return a == 255; }) > 0) return y;
  return -1;
}

// Frame 3 of four a consumer takes, as a picture: the first buffer of a new
// link may be one the source filled for an earlier consumer, the last is fresh.
test::Picture fourthFrame(const test::PrivatePipeWire& session, const std::string& name) {
  const std::string prefix = (session.dir() / name).string();
  EXPECT_EQ(session.run({"/usr/bin/timeout", "90", "/usr/bin/gst-launch-1.0", "-q", "pipewiresrc", "target-object=Velmora",
                         "num-buffers=4", "!", "videoconvert", "!", "pngenc", "!", "multifilesink",
                         "location=" + prefix + "%d.png"},
                        "gst-" + name + ".log"),
            0);
  return test::loadPicture(prefix + "3.png");
}

TEST(CharacterFilePipeWire, ABlenderHeadShowsItsTextureAndOpensItsJawToAJawOpenStream) {
  if (!std::filesystem::exists("/usr/bin/blender"))
    GTEST_SKIP() << "blender is not installed (scripts/setup installs it): no third-party character to read";
  test::TempDir dir;
  const std::string head = (dir.path() / "BlenderHead.glb").string();
  const std::string make = "/usr/bin/timeout 300 /usr/bin/blender -b --factory-startup --python " + kMake + " -- " +
                           head + " > " + (dir.path() / "blender.log").string() + " 2>&1";
  ASSERT_EQ(std::system(make.c_str()), 0) << "see " << (dir.path() / "blender.log");

  test::PrivatePipeWire session;
  ASSERT_TRUE(session.start());
  test::VelmoraRun velmora({.env = session.env(), .args = {"--character", head}});
  // Read off the main thread; its line names what matched and what framed it.
  ASSERT_TRUE(velmora->waitForLine("[Character] Showing BlenderHead: 3 of 52 blendshapes, 6016 triangles, framed by "
                                   "head bone; targets not matched: Wobble",
                                   30))
      << velmora->output();
  ASSERT_TRUE(velmora->waitForLine("[Velmora] Syphon: ready, waiting for a client", 20)) << velmora->output();
  ASSERT_TRUE(session.waitForNode("Velmora", 10));

  const test::Picture rest = fourthFrame(session, "rest");
  ASSERT_EQ(rest.width, 1920) << velmora->output();
  // Opaque pixels whose colour leans the way the texture's two colours do:
  // its upper colour, lit, and its lower one.
  EXPECT_GT(rest.count(0, 0, 1920, 1080, [](int r, int g, int b, int a) { return a == 255 && r > g + 30 && g > b + 10; }),
            50000u);
  EXPECT_GT(rest.count(0, 0, 1920, 1080, [](int r, int g, int b, int a) { return a == 255 && g > r + 30 && b > r + 30; }),
            20000u);

  // A phone streams jawOpen (iFacialMocap text) while a frame is taken.
  std::atomic<bool> streaming{true};
  std::thread phone([&] {
    const test::UdpSocket socket;
    while (streaming) {
      socket.sendTo(velmora.ports[0], "jawOpen-100|");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  std::this_thread::sleep_for(std::chrono::seconds(2));  // the filters settle
  const test::Picture jaw = fourthFrame(session, "jaw");
  streaming = false;
  phone.join();
  // The jaw drops: the chin's lowest row moves well down the frame.
  EXPECT_GT(lowestCovered(jaw), lowestCovered(rest) + 40) << velmora->output();
  EXPECT_TRUE(velmora.stopsCleanly(SIGTERM)) << velmora->output();
}

}  // namespace
}  // namespace velmora
