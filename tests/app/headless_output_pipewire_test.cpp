// A running headless velmora publishing into a private PipeWire session,
// watched from outside by gst-launch-1.0's pipewiresrc (a consumer nobody
// here wrote): the frame it receives, the status lines as consumers come and
// go, and both outputs stopped at exit. Daemon loss is the publisher's
// (syphon_publisher_pipewire_test), its status texts output_sync_test's.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/ChildProcess.h"
#include "support/PrivatePipeWire.h"
#include "support/StbImage.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

const std::string kVelmora = test::builtProgram("velmora");
const std::string kStarted =
    "[Syphon] Server 'Velmora' started using /usr/lib/x86_64-linux-gnu/libpipewire-0.3.so.0";
const std::string kReady = "[Velmora] Syphon: ready, waiting for a client";
const std::string kSending = "[Velmora] Syphon: sending to a client";
// A headless velmora on free ports with its own settings folder, in the
// given PipeWire session's environment.
struct Velmora {
  explicit Velmora(const test::PrivatePipeWire& session, nlohmann::json settings = nlohmann::json::object(),
                   std::vector<std::string> env = {}) {
    settings["oscCuePort"] = test::freeUdpPort();
    std::ofstream(config.path() / "settings.json") << settings.dump();
    for (const auto& e : session.env()) env.push_back(e);
    env.push_back("VELMORA_CONFIG_DIR=" + config.path().string());
    env.push_back("VELMORA_TRACKING_PORTS=" + std::to_string(test::freeUdpPort()));
    process = std::make_unique<test::ChildProcess>(std::vector<std::string>{kVelmora}, env);
  }
  test::TempDir config;
  std::unique_ptr<test::ChildProcess> process;
};

std::vector<std::string> gstOneFrame(const std::string& png) {
  // Software GL takes about half a second per frame, the first one longer.
  return {"/usr/bin/timeout", "60", "/usr/bin/gst-launch-1.0", "-q", "pipewiresrc", "target-object=Velmora",
          "num-buffers=1", "!", "videoconvert", "!", "pngenc", "!", "filesink", "location=" + png};
}

struct Image {
  int width = 0, height = 0;
  std::vector<std::uint8_t> rgba;
  std::uint8_t alpha(int x, int y) const { return rgba[(static_cast<std::size_t>(y) * width + x) * 4 + 3]; }
};

Image load(const std::string& path) {
  Image image;
  int channels = 0;
  if (stbi_uc* p = stbi_load(path.c_str(), &image.width, &image.height, &channels, 4)) {
    image.rgba.assign(p, p + static_cast<std::size_t>(image.width) * image.height * 4);
    stbi_image_free(p);
  }
  return image;
}

// Both outputs on (NDI through the test double of its runtime): each says
// what it is doing, and SIGTERM stops both once.
TEST(HeadlessOutputPipeWire, AConsumerReceivesTheCharacterAndTheStatusFollowsIt) {
  test::PrivatePipeWire session;
  ASSERT_TRUE(session.start());
  Velmora v(session, {{"ndiOutputEnabled", true}},
            {"NDI_RUNTIME_DIR_V6=" VELMORA_NDI_DOUBLE_DIR, "NDI_DOUBLE_CONNECTIONS=1"});
  test::ChildProcess& velmora = *v.process;
  ASSERT_TRUE(velmora.started());
  ASSERT_TRUE(velmora.waitForLine(kStarted, 20)) << velmora.output();
  ASSERT_TRUE(velmora.waitForLine(kReady, 20)) << velmora.output();
  ASSERT_TRUE(session.waitForNode("Velmora", 10));

  const std::string png = (session.dir() / "received.png").string();
  ASSERT_EQ(session.run(gstOneFrame(png), "gst.log"), 0) << velmora.output();
  EXPECT_TRUE(velmora.waitForLine(kSending, 10)) << velmora.output();
  EXPECT_TRUE(velmora.waitForLine(kReady, 20)) << velmora.output();  // the consumer left

  const Image image = load(png);
  ASSERT_EQ(image.width, 1920);
  ASSERT_EQ(image.height, 1080);
  // Transparent background: the borders are empty.
  for (int x = 0; x < image.width; x += 7) {
    EXPECT_EQ(image.alpha(x, 0), 0) << x;
    EXPECT_EQ(image.alpha(x, image.height - 1), 0) << x;
  }
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

  velmora.signal(SIGTERM);
  EXPECT_EQ(velmora.wait(20), 0) << velmora.output();
  EXPECT_TRUE(velmora.waitForLine("[Velmora] Stopped cleanly", 0)) << velmora.output();
  const auto& lines = velmora.lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), kStarted), 1) << velmora.output();
  EXPECT_EQ(std::count(lines.begin(), lines.end(),
                       "[NDI] Sending 'Velmora' using " VELMORA_NDI_DOUBLE_DIR "/libndi.so.6"), 1) << velmora.output();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "[Velmora] NDI: sending to 1 receiver"), 1) << velmora.output();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "[Syphon] Server stopped"), 1) << velmora.output();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "[NDI] Sender stopped"), 1) << velmora.output();
}

}  // namespace
}  // namespace velmora
