// A running headless velmora publishing into a private PipeWire session,
// watched from outside by gst-launch-1.0's pipewiresrc (a consumer nobody
// here wrote): the frame it receives, the status lines as consumers come and
// go, and both outputs stopped at exit. Daemon loss is the publisher's
// (syphon_publisher_pipewire_test), its status texts output_sync_test's.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "support/PrivatePipeWire.h"
#include "support/StbImage.h"
#include "support/VelmoraRun.h"

namespace velmora {
namespace {

const std::string kStarted =
    "[Syphon] Server 'Velmora' started using /usr/lib/x86_64-linux-gnu/libpipewire-0.3.so.0";
const std::string kReady = "[Velmora] Syphon: ready, waiting for a client";

// Both outputs on (NDI through the test double of its runtime): each says
// what it is doing, and SIGTERM stops both once.
TEST(HeadlessOutputPipeWire, AConsumerReceivesTheCharacterAndTheStatusFollowsIt) {
  test::PrivatePipeWire session;
  ASSERT_TRUE(session.start());
  std::vector<std::string> env = session.env();
  env.insert(env.end(), {"NDI_RUNTIME_DIR_V6=" VELMORA_NDI_DOUBLE_DIR, "NDI_DOUBLE_CONNECTIONS=1"});
  test::VelmoraRun velmora({.settings = {{"ndiOutputEnabled", true}}, .env = env});
  ASSERT_TRUE(velmora->waitForLine(kStarted, 20)) << velmora->output();
  ASSERT_TRUE(velmora->waitForLine(kReady, 20)) << velmora->output();
  ASSERT_TRUE(session.waitForNode("Velmora", 10));

  // Software GL takes about half a second per frame, the first one longer.
  const std::string png = (session.dir() / "received.png").string();
  ASSERT_EQ(session.run({"/usr/bin/timeout", "60", "/usr/bin/gst-launch-1.0", "-q", "pipewiresrc",
                         "target-object=Velmora", "num-buffers=1", "!", "videoconvert", "!", "pngenc", "!", "filesink",
                         "location=" + png},
                        "gst.log"),
            0)
      << velmora->output();
  EXPECT_TRUE(velmora->waitForLine("[Velmora] Syphon: sending to a client", 10)) << velmora->output();
  EXPECT_TRUE(velmora->waitForLine(kReady, 20)) << velmora->output();  // the consumer left

  const test::Picture image = test::loadPicture(png);
  ASSERT_EQ(image.width, 1920);
  ASSERT_EQ(image.height, 1080);
  // Transparent background: the borders are empty.
  EXPECT_EQ(image.count(0, 0, 1920, 1, [](int, int, int, int a) { return a != 0; }), 0u);
  EXPECT_EQ(image.count(0, 1079, 1920, 1080, [](int, int, int, int a) { return a != 0; }), 0u);
  // The character: an opaque region around the centre, a real share of the
  // frame. Upright: the mask's eye openings (see-through pixels between its
  // left and right edges) are in the upper half of its rows, not the lower.
  std::size_t covered = 0, holesUpper = 0, holesLower = 0;
  int top = image.height, bottom = -1;
  std::vector<std::array<int, 3>> spans(image.height, {-1, -1, 0});  // first, last, count of opaque
  for (int y = 0; y < image.height; ++y)
    for (int x = 0; x < image.width; ++x)
      if (image.alpha(x, y) == 255) {
        if (spans[y][0] < 0) spans[y][0] = x;
        spans[y][1] = x;
        ++spans[y][2];
        ++covered;
        top = std::min(top, y);
        bottom = std::max(bottom, y);
      }
  EXPECT_GT(covered, image.width * image.height / 20u);
  EXPECT_EQ(image.alpha(image.width / 2, image.height / 2), 255);
  const int middle = (top + bottom) / 2;
  for (int y = top; y <= bottom; ++y) {
    if (spans[y][0] < 0) continue;
    const std::size_t holes = static_cast<std::size_t>(spans[y][1] - spans[y][0] + 1 - spans[y][2]);
    (y < middle ? holesUpper : holesLower) += holes;
  }
  EXPECT_GT(holesUpper, 1000u);
  EXPECT_GT(holesUpper, 10 * holesLower) << "rows " << top << ".." << bottom;

  EXPECT_TRUE(velmora.stopsCleanly(SIGTERM)) << velmora->output();
  for (const std::string line : {kStarted.c_str(), "[NDI] Sending 'Velmora' using " VELMORA_NDI_DOUBLE_DIR "/libndi.so.6",
                                 "[Velmora] NDI: sending to 1 receiver", "[Syphon] Server stopped", "[NDI] Sender stopped"})
    EXPECT_EQ(velmora->printed(line), 1) << line << "\n" << velmora->output();
}

}  // namespace
}  // namespace velmora
