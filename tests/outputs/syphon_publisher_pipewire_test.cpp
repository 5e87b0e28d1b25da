// SyphonPublisher over a private PipeWire session, with real consumers
// (gst-launch-1.0's pipewiresrc): what a consumer receives, the client state
// as consumers come and go, and the daemon missing, killed and restarted.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "outputs/PipeWireVideoSource.h"
#include "outputs/SyphonPublisher.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/PrivatePipeWire.h"
#include "support/SolidFrame.h"
#include "support/StbImage.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

const std::string systemFolder = "/usr/lib/x86_64-linux-gnu";
const std::string systemLibrary = systemFolder + "/libpipewire-0.3.so.0";

// 1920 x 1080, transparent but for an opaque red top-left quadrant and a
// half-transparent blue bottom-right one: tells rows flipped, channels
// swapped and alpha lost apart.
std::shared_ptr<const RenderedFrame> quadrantFrame() {
  auto frame = std::make_shared<RenderedFrame>(test::solidFrame(1920, 1080, 0, 0, 0, 0));
  for (int y = 0; y < frame->height; ++y)
    for (int x = 0; x < frame->width; ++x) {
      std::uint8_t* p = frame->pixels.data() + (static_cast<std::size_t>(y) * frame->width + x) * 4;
      if (x < 960 && y < 540) p[2] = p[3] = 255;                  // BGRA red
      if (x >= 960 && y >= 540) p[0] = 255, p[3] = 128;           // BGRA blue, half alpha
    }
  return frame;
}

std::vector<std::string> gstOneFrame(const std::string& png) {
  return {"/usr/bin/timeout", "20", "/usr/bin/gst-launch-1.0", "-q", "pipewiresrc", "target-object=Velmora", "num-buffers=1", "!",
          "videoconvert", "!", "pngenc", "!", "filesink", "location=" + png};
}

