// A character made by a real third-party tool: Blender builds a textured head
// with ARKit-named shape keys and writes it with its own glTF exporter
// (tests/characters/blender/make.py); a headless velmora started with
// --character shows it in its PipeWire frame, and a jawOpen stream from a
// "phone" opens its jaw there. Skipped, saying why, where Blender is missing.
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "support/ChildProcess.h"
#include "support/PrivatePipeWire.h"
#include "support/StbImage.h"
#include "support/TempDir.h"
#include "support/UdpSocket.h"

namespace velmora {
namespace {

const std::string kVelmora = VELMORA_BINARY_DIR "/bin/velmora";
const std::string kMake = VELMORA_SOURCE_DIR "/tests/characters/blender/make.py";

struct Picture {
  int width = 0, height = 0;
  std::vector<std::uint8_t> rgba;
  const std::uint8_t* at(int x, int y) const { return &rgba[(static_cast<std::size_t>(y) * width + x) * 4]; }
  // The lowest row with an opaque pixel (the chin), -1 when none.
  int lowestCovered() const {
    for (int y = height - 1; y >= 0; --y)
      for (int x = 0; x < width; ++x)
        if (at(x, y)[3] == 255) return y;
    return -1;
  }
  // Opaque pixels whose colour leans the way the texture's two colours do.
  std::pair<std::size_t, std::size_t> orangeAndTeal() const {
    std::size_t orange = 0, teal = 0;
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x) {
        const std::uint8_t* p = at(x, y);
        if (p[3] != 255) continue;
        if (p[0] > p[1] + 30 && p[1] > p[2] + 10) ++orange;
        if (p[1] > p[0] + 30 && p[2] > p[0] + 30) ++teal;
      }
    return {orange, teal};
  }
};

Picture load(const std::string& path) {
  Picture picture;
  int channels = 0;
  if (stbi_uc* p = stbi_load(path.c_str(), &picture.width, &picture.height, &channels, 4)) {
    picture.rgba.assign(p, p + static_cast<std::size_t>(picture.width) * picture.height * 4);
    stbi_image_free(p);
  }
  return picture;
}

// Frames 0..3 as PREFIX0.png.. PREFIX3.png: the first buffer of a new link
// may be one the source filled for an earlier consumer, the last is fresh.
std::vector<std::string> gstFourFrames(const std::string& prefix) {
  return {"/usr/bin/timeout", "90", "/usr/bin/gst-launch-1.0", "-q", "pipewiresrc", "target-object=Velmora",
          "num-buffers=4", "!", "videoconvert", "!", "pngenc", "!", "multifilesink", "location=" + prefix + "%d.png"};
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
  test::TempDir config;
  const int trackingPort = test::freeUdpPort();
  std::ofstream(config.path() / "settings.json") << nlohmann::json{{"oscCuePort", test::freeUdpPort()}}.dump();
  std::vector<std::string> env = session.env();
  env.push_back("VELMORA_CONFIG_DIR=" + config.path().string());
  env.push_back("VELMORA_TRACKING_PORTS=" + std::to_string(trackingPort));
  test::ChildProcess velmora({kVelmora, "--character", head}, env);
  ASSERT_TRUE(velmora.started());
  // Read off the main thread; its line names what matched and what framed it.
  ASSERT_TRUE(velmora.waitForLine("[Character] Showing BlenderHead: 3 of 52 blendshapes, 6016 triangles, framed by "
                                  "head bone; targets not matched: Wobble",
                                  30))
      << velmora.output();
  ASSERT_TRUE(velmora.waitForLine("[Velmora] Syphon: ready, waiting for a client", 20)) << velmora.output();
  ASSERT_TRUE(session.waitForNode("Velmora", 10));

  const std::string restPng = (session.dir() / "rest").string();
  ASSERT_EQ(session.run(gstFourFrames(restPng), "gst-rest.log"), 0) << velmora.output();
  const Picture rest = load(restPng + "3.png");
  ASSERT_EQ(rest.width, 1920);
  const auto [orange, teal] = rest.orangeAndTeal();
  EXPECT_GT(orange, 50000u);  // the texture's upper colour, lit
  EXPECT_GT(teal, 20000u);    // and its lower one

  // A phone streams jawOpen (iFacialMocap text) while a frame is taken.
  std::atomic<bool> streaming{true};
  std::thread phone([&] {
    const test::UdpSocket socket;
    while (streaming) {
      socket.sendTo(static_cast<std::uint16_t>(trackingPort), "jawOpen-100|");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  std::this_thread::sleep_for(std::chrono::seconds(2));  // the filters settle
  const std::string jawPng = (session.dir() / "jaw").string();
  const int gst = session.run(gstFourFrames(jawPng), "gst-jaw.log");
  streaming = false;
  phone.join();
  ASSERT_EQ(gst, 0) << velmora.output();
  const Picture jaw = load(jawPng + "3.png");
  // The jaw drops: the chin's lowest row moves well down the frame.
  EXPECT_GT(jaw.lowestCovered(), rest.lowestCovered() + 40) << rest.lowestCovered() << " -> " << jaw.lowestCovered() << velmora.output();

  velmora.signal(SIGTERM);
  EXPECT_EQ(velmora.wait(20), 0) << velmora.output();
}

}  // namespace
}  // namespace velmora
