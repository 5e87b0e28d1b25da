#pragma once
// The projector's live view: its own render thread (render/RenderThread, a
// headless EGL context) renders the scene's frame descriptions at the
// window's size; the main thread shows each finished frame in the projector
// window over black (an upload and one textured triangle), through the
// window's GLFW context.
//
// Why not render the scene through the window's context: with software GL
// the window system's contexts must all be driven from one thread (GLX
// contexts used from a second thread stalled the dashboard's buffer swap
// behind the projector's half-second frames, and could hang it). So the
// heavy 1080p frame is drawn on the EGL device off the main thread, and the
// main thread only presents finished frames: it never waits for rendering.
//
// Threads: main thread, except that frames arrive from the render thread.

#include <cstdint>
#include <future>
#include <memory>
#include <mutex>

#include "scene/FrameDescription.h"
#include "scene/RenderedFrame.h"

struct GLFWwindow;

namespace velmora {

class RenderThread;

class ProjectorView {
 public:
  // Main thread. Makes the GL objects in the window's context and clears
  // the window to black at once; the calling thread's current context is
  // current again afterwards.
  explicit ProjectorView(GLFWwindow* window);
  // Main thread, before the window is destroyed: frees the GL objects.
  // The render thread must have been handed to retire() first.
  ~ProjectorView();
  ProjectorView(const ProjectorView&) = delete;
  ProjectorView& operator=(const ProjectorView&) = delete;

  // Never waits for rendering (a newer description replaces a waiting one).
  void submit(std::shared_ptr<const FrameDescription> frame);
  // Main thread: shows the newest finished frame if there is one not shown
  // yet. True when it showed one.
  bool present();
  // Main thread: lets the render thread finish its frame in hand on a thread
  // of its own; the future is ready once it has (wait for it before exit).
  // Later frames are dropped.
  std::future<void> retire();

  std::uint64_t presentedCount() const { return presented_; }

 private:
  struct Slot {
    std::mutex mutex;
    std::shared_ptr<const RenderedFrame> frame;
  };
  struct Gl;

  GLFWwindow* window_;
  std::unique_ptr<RenderThread> renderer_;
  std::shared_ptr<Slot> slot_;
  std::unique_ptr<Gl> gl_;
  std::uint64_t presented_ = 0;
};

}  // namespace velmora