// The library is looked for once, in the folders' order; its absence and a
// missing daemon are both status texts, and a start while the daemon is away
// is retried only every two seconds. Then the daemon dies under the running
// server: the publisher notices, says why, and comes back by itself once a
// daemon runs again, and serves consumers as they come and go.
TEST(SyphonPublisherPipeWire, FromNoLibraryAndNoDaemonToConsumersAcrossADaemonRestart) {
  test::TempDir empty;
  double now = 100.0;
  {
    SyphonPublisher publisher({empty.path().string(), "/nonexistent/lib"}, [&] { return now; }, false);
    EXPECT_FALSE(publisher.start());
    EXPECT_EQ(std::tuple(publisher.lastError(), publisher.frameworkPath(), publisher.isRunning()),
              std::tuple("PipeWire not found (looked in " + empty.path().string() + ", /nonexistent/lib)", std::nullopt,
                         false));
    EXPECT_FALSE(publisher.loadFramework());  // never a second search
  }
  {
    // Installed where no listed folder is (as in /usr/lib64): the system
    // loader finds it by soname, and that place is logged like the others.
    test::LogCapture log;
    SyphonPublisher publisher({empty.path().string()}, [&] { return now; });
    ASSERT_TRUE(publisher.loadFramework()) << publisher.lastError().value_or("");
    const std::string path = publisher.frameworkPath().value_or("");
    EXPECT_TRUE(path.starts_with("/") && path.ends_with("/libpipewire-0.3.so.0")) << path;
    EXPECT_TRUE(log.has("[Syphon] Looked for libpipewire-0.3.so.0 through the system loader: loaded (" + path + ")"));
  }

  test::PrivatePipeWire session;  // this process now looks for its daemon in an empty folder
  SyphonPublisher publisher({empty.path().string(), systemFolder}, [&] { return now; });
  test::LogCapture log;
  EXPECT_FALSE(publisher.start());
  EXPECT_EQ(std::tuple(publisher.frameworkPath(), publisher.lastError()),
            std::tuple(systemLibrary, "PipeWire video source could not be created (is PipeWire running?)"));

  ASSERT_TRUE(session.start());
  now += 1.0;  // too soon: not tried, although the daemon is there now
  EXPECT_FALSE(publisher.start());
  now += 1.1;
  EXPECT_TRUE(publisher.start());
  EXPECT_EQ(std::tuple(publisher.isRunning(), publisher.lastError()), std::tuple(true, std::nullopt));
  EXPECT_TRUE(publisher.start());  // starting twice is harmless, and said once
  EXPECT_EQ(std::ranges::count(log.lines(), "[Syphon] Server 'Velmora' started using " + systemLibrary), 1);
  EXPECT_TRUE(session.waitForNode("Velmora", 5.0));

  session.kill();
  // A killed daemon leaves its socket file behind; nothing answers on it.
  EXPECT_TRUE(std::filesystem::exists(session.dir() / "pipewire-0"));
  EXPECT_FALSE(PipeWireVideoSource::daemonSocketAnswers());
  EXPECT_TRUE(test::eventually([&] { return !publisher.isRunning(); }, 5.0));
  EXPECT_FALSE(publisher.hasClients());
  publisher.publish(quadrantFrame());  // dropped, harmlessly
  EXPECT_FALSE(publisher.start());
  EXPECT_EQ(publisher.lastError(), "PipeWire video source could not be created (is PipeWire running?)");
  EXPECT_TRUE(log.hasPrefix("[Syphon] Server lost its PipeWire connection ("));

  ASSERT_TRUE(session.start());
  now += 2.5;
  EXPECT_TRUE(publisher.start());
  EXPECT_TRUE(session.waitForNode("Velmora", 5.0));
  {
    // A consumer receives the frame upright, colours in place, alpha kept;
    // the client state follows consumers coming and going, including one
    // killed while frames flow.
    // A frame every 20 ms on its own thread, as the render thread would.
    const std::jthread feeder([&publisher, frame = quadrantFrame()](const std::stop_token& stop) {
      for (; !stop.stop_requested(); std::this_thread::sleep_for(std::chrono::milliseconds(20))) publisher.publish(frame);
    });
    const std::string png = (session.dir() / "received.png").string();
    ASSERT_EQ(session.run(gstOneFrame(png), "gst.log"), 0);
    const test::Picture received = test::loadPicture(png);
    ASSERT_EQ(std::pair(received.width, received.height), std::pair(1920, 1080)) << "no PNG from the consumer";
    // Red top left, blue bottom right at half alpha, transparent elsewhere.
    std::vector<int> rgba;
    for (auto [x, y] : {std::pair{100, 100}, {1800, 1000}, {1800, 100}, {100, 1000}})
      rgba.insert(rgba.end(), received.at(x, y), received.at(x, y) + 4);
    EXPECT_EQ(rgba, (std::vector<int>{255, 0, 0, 255, 0, 0, 255, 128, 0, 0, 0, 0, 0, 0, 0, 0}));
    // The consumer has gone: back to no client.
    EXPECT_TRUE(test::eventually([&] { return !publisher.hasClients(); }, 3.0));

    // A consumer that never stops, killed mid-stream.
    pid_t consumer = session.spawn({"/usr/bin/gst-launch-1.0", "-q", "pipewiresrc", "target-object=Velmora", "!",
                                    "video/x-raw", "!", "fakesink"});
    ASSERT_GT(consumer, 0);
    EXPECT_TRUE(test::eventually([&] { return publisher.hasClients(); }, 10.0));
    const auto copiedBefore = publisher.source()->counters().copied;
    EXPECT_TRUE(test::eventually([&] { return publisher.source()->counters().copied > copiedBefore + 5; }, 5.0));
    test::PrivatePipeWire::killOne(consumer, SIGKILL);
    EXPECT_TRUE(test::eventually([&] { return !publisher.hasClients(); }, 5.0));
    EXPECT_TRUE(publisher.isRunning());

    // And the next consumer is served as before.
    EXPECT_EQ(session.run(gstOneFrame(png), "gst.log"), 0);
  }
  publisher.stop();
  publisher.stop();
  EXPECT_EQ(std::tuple(std::ranges::count(log.lines(), "[Syphon] Server stopped"), publisher.isRunning()),
            std::tuple(1, false));
}

}  // namespace
}  // namespace velmora
