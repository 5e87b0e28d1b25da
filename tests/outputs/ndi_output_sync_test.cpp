// The NDI output as the operator drives it: the scene's output sync starts
// and stops the real NDIPublisher (over the runtime double) with the NDI
// switch, shows what it is doing in ndiStatus, and hands it the frames the
// renderer finishes. No GL: the renderer stands in with patterned frames.
// Failures and their texts: ndi_publisher_test (the causes, the retry every
// 2 s) and output_sync_test (the status texts with the retry note).
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "animation/CharacterAnimationController.h"
#include "base/SettingsStore.h"
#include "outputs/NDIPublisher.h"
#include "outputs/NDIRuntimeDoubleHandle.h"
#include "scene/MaskSceneManager.h"
#include "support/LogCapture.h"
#include "support/ScopedEnv.h"
#include "support/StateFixture.h"
#include "support/TempDir.h"
#include "tracking/FaceTrackingState.h"

namespace velmora {
namespace {

bool waitUntil(const std::function<bool()>& done, double seconds = 5.0) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Finishes every submitted description at once as a frame of its size.
class InstantRenderer : public FrameRenderer {
 public:
  void setFrameHandler(FrameHandler h) override { handler_ = std::move(h); }
  void submit(std::shared_ptr<const FrameDescription> d) override {
    auto frame = std::make_shared<RenderedFrame>();
    frame->width = d->width;
    frame->height = d->height;
    frame->pixels.assign(static_cast<std::size_t>(d->width) * d->height * 4, 0x5a);
    if (handler_) handler_(frame);
  }
  Result renderNow(std::shared_ptr<const FrameDescription>) override { return {nullptr, "not here"}; }
  void stop() override {}

 private:
  FrameHandler handler_;
};

class NDIOutputSyncTest : public ::testing::Test, protected test::StateFixture {
 protected:
  NDIOutputSyncTest() {
    scene.setRenderer(std::make_unique<InstantRenderer>());
    scene.setOutputs(nullptr, &publisher);
    state.setIsSyphonActive(false);
  }
  ~NDIOutputSyncTest() override { scene.shutdownOutputs(); }

  // Past the status refresh interval, then one sync.
  std::string syncedStatus() {
    now += 0.6;
    scene.syncOutputs(state);
    return state.ndiStatus();
  }

  test::ScopedEnv v6{"NDI_RUNTIME_DIR_V6", test::ndiDoubleDir.c_str()};
  test::ScopedEnv v5{"NDI_RUNTIME_DIR_V5", nullptr};
  test::ScopedEnv connections{"NDI_DOUBLE_CONNECTIONS", nullptr};
  test::NDIRuntimeDoubleHandle runtime;
  test::TempDir noRuntime;
  CharacterAnimationController animation;
  MaskSceneManager scene{state, animation, [this] { return now; }};
  NDIPublisher publisher{{noRuntime.path().string()}, [this] { return now; }};
};

TEST_F(NDIOutputSyncTest, TheSwitchStartsAndStopsTheSenderAndTheStatusCountsReceivers) {
  ASSERT_TRUE(runtime.loaded());
  test::LogCapture log;
  EXPECT_EQ(syncedStatus(), "NDI: off");
  EXPECT_FALSE(publisher.isRunning());

  state.setIsNDIActive(true);
  EXPECT_EQ(syncedStatus(), "NDI: ready, waiting for a receiver");
  EXPECT_TRUE(publisher.isRunning());
  EXPECT_TRUE(log.has("[NDI] Sending 'Velmora' using " + test::ndiDoubleDir + "/libndi.so.6"));

  connections.set("1");
  EXPECT_EQ(syncedStatus(), "NDI: sending to 1 receiver");
  connections.set("2");
  EXPECT_EQ(syncedStatus(), "NDI: sending to 2 receivers");

  // Every rendered frame reaches the runtime, at output size.
  scene.renderOffscreenFrame();
  ASSERT_TRUE(waitUntil([&] { return runtime.framesSent() == 1; }));
  test::NDIRuntimeDoubleHandle::Sent sent;
  ASSERT_TRUE(runtime.lastFrame(sent));
  EXPECT_EQ(sent.frame.xres, MaskSceneManager::outputWidth);
  EXPECT_EQ(sent.frame.yres, MaskSceneManager::outputHeight);

  state.setIsNDIActive(false);
  EXPECT_EQ(syncedStatus(), "NDI: off");
  EXPECT_FALSE(publisher.isRunning());
  EXPECT_TRUE(log.has("[NDI] Sender stopped"));
  EXPECT_EQ(runtime.liveSenders(), 0);
  EXPECT_EQ(runtime.violations(), "");
}

}  // namespace
}  // namespace velmora
