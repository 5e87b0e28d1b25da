// NDIPublisher against the runtime double: what a receiver gets (fields,
// pixels, send settings), the one-frame pipeline (drops while busy, stop
// waiting for a send), the search for the runtime and each way it fails,
// receiver counts and discovery.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <thread>

#include "base/RuntimeLibrary.h"
#include "outputs/NDIPublisher.h"
#include "outputs/ndi_runtime_double/NDIDoubleReadout.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/ScopedEnv.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

const std::string kNotFound = "NDI runtime not found. Install the free NDI Tools from https://ndi.video/tools/";
// Folders holding a complete double and one without
// NDIlib_send_get_no_connections, both named libndi.so.6.
const std::string kDoubleDir = VELMORA_NDI_DOUBLE_DIR;
const std::string kIncompleteDoubleDir = VELMORA_BINARY_DIR "/tests/ndi-runtime-missing";
using test::eventually;

// The tests' view of the double: opens the same file the publisher loads, so
// both see one copy of its state, and keeps it loaded for the whole test even
// when the publisher closes its handle.
class RuntimeDouble {
 public:
  using Readout = NDIDoubleReadout<ndi::VideoFrameV2>;
  bool loaded() const { return library_ && library_->symbol("NDIdouble_read"); }
  void reset() { library_->function<void (*)()>("NDIdouble_reset")(); }
  void holdSends(bool hold) { library_->function<void (*)(bool)>("NDIdouble_hold_sends")(hold); }
  Readout read() const {
    Readout r;
    library_->function<void (*)(Readout*)>("NDIdouble_read")(&r);
    return r;
  }
  std::string violations() const {
    const Readout r = read();
    return r.violations ? std::to_string(r.violations) + " violation(s), first: " + r.firstViolation : "";
  }

 private:
  std::unique_ptr<RuntimeLibrary> library_ = RuntimeLibrary::open(kDoubleDir + "/libndi.so.6").value;
};

// Every byte differs from its row neighbours and from the row above, so a
// wrong stride or a shifted pointer changes the checksum.
std::shared_ptr<RenderedFrame> patternFrame(int w, int h, std::uint8_t seed) {
  auto f = std::make_shared<RenderedFrame>();
  f->width = w;
  f->height = h;
  f->pixels.resize(static_cast<std::size_t>(w) * h * 4);
  for (std::size_t i = 0; i < f->pixels.size(); ++i) f->pixels[i] = static_cast<std::uint8_t>(i * 7 + i / (w * 4) + seed);
  return f;
}

// What a runtime reading w x h BGRA pixels row by row sees (FNV-1a).
std::uint64_t checksum(const RenderedFrame& f) {
  std::uint64_t h = 1469598103934665603ull;
  for (std::uint8_t b : f.pixels) h = (h ^ b) * 1099511628211ull;
  return h;
}

class NDIPublisherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(runtime.loaded()) << "build ndi_runtime_double first";
    runtime.reset();
  }
  void TearDown() override { runtime.holdSends(false); }

  // The fixed folders hold nothing, so only the environment finds a runtime.
  std::unique_ptr<NDIPublisher> makePublisher() {
    return std::make_unique<NDIPublisher>(std::vector<std::string>{noRuntime.path().string()},
                                          [this] { return now; });
  }

  double now = 50.0;  // the publishers' clock, seconds

  test::TempDir noRuntime;
  test::ScopedEnv v6{"NDI_RUNTIME_DIR_V6", kDoubleDir.c_str()};
  test::ScopedEnv v5{"NDI_RUNTIME_DIR_V5", nullptr};
  test::ScopedEnv refuse{"NDI_DOUBLE_REFUSE_INIT", nullptr};
  test::ScopedEnv failCreate{"NDI_DOUBLE_FAIL_CREATE", nullptr};
  test::ScopedEnv connections{"NDI_DOUBLE_CONNECTIONS", nullptr};
  test::ScopedEnv failFind{"NDI_DOUBLE_FAIL_FIND", nullptr};
  RuntimeDouble runtime;
};

