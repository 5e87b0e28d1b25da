#include "base/SerialQueue.h"

#include <pthread.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <atomic>
#include <future>
#include <mutex>

#include "base/Log.h"

namespace velmora {

struct SerialQueue::Impl {
  asio::io_context context{1};
  asio::executor_work_guard<asio::io_context::executor_type> guard{context.get_executor()};
  std::thread worker;
  std::thread::id workerId;
  std::mutex stopMutex;
  std::atomic<bool> stopped{false};
};

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)), impl_(std::make_unique<Impl>()) {
  std::promise<void> started;
  auto ready = started.get_future();
  impl_->worker = std::thread([this, &started] {
    // Linux limits thread names to 15 characters; keep the distinctive tail.
    std::string name = label_.size() > 15 ? label_.substr(label_.size() - 15) : label_;
    pthread_setname_np(pthread_self(), name.c_str());
    impl_->workerId = std::this_thread::get_id();
    started.set_value();
    while (true) {
      try {
        impl_->context.run();
        break;
      } catch (const std::exception& e) {
        // No exception crosses the queue: report and keep serving.
        logLine(label_, std::string("work threw: ") + e.what());
      } catch (...) {
        logLine(label_, "work threw an unknown exception");
      }
    }
  });
  ready.wait();
}

SerialQueue::~SerialQueue() { stop(); }

asio::io_context& SerialQueue::context() { return impl_->context; }

void SerialQueue::post(std::function<void()> work) {
  if (impl_->stopped.load()) return;
  asio::post(impl_->context, std::move(work));
}

bool SerialQueue::sync(const std::function<void()>& work) {
  if (isCurrent()) {
    work();
    return true;
  }
  if (impl_->stopped.load()) return false;
  auto done = std::make_shared<std::promise<void>>();
  auto future = done->get_future();
  asio::post(impl_->context, [&work, done] {
    try {
      work();
    } catch (...) {
    }
    done->set_value();
  });
  // The worker may be stopping; wait only while it can still run the item.
  while (future.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
    if (impl_->context.stopped()) return false;
  }
  return true;
}

bool SerialQueue::isCurrent() const { return std::this_thread::get_id() == impl_->workerId; }

void SerialQueue::stop() {
  std::lock_guard lock(impl_->stopMutex);
  if (impl_->stopped.exchange(true)) return;
  impl_->guard.reset();
  // Work already posted runs first; sockets still waiting for data do not
  // keep the worker alive (their owners close them on their own schedule).
  asio::post(impl_->context, [impl = impl_.get()] { impl->context.stop(); });
  if (impl_->worker.joinable()) {
    if (isCurrent()) {
      impl_->context.stop();
      impl_->worker.detach();
    } else {
      impl_->worker.join();
    }
  }
}

bool SerialQueue::isStopped() const { return impl_->stopped.load(); }

}  // namespace velmora
