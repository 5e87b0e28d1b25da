#include "render/RenderThread.h"

#include <pthread.h>

#include <algorithm>
#include <future>

#include "base/Log.h"
#include "render/EglContext.h"
#include "render/SceneRenderer.h"

namespace velmora {

RenderThread::RenderThread() = default;

RenderThread::~RenderThread() { stop(); }

void RenderThread::setFrameHandler(FrameHandler handler) {
  std::lock_guard lock(mutex_);
  handler_ = std::move(handler);
}

void RenderThread::startLocked() {
  if (started_ || stopping_) return;
  started_ = true;
  thread_ = std::thread([this] { run(); });
}

void RenderThread::submit(std::shared_ptr<const FrameDescription> frame) {
  if (!frame) return;
  std::lock_guard lock(mutex_);
  if (stopping_ || !failure_.empty()) return;
  auto same = std::find_if(pending_.begin(), pending_.end(), [&](const auto& waiting) {
    return waiting->width == frame->width && waiting->height == frame->height;
  });
  if (same != pending_.end()) {
    ++dropped_;
    *same = std::move(frame);
  } else {
    pending_.push_back(std::move(frame));
  }
  startLocked();
  wake_.notify_one();
}

RenderThread::Result RenderThread::renderNow(std::shared_ptr<const FrameDescription> frame) {
  Result result;
  if (!frame) {
    result.error = "RenderThread::renderNow(): no frame description";
    return result;
  }
  const bool ran = withRenderer(
      [&](SceneRenderer& renderer) {
        result.frame = renderer.render(*frame);
        if (!result.frame) result.error = "RenderThread::renderNow(): the frame could not be rendered";
      },
      &result.error);
  if (!ran) result.frame.reset();
  return result;
}

bool RenderThread::withRenderer(const std::function<void(SceneRenderer&)>& work, std::string* error) {
  std::promise<std::string> done;
  auto future = done.get_future();
  {
    std::lock_guard lock(mutex_);
    if (stopping_) {
      if (error) *error = "RenderThread: stopped";
      return false;
    }
    tasks_.emplace_back([&work, &done](SceneRenderer* renderer, const std::string& failure) {
      if (!renderer) {
        done.set_value(failure);
        return;
      }
      try {
        work(*renderer);
        done.set_value({});
      } catch (const std::exception& e) {
        done.set_value(std::string("RenderThread: ") + e.what());
      }
    });
    startLocked();
    wake_.notify_one();
  }
  const std::string failure = future.get();
  if (!failure.empty() && error) *error = failure;
  return failure.empty();
}

void RenderThread::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    wake_.notify_one();
  }
  if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

std::uint64_t RenderThread::renderedCount() const {
  std::lock_guard lock(mutex_);
  return rendered_;
}

std::uint64_t RenderThread::droppedCount() const {
  std::lock_guard lock(mutex_);
  return dropped_;
}

std::string RenderThread::failureReason() const {
  std::lock_guard lock(mutex_);
  return failure_;
}

void RenderThread::run() {
  pthread_setname_np(pthread_self(), "velmora-render");
  std::unique_ptr<EglContext> context;
  std::unique_ptr<SceneRenderer> renderer;
  std::string failure;
  auto made = EglContext::create();
  if (made && made.value->makeCurrent()) {
    context = std::move(made.value);
    auto r = SceneRenderer::create();
    if (r) {
      renderer = std::move(r.value);
      logLine("Renderer", "Rendering offscreen with " + context->description());
    } else {
      failure = r.reason;
    }
  } else {
    failure = made ? "RenderThread: eglMakeCurrent failed" : made.reason;
  }
  if (!renderer) {
    logLine("Renderer", failure + "; nothing will be rendered");
    std::lock_guard lock(mutex_);
    failure_ = failure;
    pending_.clear();
  }

  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || !pending_.empty() || !tasks_.empty(); });
    if (!tasks_.empty()) {
      auto task = std::move(tasks_.front());
      tasks_.pop_front();
      lock.unlock();
      task(renderer.get(), failure);
      lock.lock();
      continue;
    }
    if (stopping_) break;
    if (pending_.empty()) continue;
    auto frame = std::move(pending_.front());
    pending_.erase(pending_.begin());
    if (!renderer || !frame) continue;
    lock.unlock();
    // Nothing thrown here may end the thread or reach the main thread.
    try {
      std::shared_ptr<const RenderedFrame> rendered = renderer->render(*frame);
      if (rendered) {
        FrameHandler handler;
        {
          std::lock_guard counted(mutex_);
          ++rendered_;
          handler = handler_;
        }
        if (handler) handler(rendered);
      }
    } catch (const std::exception& e) {
      logLine("Renderer", std::string("RenderThread: frame dropped: ") + e.what());
    }
    lock.lock();
  }
  // Sync callers still waiting get their answer rather than hanging.
  while (!tasks_.empty()) {
    auto task = std::move(tasks_.front());
    tasks_.pop_front();
    task(nullptr, "RenderThread: stopped");
  }
  lock.unlock();
  renderer.reset();  // GL objects go while the context is current
  context.reset();
}

}  // namespace velmora