// What receivers get, and discovery finding our source under the machine name.
TEST_F(NDIPublisherTest, SendsEachFrameFromTheRenderedMemoryWithTheFieldsReceiversNeedAndIsFound) {
  auto publisher = makePublisher();
  connections.set("1");
  EXPECT_EQ(publisher->connectionCount(), 0);  // no sender yet
  EXPECT_FALSE(publisher->findSources(0.1)) << "no runtime loaded yet";

  test::LogCapture log;
  ASSERT_TRUE(publisher->start()) << publisher->lastError().value_or("");
  EXPECT_TRUE(log.has("[NDI] Sending 'Velmora' using " + kDoubleDir + "/libndi.so.6"));
  EXPECT_TRUE(publisher->start());  // a second start keeps the one sender
  EXPECT_EQ(runtime.read().liveSenders, 1);
  // Receiver counts come from the runtime, asked each time.
  EXPECT_EQ(publisher->connectionCount(), 1);
  connections.set("3");
  EXPECT_EQ(publisher->clientCount(), 3);
  const auto found = publisher->findSources(0.5);
  ASSERT_TRUE(found);
  EXPECT_EQ(*found, std::vector<std::string>{publisher->networkSourceName()});
  EXPECT_TRUE(publisher->networkSourceName().ends_with(" (Velmora)"));

  const RuntimeDouble::Readout created = runtime.read();
  EXPECT_TRUE(created.groupsNull);
  EXPECT_FALSE(created.clockVideo);  // not paced by the runtime
  EXPECT_FALSE(created.clockAudio);

  // Every size-dependent field follows the frame; the frame goes out straight
  // from its memory, and is let go once sent (so its buffer can be reused).
  struct Row {
    int w, h, stride;
    float aspect;
  };
  const Row rows[] = {{1920, 1080, 7680, 1920.0f / 1080.0f}, {64, 32, 256, 2.0f}};
  int sentSoFar = 0;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.w);
    auto frame = patternFrame(row.w, row.h, 3);
    publisher->publish(frame);
    ASSERT_TRUE(eventually([&] { return runtime.read().framesSent == sentSoFar + 1; }, 5.0));
    ++sentSoFar;
    const RuntimeDouble::Readout sent = runtime.read();
    EXPECT_EQ(sent.lastFrame.xres, row.w);
    EXPECT_EQ(sent.lastFrame.yres, row.h);
    EXPECT_EQ(sent.lastFrame.FourCC, 0x41524742u);  // 'B' 'G' 'R' 'A'
    EXPECT_EQ(sent.lastFrame.frame_rate_N, 60);
    EXPECT_EQ(sent.lastFrame.frame_rate_D, 1);
    EXPECT_FLOAT_EQ(sent.lastFrame.picture_aspect_ratio, row.aspect);
    EXPECT_EQ(sent.lastFrame.frame_format_type, 1);  // progressive
    EXPECT_EQ(sent.lastFrame.timecode, std::numeric_limits<std::int64_t>::max());  // runtime synthesises it
    EXPECT_EQ(sent.lastFrame.line_stride_in_bytes, row.stride);
    EXPECT_EQ(sent.lastFrame.p_metadata, nullptr);
    EXPECT_EQ(sent.lastFrame.timestamp, 0);
    EXPECT_EQ(sent.lastFrame.p_data, frame->pixels.data());
    EXPECT_EQ(sent.lastChecksum, checksum(*frame));
    EXPECT_TRUE(eventually([&] { return frame.use_count() == 1; }, 5.0));
  }

  publisher->stop();
  EXPECT_EQ(runtime.read().liveSenders, 0);
  EXPECT_EQ(publisher->connectionCount(), 0);
  EXPECT_EQ(runtime.violations(), "");
  const auto after = publisher->findSources(0.05);
  ASSERT_TRUE(after);
  EXPECT_TRUE(after->empty());
  failFind.set("1");
  EXPECT_FALSE(publisher->findSources(0.05)) << "a finder that cannot be created";
}

