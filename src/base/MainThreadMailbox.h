#pragma once
// A bounded path from a worker queue to the main thread. Producers post
// closures; at most `capacity` wait at once. When the mailbox is full the
// oldest waiting closure is dropped and counted, so a flood of datagrams can
// never grow memory or delay the main thread without bound. At normal rates
// nothing is dropped and every closure runs, in order.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace velmora {

class MainQueue;

class MainThreadMailbox {
 public:
  explicit MainThreadMailbox(std::size_t capacity);
  MainThreadMailbox(std::size_t capacity, MainQueue& queue);

  // Any thread.
  void post(std::function<void()> work);
  // Closures dropped because the mailbox was full, since construction.
  std::uint64_t droppedCount() const;
  // Closures waiting now.
  std::size_t pendingCount() const;
  std::size_t capacity() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace velmora
