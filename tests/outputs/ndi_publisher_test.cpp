// NDIPublisher against the runtime double: what a receiver gets (fields,
// pixels, send settings), the one-frame pipeline (drops while busy, stop
// waiting for a send), the search for the runtime and each way it fails,
// receiver counts and discovery.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <future>
#include <limits>
#include <thread>
#include <tuple>

#include "base/RuntimeLibrary.h"
#include "outputs/NDIPublisher.h"
#include "outputs/ndi_runtime_double/NDIDoubleReadout.h"
#include "support/ChildProcess.h"
#include "support/LogCapture.h"
#include "support/ScopedEnv.h"
#include "support/SolidFrame.h"
#include "support/TempDir.h"

namespace velmora {
namespace {

const std::string kNotFound = "NDI runtime not found. Install the free NDI Tools from https://ndi.video/tools/";
// Folders holding a complete double and one without
// NDIlib_send_get_no_connections, both named libndi.so.6.
const std::string kDoubleDir = VELMORA_NDI_DOUBLE_DIR;
const std::string kIncompleteDoubleDir = VELMORA_BINARY_DIR "/tests/ndi-runtime-missing";
using test::eventually;

// Every byte differs from its row neighbours and from the row above, so a
// wrong stride or a shifted pointer changes the checksum.
std::shared_ptr<RenderedFrame> patternFrame(int w, int h, std::uint8_t seed) {
  auto f = std::make_shared<RenderedFrame>(test::solidFrame(w, h, 0, 0, 0, 0));
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
  using Readout = NDIDoubleReadout<ndi::VideoFrameV2>;
  void SetUp() override {
    ASSERT_TRUE(runtime && runtime->symbol("NDIdouble_read")) << "build ndi_runtime_double first";
    runtime->function<void (*)()>("NDIdouble_reset")();
  }
  void TearDown() override { holdSends(false); }
  // What the double recorded since SetUp, and its live counts.
  Readout read() const {
    Readout r;
    runtime->function<void (*)(Readout*)>("NDIdouble_read")(&r);
    return r;
  }
  void holdSends(bool hold) { runtime->function<void (*)(bool)>("NDIdouble_hold_sends")(hold); }

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
  // The tests' view of the double: the same file the publisher loads, so both
  // see one copy of its state, kept loaded when the publisher closes its handle.
  std::unique_ptr<RuntimeLibrary> runtime = RuntimeLibrary::open(kDoubleDir + "/libndi.so.6").value;
};

// What receivers get, and discovery finding our source under the machine name.
TEST_F(NDIPublisherTest, SendsEachFrameFromTheRenderedMemoryWithTheFieldsReceiversNeedAndIsFound) {
  auto publisher = makePublisher();
  connections.set("1");
  // No sender yet, no runtime loaded yet.
  EXPECT_EQ(std::tuple(publisher->connectionCount(), publisher->findSources(0.1)), std::tuple(0, std::nullopt));

  test::LogCapture log;
  ASSERT_TRUE(publisher->start()) << publisher->lastError().value_or("");
  EXPECT_TRUE(publisher->start());  // a second start keeps the one sender, and says nothing
  EXPECT_EQ(std::ranges::count(log.lines(), "[NDI] Sending 'Velmora' using " + kDoubleDir + "/libndi.so.6"), 1);
  const Readout created = read();
  // In the default group, not paced by the runtime.
  EXPECT_EQ(std::tuple(created.liveSenders, created.groupsNull, created.clockVideo, created.clockAudio),
            std::tuple(1, true, false, false));
  // Receiver counts come from the runtime, asked each time.
  EXPECT_EQ(publisher->connectionCount(), 1);
  connections.set("3");
  EXPECT_EQ(publisher->clientCount(), 3);
  EXPECT_EQ(publisher->findSources(0.5), std::optional(std::vector{publisher->networkSourceName()}));
  EXPECT_TRUE(publisher->networkSourceName().ends_with(" (Velmora)"));

  // Every size-dependent field follows the frame; the frame goes out straight
  // from its memory, and is let go once sent (so its buffer can be reused).
  int sentSoFar = 0;
  for (const auto& [w, h, stride, aspect] : {std::tuple{1920, 1080, 7680, 1920.0f / 1080.0f}, {64, 32, 256, 2.0f}}) {
    SCOPED_TRACE(w);
    auto frame = patternFrame(w, h, 3);
    publisher->publish(frame);
    ASSERT_TRUE(eventually([&] { return read().framesSent == sentSoFar + 1; }, 5.0));
    ++sentSoFar;
    const Readout sent = read();
    const ndi::VideoFrameV2& f = sent.lastFrame;
    // 'B' 'G' 'R' 'A' at 60/1 frames/s, progressive (1), the timecode left to the runtime, no metadata, no
    // timestamp; the pixels straight from the frame's memory, all of them read at the stride.
    EXPECT_EQ(std::tuple(f.xres, f.yres, f.line_stride_in_bytes, f.picture_aspect_ratio, f.FourCC, f.frame_rate_N,
                         f.frame_rate_D, f.frame_format_type, f.timecode, f.p_metadata, f.timestamp, f.p_data,
                         sent.lastChecksum),
              std::tuple(w, h, stride, aspect, 0x41524742u, 60, 1, 1,
                         std::numeric_limits<std::int64_t>::max(), nullptr, 0, frame->pixels.data(), checksum(*frame)));
    EXPECT_TRUE(eventually([&] { return frame.use_count() == 1; }, 5.0));
  }

  publisher->stop();
  // No sender left, none asked, no broken promise.
  EXPECT_EQ(std::tuple(read().liveSenders, publisher->connectionCount(), std::string(read().firstViolation)),
            std::tuple(0, 0, ""));
  EXPECT_EQ(publisher->findSources(0.05), std::optional(std::vector<std::string>{}));
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

  holdSends(true);
  auto first = patternFrame(16, 8, 2);
  publisher->publish(first);
  ASSERT_TRUE(eventually([&] { return read().sendsInProgress == 1; }, 5.0));
  auto second = patternFrame(16, 8, 3);
  publisher->publish(second);  // busy: dropped, and not held on to
  EXPECT_EQ(second.use_count(), 1);
  holdSends(false);
  ASSERT_TRUE(eventually([&] { return first.use_count() == 1; }, 5.0));
  EXPECT_EQ(read().lastChecksum, checksum(*first));  // the dropped one never goes out: two sent in all, below

  holdSends(true);
  auto third = patternFrame(320, 180, 5);  // idle again: the next frame goes out, and stop waits for it
  publisher->publish(third);
  ASSERT_TRUE(eventually([&] { return read().sendsInProgress == 1; }, 5.0));
  auto stopping = std::async(std::launch::async, [&] { publisher->stop(); });
  EXPECT_EQ(stopping.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout)
      << "stop() returned while a send was in progress";
  EXPECT_FALSE(publisher->isRunning());  // new frames are refused at once
  holdSends(false);
  stopping.get();
  const Readout afterStop = read();
  EXPECT_EQ(std::tuple(afterStop.framesSent, afterStop.lastChecksum, third.use_count()),
            std::tuple(2, checksum(*third), 1L));
  publisher->stop();
  EXPECT_EQ(std::ranges::count(log.lines(), "[NDI] Sender stopped"), 1);
  publisher->publish(patternFrame(16, 8, 6));  // stopped: dropped
  EXPECT_EQ(read().framesSent, 2);

  std::jthread render([&, frame = patternFrame(16, 8, 1)](const std::stop_token& stop) {
    while (!stop.stop_requested()) publisher->publish(frame);
  });
  for (int i = 0; i < 20000 && read().violations == 0; ++i) {
    ASSERT_TRUE(publisher->start());
    publisher->stop();
  }
  render.request_stop();
  render.join();
  EXPECT_EQ(std::tuple(std::string(read().firstViolation), read().liveSenders), std::tuple("", 0));  // no broken promise
}

// Each failure leaves its text (and its log line once, however often it is
// retried), is retried only every 2 s however often the output
// sync asks, and a later start succeeds once the cause is gone (nothing about
// a failed search is remembered).
TEST_F(NDIPublisherTest, FailuresSayWhyAndALaterStartRecovers) {
  struct Row {
    const char* what;
    test::ScopedEnv* env;  // set to `cause` for the failure, to `cure` after it
    const char *cause, *cure;
    std::string error, logLine;  // the log line is said once; empty: none
    bool runtimeLoaded;
    int initializedAgain;  // at the retry 2 s later
  };
  const Row rows[] = {
      {"no runtime anywhere", &v6, nullptr, kDoubleDir.c_str(), kNotFound, "", false, 0},
      {"a runtime lacking an entry point", &v6, kIncompleteDoubleDir.c_str(), kDoubleDir.c_str(), kNotFound,
       "[NDI] " + kIncompleteDoubleDir + "/libndi.so.6 lacks NDIlib_send_get_no_connections; skipped", false, 0},
      {"initialisation refused", &refuse, "1", nullptr, "NDI runtime refused to initialize (unsupported CPU?)", "",
       false, 1},
      {"no sender", &failCreate, "1", nullptr, "NDI sender could not be created", "", true, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    auto publisher = makePublisher();
    row.env->set(row.cause);
    test::LogCapture log;
    EXPECT_FALSE(publisher->start());
    EXPECT_EQ(std::tuple(publisher->lastError(), publisher->isRuntimeLoaded(), publisher->isRunning()),
              std::tuple(row.error, row.runtimeLoaded, false));
    EXPECT_FALSE(log.hasPrefix("[NDI] Sending"));
    const int initialized = read().initializeCalls;
    const double failedAt = now;
    for (int frame = 0; frame < 30; ++frame, now += 1.0 / 60) EXPECT_FALSE(publisher->start());
    EXPECT_EQ(read().initializeCalls, initialized) << "asked again before " << NDIPublisher::retryInterval << " s";
    EXPECT_NEAR(publisher->retryIn().value_or(0), 1.5, 1e-9);
    now = failedAt + NDIPublisher::retryInterval;
    EXPECT_FALSE(publisher->start());  // tried again, same answer
    EXPECT_EQ(std::tuple(read().initializeCalls, publisher->lastError(), std::ranges::count(log.lines(), row.logLine)),
              std::tuple(initialized + row.initializedAgain, row.error, row.logLine.empty() ? 0 : 1));

    row.env->set(row.cure);
    now += NDIPublisher::retryInterval - 0.01;
    EXPECT_FALSE(publisher->start()) << "not tried again before " << NDIPublisher::retryInterval << " s";
    now += 0.01;
    EXPECT_TRUE(publisher->start()) << publisher->lastError().value_or("");
    EXPECT_EQ(std::tuple(publisher->lastError(), publisher->runtimePath()),
              std::tuple(std::nullopt, kDoubleDir + "/libndi.so.6"));
    publisher->stop();
    EXPECT_STREQ(read().firstViolation, "");  // no broken promise
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
  // V6 folder, V5 folder, the runtime chosen.
  for (const auto& [v6Dir, v5Dir, path] : {std::tuple<const char*, const char*, std::string>{
                                              kDoubleDir.c_str(), b.path().c_str(), kDoubleDir + "/libndi.so.6"},
                                          {kIncompleteDoubleDir.c_str(), b.path().c_str(), in(b, "libndi.so.6")},
                                          {nullptr, nullptr, in(c, "libndi.so.5")}}) {
    SCOPED_TRACE(path);
    v6.set(v6Dir);
    v5.set(v5Dir);
    NDIPublisher chosen({c.path().string()});
    ASSERT_TRUE(chosen.loadRuntime());
    EXPECT_EQ(chosen.runtimePath(), path);
  }
}

}  // namespace
}  // namespace velmora
