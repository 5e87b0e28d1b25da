#include "base/MainThreadMailbox.h"

#include <deque>
#include <mutex>

#include "base/MainQueue.h"

namespace velmora {

struct MainThreadMailbox::State {
  MainQueue* queue = nullptr;
  std::size_t capacity = 1;
  mutable std::mutex mutex;
  std::deque<std::function<void()>> pending;
  bool drainPosted = false;
  std::uint64_t dropped = 0;

  // Main thread: runs everything that is waiting now. Items arriving while it
  // runs are picked up by the next posted drain.
  void drain() {
    std::deque<std::function<void()>> batch;
    {
      std::lock_guard lock(mutex);
      batch.swap(pending);
      drainPosted = false;
    }
    for (auto& work : batch) work();
  }
};

MainThreadMailbox::MainThreadMailbox(std::size_t capacity)
    : MainThreadMailbox(capacity, MainQueue::shared()) {}

MainThreadMailbox::MainThreadMailbox(std::size_t capacity, MainQueue& queue)
    : state_(std::make_shared<State>()) {
  state_->queue = &queue;
  state_->capacity = capacity == 0 ? 1 : capacity;
}

void MainThreadMailbox::post(std::function<void()> work) {
  bool needPost = false;
  {
    std::lock_guard lock(state_->mutex);
    if (state_->pending.size() >= state_->capacity) {
      state_->pending.pop_front();
      ++state_->dropped;
    }
    state_->pending.push_back(std::move(work));
    if (!state_->drainPosted) {
      state_->drainPosted = true;
      needPost = true;
    }
  }
  if (needPost) {
    std::weak_ptr<State> weak = state_;
    state_->queue->post([weak] {
      if (auto s = weak.lock()) s->drain();
    });
  }
}

std::uint64_t MainThreadMailbox::droppedCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->dropped;
}

std::size_t MainThreadMailbox::pendingCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->pending.size();
}

std::size_t MainThreadMailbox::capacity() const { return state_->capacity; }

}  // namespace velmora
