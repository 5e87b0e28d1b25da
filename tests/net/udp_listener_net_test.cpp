// The shared listener's batched reads on a real loopback socket, with slots
// small enough that cutting and slot boundaries show.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/MainQueue.h"
#include "base/SerialQueue.h"
#include "support/UdpSocket.h"
#include "net/UdpListener.h"

namespace velmora {
namespace {

using test::freeUdpPort;
using test::UdpSocket;

// A listener on its own queue, opened on a free loopback port with
// callbacks that record what they saw (read from the test thread). The
// datagram "stop" closes the listener from within its callback.
struct Harness {
  SerialQueue queue{"test.listener"};
  UdpListener listener;
  std::vector<std::uint8_t> buffer;
  std::mutex mutex;
  std::vector<std::string> datagrams;
  std::vector<std::size_t> batches;
  std::atomic<int> readiness = 0, drained = 0;
  UdpListener::Callbacks callbacks;
  const std::uint16_t port = freeUdpPort();
  UdpSocket phone;

  Harness(UdpListener::Options options, std::size_t bufferBytes) : listener(queue.context(), options), buffer(bufferBytes) {
    // The sender's address and port reach the cue server's replies
    // (QLabServerTest.EveryMessageIsAnsweredExceptReplies).
    callbacks.onDatagram = [this](std::span<const std::uint8_t> bytes, const UdpSender&) {
      std::lock_guard lock(mutex);
      if (datagrams.emplace_back(bytes.begin(), bytes.end()) == "stop") listener.close();
    };
    callbacks.onBatch = [this](std::size_t n) {
      std::lock_guard lock(mutex);
      batches.push_back(n);
    };
    callbacks.onReadiness = [this] { ++readiness; };
    callbacks.onDrained = [this] { ++drained; };
  }
  bool open() {
    bool opened = false;
    queue.sync([&] { opened = bool(listener.open(port, buffer, callbacks, 0x7F000001)); });
    return opened;
  }
  // Sends while the queue is held, so that everything waits and is read in one go.
  void sendWhileBusy(const std::function<void()>& send) {
    std::promise<void> release;
    queue.post([released = release.get_future().share()] { released.wait(); });
    send();
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    release.set_value();
  }
  std::size_t count() {
    std::lock_guard lock(mutex);
    return datagrams.size();
  }
  bool waitFor(std::size_t n) { return MainQueue::shared().runUntil([&] { return count() >= n; }, 5.0); }
};

// Then a callback closes the listener in the middle of a read: the batch
// ends there, without its batch and drained calls.
TEST(UdpListenerNetTest, BatchesCutEachDatagramToItsSlotAndKeepOrderUntilACallbackCloses) {
  // 4 slots of 10 bytes; at most 9 datagrams per readiness event.
  Harness h({.maxDatagramsPerEvent = 9, .datagramsPerRead = 4}, 40);
  ASSERT_TRUE(h.open());
  std::vector<std::string> sent;
  h.sendWhileBusy([&] {
    for (int i = 0; i < 14; ++i) {
      // Alternately short, exactly one slot, and longer than a slot.
      std::string d = std::to_string(i) + (i % 3 == 0 ? "" : i % 3 == 1 ? "-abcdefgh" : "-abcdefghijklmnop");
      if (i % 3 == 1) d.resize(10);
      if (i == 7) h.phone.sendTo(h.port, "");  // empty: skipped, the rest still read
      h.phone.sendTo(h.port, d);
      sent.push_back(d.substr(0, 10));  // as read: cut to its slot
    }
  });
  ASSERT_TRUE(h.waitFor(sent.size()));
  // "after" is in the same read as "stop", "more" in the next.
  h.sendWhileBusy([&] {
    for (const char* d : {"one", "two", "stop", "after", "more"}) h.phone.sendTo(h.port, d);
  });
  sent.insert(sent.end(), {"one", "two", "stop"});
  ASSERT_TRUE(h.waitFor(sent.size()));
  h.queue.sync([] {});
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  std::lock_guard lock(h.mutex);
  EXPECT_EQ(h.datagrams, sent);
  // 15 datagrams (one empty) in reads of at most 4, at most 9 per event:
  // 4 + 4 + 1 | 4 + 2; then an event whose first read is cut short.
  EXPECT_EQ(h.batches, (std::vector<std::size_t>{4, 4, 1, 4, 2}));
  EXPECT_EQ(h.readiness, 3);
  EXPECT_EQ(h.drained, 2);
  EXPECT_FALSE(h.listener.isOpen());
}

// A burst far beyond the default receive buffer (about 160 small datagrams)
// waits whole in a larger one while the queue is busy.
TEST(UdpListenerNetTest, ALargerReceiveBufferKeepsALongBurst) {
  constexpr int kBuffer = 2 * 1024 * 1024;
  long rmemMax = 0;
  std::ifstream("/proc/sys/net/core/rmem_max") >> rmemMax;
  if (rmemMax < kBuffer) GTEST_SKIP() << "net.core.rmem_max is " << rmemMax << ", below " << kBuffer;
  Harness h({.datagramsPerRead = 32, .receiveBufferBytes = kBuffer}, 32 * 64);
  ASSERT_TRUE(h.open());
  constexpr int kBurst = 1500;
  h.sendWhileBusy([&] {
    for (int i = 0; i < kBurst; ++i) h.phone.sendTo(h.port, std::to_string(i));
  });
  ASSERT_TRUE(h.waitFor(kBurst)) << h.count() << " of " << kBurst;
  h.queue.sync([&] { h.listener.close(); });
  std::lock_guard lock(h.mutex);
  for (int i = 0; i < kBurst; ++i) ASSERT_EQ(h.datagrams[i], std::to_string(i));
}

}  // namespace
}  // namespace velmora
