// Per-frame cost of the tracking state: one ingestPacket with all 52
// blendshapes and a head rotation (budget: 2 us on the 2-core development
// machine), single filter steps, and the receiver draining a flood of Live
// Link datagrams from a loopback socket (goal: >= 500 k decoded per second
// on the receiver's one thread).
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "base/SettingsStore.h"
#include "stage/ARKitBlendShape.h"
#include "support/TempDir.h"
#include "tracking/FaceTrackingState.h"
#include "tracking/OneEuroFilter1D.h"
#include "tracking/OneEuroFilter3D.h"
#include "tracking/TrackingReceiver.h"

namespace {

using namespace velmora;


// Frames that differ, so the filters see real movement.
std::array<BlendshapeMap, 4> frames() {
  std::array<BlendshapeMap, 4> out;
  for (std::size_t f = 0; f < out.size(); ++f) {
    for (ARKitBlendShape shape : allCases<ARKitBlendShape>()) {
      out[f][std::string(rawValue(shape))] = 0.1f + 0.01f * static_cast<float>(index(shape)) + 0.05f * f;
    }
  }
  return out;
}

void BM_IngestPacket52AndRotation(benchmark::State& state) {
  const test::TempDir folder;
  SettingsStore store(folder.path());
  double now = 0.0;
  FaceTrackingState tracking(store, [&now] { return now; });
  tracking.setRange("jawOpen", 0.1f, 0.8f);  // one ranged name, as after a calibration
  const auto maps = frames();
  std::array<std::optional<BlendshapeMap>, 4> packets;
  for (std::size_t i = 0; i < maps.size(); ++i) packets[i] = maps[i];
  const std::string sender = "192.168.1.20:50123";
  std::size_t i = 0;
  for (auto _ : state) {
    now += 1.0 / 60.0;
    const float wobble = 0.01f * static_cast<float>(i & 3);
    tracking.ingestPacket(packets[i & 3], float3(0.1f + wobble, -0.2f, 0.05f), std::nullopt, sender);
    ++i;
    benchmark::DoNotOptimize(tracking.blendshapes());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_IngestPacket52AndRotation);

void BM_OneEuroFilter1DStep(benchmark::State& state) {
  OneEuroFilter1D filter(1.98f, 0.0165f, 1.0f);
  double t = 0.0;
  float x = 0.3f;
  for (auto _ : state) {
    t += 1.0 / 60.0;
    x = x > 0.8f ? 0.2f : x + 0.05f;
    benchmark::DoNotOptimize(filter.filter(x, t));
  }
}
BENCHMARK(BM_OneEuroFilter1DStep);

void BM_OneEuroFilter3DStep(benchmark::State& state) {
  OneEuroFilter3D filter(1.65f, 0.011f, 1.0f);
  double t = 0.0;
  float x = 0.3f;
  for (auto _ : state) {
    t += 1.0 / 60.0;
    x = x > 0.8f ? 0.2f : x + 0.05f;
    benchmark::DoNotOptimize(filter.filter(float3(x, -x, 0.5f * x), t));
  }
}
BENCHMARK(BM_OneEuroFilter3DStep);

// ---------------------------------------------------------------------------
// Receiver drain under a flood
// ---------------------------------------------------------------------------

// Counts what the receiver decoded; the frame itself is dropped at once, as
// cheaply as a sink can.
class CountingSink final : public TrackingSink {
 public:
  void deliver(DecodedFrame frame) override {
    benchmark::DoNotOptimize(frame.frame.blendshapes);
    frames.fetch_add(1, std::memory_order_relaxed);
  }
  void deliverUnknown(const std::string&) override { unknown.fetch_add(1, std::memory_order_relaxed); }
  std::atomic<std::uint64_t> frames{0};
  std::atomic<std::uint64_t> unknown{0};
};

// A Live Link Face datagram as the iPhone app sends it: version 6, subject
// and device names, frame time, then 61 big-endian floats (52 blendshapes,
// head and eyes): 282 bytes.
std::vector<std::uint8_t> liveLinkDatagram() {
  std::vector<std::uint8_t> b{6};
  auto u32 = [&b](std::uint32_t v) {
    for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<std::uint8_t>(v >> s));
  };
  for (const char* name : {"device", "iPhone"}) {
    u32(6);
    b.insert(b.end(), name, name + 6);
  }
  for (int i = 0; i < 4; ++i) u32(1);
  b.push_back(61);
  for (std::uint32_t i = 0; i < 61; ++i) u32(std::bit_cast<std::uint32_t>(0.01f + 0.013f * static_cast<float>(i % 70)));
  return b;
}

// Sends the datagram to 127.0.0.1:port from its own thread, 64 per
// sendmmsg, as fast as the kernel takes them, until stopped.
class LoopbackFlood {
 public:
  LoopbackFlood(std::uint16_t port, std::vector<std::uint8_t> datagram)
      : datagram_(std::move(datagram)), fd_(::socket(AF_INET, SOCK_DGRAM, 0)) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(port);
    ::connect(fd_, reinterpret_cast<sockaddr*>(&to), sizeof to);
    thread_ = std::thread([this] { run(); });
  }
  ~LoopbackFlood() {
    stop_ = true;
    thread_.join();
    ::close(fd_);
  }
  std::uint64_t sent() const { return sent_.load(std::memory_order_relaxed); }

