#include "base/MainQueue.h"

#include <cstdio>
#include <cstdlib>

namespace velmora {

MainQueue& MainQueue::shared() {
  static MainQueue queue;
  return queue;
}

MainQueue::MainQueue() : mainThread_(std::this_thread::get_id()) {}

void MainQueue::post(std::function<void()> work) {
  {
    std::lock_guard lock(mutex_);
    work_.push_back(std::move(work));
  }
  wake_.notify_one();
}

void MainQueue::bindToCurrentThread() {
  std::lock_guard lock(mutex_);
  mainThread_ = std::this_thread::get_id();
}

bool MainQueue::isMainThread() const {
  std::lock_guard lock(mutex_);
  return mainThread_ == std::this_thread::get_id();
}

void MainQueue::setTick(std::function<void()> tick, double hz) {
  std::lock_guard lock(mutex_);
  if (hz <= 0 || !tick) {
    tick_ = nullptr;
    return;
  }
  tick_ = std::move(tick);
  tickPeriod_ = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
      std::chrono::duration<double>(1.0 / hz));
  nextTick_ = std::chrono::steady_clock::now() + tickPeriod_;
}

// Runs one posted closure with the lock released. Exceptions never cross the
// loop: a throwing closure is reported and the loop goes on.
bool MainQueue::runOne(std::unique_lock<std::mutex>& lock) {
  if (work_.empty()) return false;
  auto work = std::move(work_.front());
  work_.pop_front();
  lock.unlock();
  try {
    if (work) work();
  } catch (const std::exception& e) {
    std::fprintf(stdout, "[MainQueue] posted work threw: %s\n", e.what());
    std::fflush(stdout);
  } catch (...) {
    std::fprintf(stdout, "[MainQueue] posted work threw an unknown exception\n");
    std::fflush(stdout);
  }
  lock.lock();
  return true;
}

void MainQueue::run() {
  std::unique_lock lock(mutex_);
  running_ = true;
  // A stop requested before run() (a signal during start-up) is kept, so
  // run() returns at once after the posted work.
  while (!stopRequested_) {
    const auto now = std::chrono::steady_clock::now();
    if (tick_ && now >= nextTick_) {
      // Catch up at most one period: a slow tick never causes a burst.
      nextTick_ += tickPeriod_;
      if (nextTick_ < now) nextTick_ = now + tickPeriod_;
      auto tick = tick_;
      lock.unlock();
      try {
        tick();
      } catch (const std::exception& e) {
        std::fprintf(stdout, "[MainQueue] tick threw: %s\n", e.what());
        std::fflush(stdout);
      }
      lock.lock();
      // What was posted before the next tick comes due runs first: a tick
      // slower than its period (a window's frame on software GL) must not
      // starve the posted work (packets, remote commands, shortcuts).
      for (std::size_t n = work_.size(); n > 0 && !stopRequested_; --n) runOne(lock);
      continue;
    }
    if (runOne(lock)) continue;
    if (tick_) {
      wake_.wait_until(lock, nextTick_, [&] { return stopRequested_ || !work_.empty(); });
    } else {
      wake_.wait(lock, [&] { return stopRequested_ || !work_.empty(); });
    }
  }
  while (runOne(lock)) {
  }
  stopRequested_ = false;
  running_ = false;
}

void MainQueue::stop() {
  {
    std::lock_guard lock(mutex_);
    stopRequested_ = true;
  }
  wake_.notify_all();
}

bool MainQueue::isRunning() const {
  std::lock_guard lock(mutex_);
  return running_;
}

std::size_t MainQueue::drain() {
  std::unique_lock lock(mutex_);
  std::size_t n = 0;
  while (runOne(lock)) ++n;
  return n;
}

bool MainQueue::runUntil(const std::function<bool()>& pred, double timeoutSeconds) {
  const auto deadline = std::chrono::steady_clock::now() +
                        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                            std::chrono::duration<double>(timeoutSeconds));
  while (true) {
    drain();
    if (pred()) return true;
    std::unique_lock lock(mutex_);
    if (std::chrono::steady_clock::now() >= deadline) break;
    wake_.wait_until(lock, std::min(deadline, std::chrono::steady_clock::now() +
                                                  std::chrono::milliseconds(10)),
                     [&] { return !work_.empty(); });
  }
  drain();
  return pred();
}

std::size_t MainQueue::pendingCount() const {
  std::lock_guard lock(mutex_);
  return work_.size();
}

#ifndef NDEBUG
void assertMainThreadFailed(const char* file, int line, const char* function) {
  std::fprintf(stderr, "%s:%d: %s must run on the main thread\n", file, line, function);
  std::abort();
}
#endif

}  // namespace velmora
