#pragma once
// "--output-selftest FOLDER": checks on this machine that both outputs reach
// other software. The same-machine output is looked for the way any other
// program finds it (the PipeWire registry's video sources, the "server
// directory"), recognised by its node name and this process's id, and read
// by a PipeWire consumer stream whose first frame is written as
// syphon_received.png; the NDI source must show up in the loaded runtime's
// discovery. Prints "[selftest] ..." lines ending in one
// "[selftest] RESULT ..." line per output; no outcome changes the exit status.
//
// Threads: main thread; the main queue runs while the test waits, so the
// outputs' own threads and posted work go on.

#include <atomic>
#include <functional>
#include <memory>
#include <string>

namespace velmora {

class FaceTrackingState;
class MaskSceneManager;
class NDIPublisher;
struct RenderedFrame;
class SyphonPublisher;

class OutputSelfTest {
 public:
  struct Context {
    FaceTrackingState& state;
    MaskSceneManager& scene;  // with its renderer and both outputs set
    SyphonPublisher& syphon;
    NDIPublisher& ndi;
    // Lets the main event loop run for the given seconds.
    std::function<void(double seconds)> runLoop;
  };

  explicit OutputSelfTest(Context context) : c_(std::move(context)) {}

  void run(const std::string& outputDirectory);
  void testSyphonClient(const std::string& outputDirectory);
  void testNDIDiscovery();
  // Writes BGRA pixels as an RGBA PNG; false with the reason on failure.
  static bool writePNG(const RenderedFrame& frame, const std::string& path, std::string* error = nullptr);

 private:
  // One frame through the scene's normal path (update, output sync, render);
  // optionally waits (at most 5 s) until the render thread has finished it.
  void renderOneFrame(bool waitUntilRendered = false);

  Context c_;
  // Frames the renderer finished while the test runs (render thread writes).
  std::shared_ptr<std::atomic<int>> delivered_ = std::make_shared<std::atomic<int>>(0);
  // Set once a wait for a frame saw none finished: the renderer is not working.
  bool rendererSilent_ = false;
};

}  // namespace velmora
