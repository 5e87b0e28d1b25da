#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <tuple>
#include <vector>

#include "base/MainQueue.h"
#include "base/MainThreadMailbox.h"
#include "base/SerialQueue.h"

namespace velmora {
namespace {

std::vector<int> upTo(int n) {  // 0, 1, ..., n - 1
  std::vector<int> v(static_cast<std::size_t>(n));
  std::iota(v.begin(), v.end(), 0);
  return v;
}

// A closure that throws stops neither queue: the work after it still runs.
TEST(MainQueue, WorkPostedFromManyThreadsRunsOnTheMainThreadInPerThreadOrder) {
  MainQueue queue;
  queue.bindToCurrentThread();
  const auto mainId = std::this_thread::get_id();
  std::vector<int> seen[4];
  std::atomic<int> offMain{0};
  queue.post([] { throw std::runtime_error("boom"); });
  std::vector<std::thread> producers;
  for (int t = 0; t < 4; ++t)
    producers.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i)
        queue.post([&, t, i] {
          if (std::this_thread::get_id() != mainId) ++offMain;
          seen[t].push_back(i);
        });
    });
  for (auto& p : producers) p.join();
  EXPECT_EQ(queue.drain(), 2001u);
  EXPECT_EQ(offMain.load(), 0);
  for (const auto& s : seen) EXPECT_EQ(s, upTo(500));
}

// A tick slower than its period (a window's frame on software GL) must not
// starve posted work: what was posted runs before the next tick. Work posted
// together with stop still runs before run() returns. Without a tick,
// stop() from another thread wakes the idle loop.
TEST(MainQueue, RunTicksRunsPostedWorkBetweenSlowTicksAndReturnsAfterStop) {
  MainQueue queue;
  queue.bindToCurrentThread();
  int ticks = 0;
  int ticksWhenWorkRan = -1;
  bool lateWorkRan = false;
  queue.setTick([&] {
    ++ticks;
    if (ticks == 1) queue.post([&] { ticksWhenWorkRan = ticks; });
    std::this_thread::sleep_for(std::chrono::milliseconds(15));  // three periods
    if (ticks == 4) {
      queue.stop();
      queue.post([&] { lateWorkRan = true; });
    }
  }, 200.0);
  queue.run();
  EXPECT_EQ(std::tuple(ticks, ticksWhenWorkRan, lateWorkRan, queue.isRunning()), std::tuple(4, 1, true, false));

  queue.setTick(nullptr, 0);
  std::thread stopper([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    queue.stop();
  });
  queue.run();  // no tick: waits on the queue until stopped
  stopper.join();
}

TEST(MainThreadMailbox, KeepsEverythingAtNormalRatesAndDropsTheOldestUnderAFlood) {
  MainQueue queue;
  queue.bindToCurrentThread();
  MainThreadMailbox mailbox(8, queue);
  std::vector<int> ran;
  for (int i = 0; i < 5; ++i) mailbox.post([&, i] { ran.push_back(i); });
  queue.drain();
  EXPECT_EQ(ran, (std::vector<int>{0, 1, 2, 3, 4}));

  ran.clear();
  for (int i = 0; i < 10000; ++i) mailbox.post([&, i] { ran.push_back(i); });
  EXPECT_LE(mailbox.pendingCount(), 8u);
  EXPECT_LE(queue.pendingCount(), 1u) << "one drain is posted however many items wait";
  queue.drain();
  EXPECT_EQ(ran, (std::vector<int>{9992, 9993, 9994, 9995, 9996, 9997, 9998, 9999}));
  EXPECT_EQ(mailbox.droppedCount(), 9992u);  // none of the five at normal rate
}

TEST(SerialQueue, RunsWorkInOrderOnItsThreadAndStopRunsPendingWorkThenRefusesMore) {
  SerialQueue queue("com.velmora.test");
  std::vector<int> order;
  std::thread::id worker;
  queue.post([] { throw std::runtime_error("decoder bug"); });  // the rest still runs
  for (int i = 0; i < 100; ++i) queue.post([&, i] {
      order.push_back(i);
      worker = std::this_thread::get_id();
    });
  bool onWorker = false;
  EXPECT_TRUE(queue.sync([&] { onWorker = queue.isCurrent(); }));
  EXPECT_TRUE(onWorker);
  EXPECT_FALSE(queue.isCurrent());
  EXPECT_EQ(order, upTo(100));
  EXPECT_NE(worker, std::this_thread::get_id());
  for (int i = 100; i < 150; ++i) queue.post([&, i] { order.push_back(i); });
  queue.stop();
  EXPECT_TRUE(queue.isStopped());
  queue.post([&] { order.push_back(-1); });
  EXPECT_FALSE(queue.sync([&] { order.push_back(-1); }));
  EXPECT_EQ(order, upTo(150));  // the pending 50 ran, nothing after stop
  queue.stop();  // idempotent
}

}  // namespace
}  // namespace velmora
