#pragma once
// The main thread's run loop: closures posted from any thread plus a
// periodic tick (60 Hz by default). The main thread owns all application
// state; other threads reach it only by posting here.
//
// The "main thread" is the thread that first calls MainQueue::shared()
// (normally main()), or the one that calls bindToCurrentThread().

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace velmora {

class MainQueue {
 public:
  static MainQueue& shared();
  MainQueue();
  MainQueue(const MainQueue&) = delete;
  MainQueue& operator=(const MainQueue&) = delete;

  // Any thread. The closure runs later on the main thread, in posting order.
  void post(std::function<void()> work);

  // Makes the calling thread the main thread (tests, alternative entry points).
  void bindToCurrentThread();
  bool isMainThread() const;

  // Main thread. Installs the periodic tick; hz <= 0 removes it.
  void setTick(std::function<void()> tick, double hz = 60.0);

  // Main thread. Runs posted work and the tick until stop() is called, then
  // runs whatever was still posted and returns.
  void run();
  // Any thread: makes run() return after its current step; called before
  // run(), the next run() returns once the posted work has run.
  void stop();
  bool isRunning() const;

  // Main thread. Runs every closure posted so far; returns how many ran.
  std::size_t drain();
  // Main thread. Runs posted work (not the tick) until pred() holds or the
  // timeout passes; returns pred()'s last value. For tests and batch runs.
  bool runUntil(const std::function<bool()>& pred, double timeoutSeconds);

  std::size_t pendingCount() const;

 private:
  bool runOne(std::unique_lock<std::mutex>& lock);

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> work_;
  std::thread::id mainThread_;
  std::function<void()> tick_;
  std::chrono::steady_clock::duration tickPeriod_{};
  std::chrono::steady_clock::time_point nextTick_{};
  bool stopRequested_ = false;
  bool running_ = false;
};

// Debug builds check that main-thread-only code runs on the main thread.
#ifdef NDEBUG
#define VELMORA_ASSERT_MAIN_THREAD() ((void)0)
#else
void assertMainThreadFailed(const char* file, int line, const char* function);
#define VELMORA_ASSERT_MAIN_THREAD()                                             \
  (::velmora::MainQueue::shared().isMainThread()                                 \
       ? (void)0                                                                 \
       : ::velmora::assertMainThreadFailed(__FILE__, __LINE__, __func__))
#endif

}  // namespace velmora
