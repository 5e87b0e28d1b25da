#pragma once
// A named serial work queue: one worker thread running an asio::io_context.
// Sockets owned by a subsystem live on its queue's context; work posted here
// runs one item at a time, in order. Work crosses to the main thread only by
// posting to MainQueue.

#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace asio {
class io_context;
}

namespace velmora {

class SerialQueue {
 public:
  // Starts the worker thread at once. The label names the thread
  // ("com.velmora.tracking", "com.velmora.qlab", "com.velmora.ndi").
  explicit SerialQueue(std::string label);
  ~SerialQueue();  // stop()
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const { return label_; }
  // For sockets and timers that run on this queue. Their handlers run on the
  // worker thread.
  asio::io_context& context();

  // Any thread. Runs `work` on the worker, after everything posted before it.
  void post(std::function<void()> work);
  // Any thread. Runs `work` on the worker and waits for it; called on the
  // worker itself it runs inline. Returns false when the queue is stopped.
  bool sync(const std::function<void()>& work);
  // True on the worker thread.
  bool isCurrent() const;

  // Any thread but the worker. Runs the work already posted, then ends the
  // worker and joins it. Further posts are dropped. Idempotent.
  void stop();
  bool isStopped() const;

 private:
  struct Impl;
  std::string label_;
  std::unique_ptr<Impl> impl_;
};

}  // namespace velmora
