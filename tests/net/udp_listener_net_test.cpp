// The shared listener's batched reads on a real loopback socket, with slots
// small enough that cutting and slot boundaries show.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/SerialQueue.h"
#include "support/UdpSocket.h"
#include "net/UdpListener.h"

namespace velmora {
namespace {

using test::freeUdpPort;
using test::UdpSocket;

// What the callbacks saw, read from the test thread.
struct Seen {
  std::mutex mutex;
  std::vector<std::string> datagrams;
  std::vector<std::uint16_t> senderPorts;
  std::vector<std::size_t> batches;
  int readiness = 0;
  int drained = 0;

  std::size_t count() {
    std::lock_guard lock(mutex);
    return datagrams.size();
  }
};

UdpListener::Callbacks recordInto(Seen& seen) {
  UdpListener::Callbacks callbacks;
  callbacks.onDatagram = [&seen](std::span<const std::uint8_t> bytes, const UdpSender& from) {
    std::lock_guard lock(seen.mutex);
    seen.datagrams.emplace_back(bytes.begin(), bytes.end());
    seen.senderPorts.push_back(from.port);
  };
  callbacks.onBatch = [&seen](std::size_t n) {
    std::lock_guard lock(seen.mutex);
    seen.batches.push_back(n);
  };
  callbacks.onReadiness = [&seen] {
    std::lock_guard lock(seen.mutex);
    ++seen.readiness;
  };
  callbacks.onDrained = [&seen] {
    std::lock_guard lock(seen.mutex);
    ++seen.drained;
  };
  return callbacks;
}

bool waitFor(const std::function<bool()>& pred) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (std::chrono::steady_clock::now() < deadline) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return pred();
}

// Holds the queue until the returned promise is set, so datagrams pile up.
std::promise<void> holdQueue(SerialQueue& queue) {
  std::promise<void> release;
  auto released = release.get_future().share();
  queue.post([released] { released.wait(); });
  return release;
}

TEST(UdpListenerNetTest, BatchesCutEachDatagramToItsSlotAndKeepOrder) {
  SerialQueue queue("test.listener");
  // 4 slots of 10 bytes; at most 9 datagrams per readiness event.
  UdpListener listener(queue.context(), {.maxDatagramsPerEvent = 9, .datagramsPerRead = 4});
  std::vector<std::uint8_t> buffer(40);
  Seen seen;
  const std::uint16_t port = freeUdpPort();
  bool opened = false;
  queue.sync([&] { opened = bool(listener.open(port, buffer, recordInto(seen), 0x7F000001)); });
  ASSERT_TRUE(opened);

  auto release = holdQueue(queue);
  UdpSocket phone;
  std::vector<std::string> sent;
  for (int i = 0; i < 14; ++i) {
    // Alternately short, exactly one slot, and longer than a slot.
    std::string d = std::to_string(i) + (i % 3 == 0 ? "" : i % 3 == 1 ? "-abcdefgh" : "-abcdefghijklmnop");
    if (i % 3 == 1) d.resize(10);
    if (i == 7) phone.sendTo(port, "");  // empty: skipped, the rest still read
    phone.sendTo(port, d);
    sent.push_back(d);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  release.set_value();

  ASSERT_TRUE(waitFor([&] { return seen.count() == sent.size(); }));
  queue.sync([&] { listener.close(); });
  std::lock_guard lock(seen.mutex);
  for (std::size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(seen.datagrams[i], sent[i].substr(0, 10)) << i;
    EXPECT_EQ(seen.senderPorts[i], phone.port());
  }
  // 15 datagrams (one empty) in reads of at most 4, at most 9 per event:
  // 4 + 4 + 1 | 4 + 2.
  EXPECT_EQ(seen.batches, (std::vector<std::size_t>{4, 4, 1, 4, 2}));
  EXPECT_EQ(seen.readiness, 2);
  EXPECT_EQ(seen.drained, 2);
}

TEST(UdpListenerNetTest, ClosingFromACallbackStopsTheBatch) {
  SerialQueue queue("test.listener");
  UdpListener listener(queue.context(), {.datagramsPerRead = 8});
  std::vector<std::uint8_t> buffer(8 * 64);
  Seen seen;
  auto callbacks = recordInto(seen);
  auto record = callbacks.onDatagram;
  callbacks.onDatagram = [&, record](std::span<const std::uint8_t> bytes, const UdpSender& from) {
    record(bytes, from);
    if (std::string(bytes.begin(), bytes.end()) == "stop") listener.close();
  };
  const std::uint16_t port = freeUdpPort();
  bool opened = false;
  queue.sync([&] { opened = bool(listener.open(port, buffer, std::move(callbacks), 0x7F000001)); });
  ASSERT_TRUE(opened);

  auto release = holdQueue(queue);
  UdpSocket phone;
  for (const char* d : {"one", "two", "stop", "after", "more"}) phone.sendTo(port, d);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  release.set_value();

  ASSERT_TRUE(waitFor([&] { return seen.count() >= 3; }));
  queue.sync([] {});
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  std::lock_guard lock(seen.mutex);
  EXPECT_EQ(seen.datagrams, (std::vector<std::string>{"one", "two", "stop"}));
  EXPECT_TRUE(seen.batches.empty());  // the batch ended with the close
  EXPECT_EQ(seen.drained, 0);
  EXPECT_FALSE(listener.isOpen());
}

// A burst far beyond the default receive buffer (about 160 small datagrams)
// waits whole in a larger one while the queue is busy.
TEST(UdpListenerNetTest, ALargerReceiveBufferKeepsALongBurst) {
  constexpr int kBuffer = 2 * 1024 * 1024;
  long rmemMax = 0;
  std::ifstream("/proc/sys/net/core/rmem_max") >> rmemMax;
  if (rmemMax < kBuffer) GTEST_SKIP() << "net.core.rmem_max is " << rmemMax << ", below " << kBuffer;
  SerialQueue queue("test.listener");
  UdpListener listener(queue.context(), {.datagramsPerRead = 32, .receiveBufferBytes = kBuffer});
  std::vector<std::uint8_t> buffer(32 * 64);
  Seen seen;
  const std::uint16_t port = freeUdpPort();
  bool opened = false;
  queue.sync([&] { opened = bool(listener.open(port, buffer, recordInto(seen), 0x7F000001)); });
  ASSERT_TRUE(opened);

  auto release = holdQueue(queue);
  UdpSocket phone;
  constexpr int kBurst = 1500;
  for (int i = 0; i < kBurst; ++i) phone.sendTo(port, std::to_string(i));
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  release.set_value();

  ASSERT_TRUE(waitFor([&] { return seen.count() == kBurst; })) << seen.count() << " of " << kBurst;
  queue.sync([&] { listener.close(); });
  std::lock_guard lock(seen.mutex);
  for (int i = 0; i < kBurst; ++i) ASSERT_EQ(seen.datagrams[i], std::to_string(i));
}

}  // namespace
}  // namespace velmora
