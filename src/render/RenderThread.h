#pragma once
// The thread that owns the headless GL context and the scene renderer.
//
// The main thread hands over frame descriptions with submit(): at most one
// of each frame size waits, a newer one of that size replaces it (the
// replaced one is counted as dropped), and submit() never waits for the GPU.
//
// One renderer, one GL context, for every frame of the process: the outputs'
// frames and the live views' (the projector's) are all drawn here, so each
// character's meshes and morph targets, and any texture a character brings,
// exist once on the GPU side. Windows only present finished frames. Finished frames go to the frame
// handler, on this thread. renderNow() is the synchronous path for
// snapshots and tests: it waits for its own frame and returns the pixels.
//
// The thread and the context start on first use. When no context can be
// made (no EGL display, no OpenGL 3.3, a shader that does not compile) one
// log line says why, nothing is rendered, and renderNow() returns the reason.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "scene/FrameDescription.h"
#include "scene/FrameRenderer.h"
#include "scene/RenderedFrame.h"

namespace velmora {

class SceneRenderer;

class RenderThread final : public FrameRenderer {
 public:
  RenderThread();
  ~RenderThread() override;  // stop()
  RenderThread(const RenderThread&) = delete;
  RenderThread& operator=(const RenderThread&) = delete;

  // Any thread. Called on the render thread with every frame rendered from
  // submit(); it must not block for long (copy or post the frame on).
  void setFrameHandler(FrameHandler handler) override;

  // Any thread; never waits for rendering.
  void submit(std::shared_ptr<const FrameDescription> frame) override;
  // Any thread but the render thread. Waits for this frame.
  Result renderNow(std::shared_ptr<const FrameDescription> frame) override;
  // Any thread but the render thread. Runs work with the renderer (context
  // current) and waits; false with the reason when there is no renderer.
  bool withRenderer(const std::function<void(SceneRenderer&)>& work, std::string* error = nullptr);

  // Ends the thread after the work in hand; later calls render nothing.
  void stop() override;

  // Counters since construction (any thread).
  std::uint64_t renderedCount() const;
  std::uint64_t droppedCount() const;
  // Empty while the renderer works (or has not started yet).
  std::string failureReason() const;

 private:
  void startLocked();
  void run();

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::thread thread_;
  bool started_ = false;
  bool stopping_ = false;
  // Waiting descriptions, at most one per frame size, oldest first.
  std::vector<std::shared_ptr<const FrameDescription>> pending_;
  std::deque<std::function<void(SceneRenderer*, const std::string&)>> tasks_;
  FrameHandler handler_;
  std::uint64_t rendered_ = 0;
  std::uint64_t dropped_ = 0;
  std::string failure_;
};

}  // namespace velmora
