// A running headless velmora publishing into a private PipeWire session,
// watched from outside by gst-launch-1.0's pipewiresrc (a consumer nobody
// here wrote): the frame it receives, the status lines as consumers come and
// go, and both outputs stopped at exit; and a character made by a real
// third-party tool (Blender builds a textured head with ARKit-named shape
// keys and writes it with its own glTF exporter, tests/characters/blender/
// make.py) shown with --character, its jaw opened by a jawOpen stream.
// Daemon loss is the publisher's (syphon_publisher_pipewire_test), the
// status texts output_sync_test's.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/PrivatePipeWire.h"
#include "support/StbImage.h"
#include "support/VelmoraRun.h"

namespace velmora {
namespace {

const std::string kReady = "[Velmora] Syphon: ready, waiting for a client";
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

// Both outputs on (NDI through the test double of its runtime): each says
// what it is doing, and SIGTERM stops both once.
TEST(HeadlessOutputPipeWire, AConsumerReceivesTheCharacterAndTheStatusFollowsIt) {
  test::PrivatePipeWire session;
  ASSERT_TRUE(session.start());
  std::vector<std::string> env = session.env();
  env.insert(env.end(), {"NDI_RUNTIME_DIR_V6=" VELMORA_NDI_DOUBLE_DIR, "NDI_DOUBLE_CONNECTIONS=1"});
  test::VelmoraRun velmora({.settings = {{"ndiOutputEnabled", true}}, .env = env});
  ASSERT_TRUE(velmora->waitForLine(kReady, 20)) << velmora->output();
  ASSERT_TRUE(session.waitForNode("Velmora", 10));

  // Software GL takes about half a second per frame, the first one longer.
  const test::Picture image = fourthFrame(session, "received");
  EXPECT_TRUE(velmora->waitForLine("[Velmora] Syphon: sending to a client", 10)) << velmora->output();
  EXPECT_TRUE(velmora->waitForLine(kReady, 20)) << velmora->output();  // the consumer left

  ASSERT_EQ(std::pair(image.width, image.height), std::pair(1920, 1080)) << velmora->output();
  // Transparent background: the top row is empty.
  EXPECT_EQ(image.count(0, 0, 1920, 1, [](int, int, int, int a) { return a != 0; }), 0u);
  // The character: an opaque region around the centre, a real share of the
  // frame. Upright: the mask's eye openings (see-through pixels between its
  // left and right edges) are in the upper half of its rows, not the lower.
  const auto opaque = [](int, int, int, int a) { return a == 255; };
  EXPECT_GT(image.count(0, 0, 1920, 1080, opaque), 1920 * 1080 / 20u);
  EXPECT_EQ(image.alpha(960, 540), 255);
  std::vector<std::pair<int, std::size_t>> holes;  // per row with opaque pixels: y, see-through pixels inside
  for (int y = 0; y < 1080; ++y) {
    int first = 0, last = 1919;
    while (first < 1920 && image.alpha(first, y) != 255) ++first;
    while (last > first && image.alpha(last, y) != 255) --last;
    if (first < 1920) holes.emplace_back(y, last - first + 1 - image.count(first, y, last + 1, y + 1, opaque));
  }
  ASSERT_FALSE(holes.empty());
  const int top = holes.front().first, bottom = holes.back().first;
  std::size_t upper = 0, lower = 0;
  for (const auto& [y, n] : holes) (y < (top + bottom) / 2 ? upper : lower) += n;
  EXPECT_GT(upper, 1000u);
  EXPECT_GT(upper, 10 * lower) << "rows " << top << ".." << bottom;

  EXPECT_TRUE(velmora.stopsCleanly(SIGTERM)) << velmora->output();
  // Which library each one uses, and saying so once, is the publishers' own tests'.
  for (const std::string line : {"[Velmora] NDI: sending to 1 receiver", "[Syphon] Server stopped", "[NDI] Sender stopped"})
    EXPECT_EQ(velmora->printed(line), 1) << line << "\n" << velmora->output();
}

TEST(CharacterFilePipeWire, ABlenderHeadShowsItsTextureAndOpensItsJawToAJawOpenStream) {
  if (!std::filesystem::exists("/usr/bin/blender"))
    GTEST_SKIP() << "blender is not installed (scripts/setup installs it): no third-party character to read";
  test::TempDir dir;
  const std::string head = (dir.path() / "BlenderHead.glb").string();
  const test::Finished blender =
      test::runToEnd({"/usr/bin/blender", "-b", "--factory-startup", "--python", kMake, "--", head}, {}, 300);
  ASSERT_EQ(blender.status, 0) << blender.output;

  test::PrivatePipeWire session;
  ASSERT_TRUE(session.start());
  test::VelmoraRun velmora({.env = session.env(), .args = {"--character", head}});
  // Read off the main thread; its line names what matched and what framed it.
  ASSERT_TRUE(velmora->waitForLine("[Character] Showing BlenderHead: 3 of 52 blendshapes, 6016 triangles, framed by "
                                   "head bone; targets not matched: Wobble",
                                   30))
      << velmora->output();
  ASSERT_TRUE(velmora->waitForLine(kReady, 20)) << velmora->output();
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
  const std::jthread phone([&](const std::stop_token& stop) {
    const test::UdpSocket socket;
    for (; !stop.stop_requested(); std::this_thread::sleep_for(std::chrono::milliseconds(20)))
      socket.sendTo(velmora.ports[0], "jawOpen-100|");
  });
  std::this_thread::sleep_for(std::chrono::seconds(2));  // the filters settle
  const test::Picture jaw = fourthFrame(session, "jaw");
  // The jaw drops: the chin's lowest row moves well down the frame.
  EXPECT_GT(lowestCovered(jaw), lowestCovered(rest) + 40) << velmora->output();
  EXPECT_TRUE(velmora.stopsCleanly(SIGTERM)) << velmora->output();
}

}  // namespace
}  // namespace velmora