// One frame in flight, the rest dropped and not held on to; nothing before
// start or after stop; stop waits for the send in progress (and says so
// once); then the render thread keeps offering frames while the operator
// flips the switch: a frame accepted just before a stop must never reach a
// sender that stop() has already destroyed.
TEST_F(NDIPublisherTest, OneFrameInFlightStopWaitsForItAndNoneReachesADestroyedSender) {
  auto publisher = makePublisher();
  publisher->publish(patternFrame(16, 8, 1));  // no sender yet: dropped
  ASSERT_TRUE(publisher->start());
  test::LogCapture log;

  runtime.holdSends(true);
  auto first = patternFrame(16, 8, 2);
  publisher->publish(first);
  ASSERT_TRUE(eventually([&] { return runtime.read().sendsInProgress == 1; }, 5.0));
  auto second = patternFrame(16, 8, 3);
  publisher->publish(second);  // busy: dropped, and not held on to
  EXPECT_EQ(second.use_count(), 1);
  runtime.holdSends(false);
  ASSERT_TRUE(eventually([&] { return first.use_count() == 1; }, 5.0));
  EXPECT_EQ(runtime.read().lastChecksum, checksum(*first));  // the dropped one never goes out: two sent in all, below

  runtime.holdSends(true);
  auto third = patternFrame(320, 180, 5);  // idle again: the next frame goes out, and stop waits for it
  publisher->publish(third);
  ASSERT_TRUE(eventually([&] { return runtime.read().sendsInProgress == 1; }, 5.0));
  std::atomic<bool> stopped{false};
  std::thread stopper([&] {
    publisher->stop();
    stopped = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(stopped) << "stop() returned while a send was in progress";
  EXPECT_FALSE(publisher->isRunning());  // new frames are refused at once
  runtime.holdSends(false);
  stopper.join();
  EXPECT_EQ(runtime.read().framesSent, 2);
  EXPECT_EQ(runtime.read().lastChecksum, checksum(*third));
  EXPECT_EQ(third.use_count(), 1);
  publisher->stop();
  EXPECT_EQ(std::ranges::count(log.lines(), "[NDI] Sender stopped"), 1);
  publisher->publish(patternFrame(16, 8, 6));  // stopped: dropped
  EXPECT_EQ(runtime.read().framesSent, 2);

  std::atomic<bool> done{false};
  std::thread render([&] {
    auto frame = patternFrame(16, 8, 1);
    while (!done) publisher->publish(frame);
  });
  for (int i = 0; i < 20000 && runtime.violations().empty(); ++i) {
    ASSERT_TRUE(publisher->start());
    publisher->stop();
  }
  done = true;
  render.join();
  EXPECT_EQ(runtime.violations(), "");
  EXPECT_EQ(runtime.read().liveSenders, 0);
}

// Each failure leaves its text (and its log line once, however often it is
// retried), is retried only every 2 s however often the output
// sync asks, and a later start succeeds once the cause is gone (nothing about
// a failed search is remembered).
TEST_F(NDIPublisherTest, FailuresSayWhyAndALaterStartRecovers) {
  const std::string incompleteLine =
      "[NDI] " + kIncompleteDoubleDir + "/libndi.so.6 lacks NDIlib_send_get_no_connections; skipped";
  struct Row {
    const char* what;
    std::function<void()> cause, cure;
    std::string error;
    bool runtimeLoaded;
    std::string logLine;  // said once; empty: none checked
    int initializedAgain;  // at the retry 2 s later
  };
  const Row rows[] = {
      {"no runtime anywhere", [&] { v6.set(nullptr); }, [&] { v6.set(kDoubleDir.c_str()); }, kNotFound, false, "", 0},
      {"a runtime lacking an entry point", [&] { v6.set(kIncompleteDoubleDir.c_str()); },
       [&] { v6.set(kDoubleDir.c_str()); }, kNotFound, false, incompleteLine, 0},
      {"initialisation refused", [&] { refuse.set("1"); }, [&] { refuse.set(nullptr); },
       "NDI runtime refused to initialize (unsupported CPU?)", false, "", 1},
      {"no sender", [&] { failCreate.set("1"); }, [&] { failCreate.set(nullptr); }, "NDI sender could not be created",
       true, "", 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    auto publisher = makePublisher();
    row.cause();
    test::LogCapture log;
    EXPECT_FALSE(publisher->start());
    EXPECT_EQ(publisher->lastError(), row.error);
    EXPECT_EQ(publisher->isRuntimeLoaded(), row.runtimeLoaded);
    EXPECT_FALSE(publisher->isRunning());
    EXPECT_FALSE(log.hasPrefix("[NDI] Sending"));
    const int initialized = runtime.read().initializeCalls;
    const double failedAt = now;
    for (int frame = 0; frame < 30; ++frame, now += 1.0 / 60) EXPECT_FALSE(publisher->start());
    EXPECT_EQ(runtime.read().initializeCalls, initialized) << "asked again before " << NDIPublisher::retryInterval << " s";
    EXPECT_NEAR(publisher->retryIn().value_or(0), 1.5, 1e-9);
    now = failedAt + NDIPublisher::retryInterval;
    EXPECT_FALSE(publisher->start());  // tried again, same answer
    EXPECT_EQ(runtime.read().initializeCalls, initialized + row.initializedAgain);
    EXPECT_EQ(publisher->lastError(), row.error);
    if (!row.logLine.empty()) {
      EXPECT_EQ(std::ranges::count(log.lines(), row.logLine), 1);
    }

    row.cure();
    now += NDIPublisher::retryInterval - 0.01;
    EXPECT_FALSE(publisher->start()) << "not tried again before " << NDIPublisher::retryInterval << " s";
    now += 0.01;
    EXPECT_TRUE(publisher->start()) << publisher->lastError().value_or("");
    EXPECT_FALSE(publisher->lastError());
    EXPECT_EQ(publisher->runtimePath(), kDoubleDir + "/libndi.so.6");
    publisher->stop();
    EXPECT_EQ(runtime.violations(), "");
  }
}

TEST_F(NDIPublisherTest, SearchesTheEnvironmentFoldersFirstNewestRuntimeFirst) {
  test::TempDir a, b, c;
  v6.set(a.path().c_str());
  v5.set(b.path().c_str());
  NDIPublisher publisher({c.path().string()});
  const auto in = [](const test::TempDir& d, const char* file) { return (d.path() / file).string(); };
  EXPECT_EQ(publisher.candidateRuntimePaths(),
            (std::vector<std::string>{in(a, "libndi.so.6"), in(a, "libndi.so.5"), in(b, "libndi.so.6"),
                                      in(b, "libndi.so.5"), in(c, "libndi.so.6"), in(c, "libndi.so.5")}));
  v5.set("");  // set but empty: not a folder
  EXPECT_EQ(publisher.candidateRuntimePaths().size(), 4u);

  // A usable runtime in the V6 folder wins over one in the V5 folder and one
  // in a fixed folder; an unusable one there is passed over.
  std::filesystem::copy_file(kDoubleDir + "/libndi.so.6", b.path() / "libndi.so.6");
  std::filesystem::copy_file(kDoubleDir + "/libndi.so.6", c.path() / "libndi.so.5");
  struct Row {
    const char* v6;
    const char* v5;
    std::string chosen;
  };
  const Row rows[] = {{kDoubleDir.c_str(), b.path().c_str(), kDoubleDir + "/libndi.so.6"},
                      {kIncompleteDoubleDir.c_str(), b.path().c_str(), in(b, "libndi.so.6")},
                      {nullptr, nullptr, in(c, "libndi.so.5")}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.chosen);
    v6.set(row.v6);
    v5.set(row.v5);
    NDIPublisher chosen({c.path().string()});
    ASSERT_TRUE(chosen.loadRuntime());
    EXPECT_EQ(chosen.runtimePath(), row.chosen);
  }
}

}  // namespace
}  // namespace velmora
