#pragma once
// The projector's live view: the scene's one render thread (the same
// renderer, GL context and GPU copy of every character as the outputs')
// renders frames at the window's size and hands them in through consume();
// the main thread shows each finished frame in the projector window over
// black (an upload and one textured triangle), through the window's GLFW
// context. At the outputs' size the projector shows their very frame.
//
// Why not render the scene through the window's context: with software GL
// the window system's contexts must all be driven from one thread (GLX
// contexts used from a second thread stalled the dashboard's buffer swap
// behind the projector's half-second frames, and could hang it). So the
// heavy frame is drawn on the render thread's headless context, and the main
// thread only presents finished frames: it never waits for rendering.
//
// Threads: main thread, except that frames arrive from the render thread.

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "scene/RenderedFrame.h"

struct GLFWwindow;

namespace velmora {

class ProjectorView {
 public:
  // Main thread. Makes the GL objects in the window's context and clears
  // the window to black at once; the calling thread's current context is
  // current again afterwards.
  explicit ProjectorView(GLFWwindow* window);
  // Main thread, before the window is destroyed: frees the GL objects.
  ~ProjectorView();
  ProjectorView(const ProjectorView&) = delete;
  ProjectorView& operator=(const ProjectorView&) = delete;

  // What takes this view's finished frames (any thread, never blocks: it
  // keeps the newest). It stays safe to call after the view is gone (the
  // frame then goes nowhere), so a render in progress may still deliver.
  std::function<void(const std::shared_ptr<const RenderedFrame>&)> consumer() const;
  // Main thread: shows the newest finished frame if there is one not shown
  // yet. True when it showed one.
  bool present();

  std::uint64_t presentedCount() const { return presented_; }

 private:
  struct Slot {
    std::mutex mutex;
    std::shared_ptr<const RenderedFrame> frame;
  };
  struct Gl;

  GLFWwindow* window_;
  std::shared_ptr<Slot> slot_;
  std::unique_ptr<Gl> gl_;
  std::uint64_t presented_ = 0;
};

}  // namespace velmora