 private:
  void run() {
    constexpr unsigned kBatch = 64;
    std::array<iovec, kBatch> iov{};
    std::array<mmsghdr, kBatch> messages{};
    for (unsigned i = 0; i < kBatch; ++i) {
      iov[i] = {datagram_.data(), datagram_.size()};
      messages[i].msg_hdr.msg_iov = &iov[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
    while (!stop_.load(std::memory_order_relaxed)) {
      const int n = ::sendmmsg(fd_, messages.data(), kBatch, 0);
      if (n > 0) sent_.fetch_add(static_cast<std::uint64_t>(n), std::memory_order_relaxed);
    }
  }

  std::vector<std::uint8_t> datagram_;
  int fd_;
  std::atomic<bool> stop_{false};
  std::atomic<std::uint64_t> sent_{0};
  std::thread thread_;
};

double threadCpuSeconds(clockid_t clock) {
  timespec t{};
  ::clock_gettime(clock, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// A free loopback port: the kernel's choice for an ephemeral bind.
std::uint16_t freePort() {
  const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
  socklen_t length = sizeof a;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
  ::close(fd);
  return ntohs(a.sin_port);
}

// Each iteration is 100 ms of wall time with the flood running. Counters:
// decoded (per second of wall time), decoded_per_cpu_s (per second the
// receiver's thread spent on the CPU: its speed on one core, whatever else
// the machine runs), sent (what the flooding thread got into the kernel; the
// difference was dropped by the kernel when the socket buffer was full),
// per_wake_up (datagrams decoded per readiness event).
void Ours_ReceiverDrainLiveLink(benchmark::State& state) {
  auto sink = std::make_shared<CountingSink>();
  TrackingReceiver receiver(sink);
  const std::uint16_t port = freePort();
  receiver.setPorts({port});
  receiver.setBindAddress(INADDR_LOOPBACK);
  receiver.startListening();
  if (receiver.listeningPorts().empty()) {
    state.SkipWithError("could not listen on a loopback port");
    return;
  }
  pthread_t receiverThread{};
  receiver.queue().sync([&receiverThread] { receiverThread = ::pthread_self(); });
  clockid_t receiverClock{};
  ::pthread_getcpuclockid(receiverThread, &receiverClock);

  LoopbackFlood flood(port, liveLinkDatagram());
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // warm up: buffers full, caches hot
  const std::uint64_t frames0 = sink->frames.load(), sent0 = flood.sent();
  const std::uint64_t wakeUps0 = receiver.statistics().readinessEvents;
  const double cpu0 = threadCpuSeconds(receiverClock);
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  const double frames = static_cast<double>(sink->frames.load() - frames0);
  const double cpu = threadCpuSeconds(receiverClock) - cpu0;
  state.counters["decoded"] = benchmark::Counter(frames, benchmark::Counter::kIsRate);
  state.counters["sent"] = benchmark::Counter(static_cast<double>(flood.sent() - sent0), benchmark::Counter::kIsRate);
  state.counters["decoded_per_cpu_s"] = cpu > 0 ? frames / cpu : 0.0;
  state.counters["receiver_cpu_share"] = benchmark::Counter(cpu, benchmark::Counter::kIsRate);
  const auto wakeUps = static_cast<double>(receiver.statistics().readinessEvents - wakeUps0);
  state.counters["per_wake_up"] = wakeUps > 0 ? frames / wakeUps : 0.0;
  if (sink->unknown.load() != 0) state.SkipWithError("the receiver did not recognise the Live Link datagram");
}
BENCHMARK(Ours_ReceiverDrainLiveLink)->UseManualTime()->Iterations(20)->Unit(benchmark::kMillisecond);

}  // namespace
