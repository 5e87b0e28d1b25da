#pragma once
// One PipeWire video source node fed with Velmora's output frames: a driver
// stream (media.class "Video/Source", media.role "Camera") offering exactly
// one format, BGRA at the frame size and 60/1, so the format never changes
// once a consumer has negotiated it.
//
// Frames travel without blocking the render thread: offer() parks the newest
// frame in a one-slot mailbox (a newer frame replaces one not yet taken) and
// wakes PipeWire's loop thread through an event source. On that thread the
// stream's process callback dequeues a free buffer, copies the frame into it
// (one copy per frame) and queues it. No free buffer: the frame is dropped.
// With nobody linked there are no buffers at all, which is why the caller
// should not render for this source then (see isStreaming()).
//
// Threads: create() on the controlling thread (the main thread); offer()
// and the observers from any thread. The destructor runs wherever the last
// owner lets go, which may be the render thread right after an offer(); it
// stops the loop under the thread-loop lock, so any thread is safe. PipeWire's callbacks
// run on the source's own loop thread ("velmora-pipewire").

#include <cstdint>
#include <memory>
#include <string>

#include "base/CreateResult.h"
#include "scene/RenderedFrame.h"

namespace velmora {

class PipeWireApi;

class PipeWireVideoSource {
 public:
  struct Settings {
    std::string nodeName = "Velmora";  // also node.description and the stream name
    int width = 1920;                  // pixels; frames of another size are dropped
    int height = 1080;
    int framesPerSecond = 60;
  };

  // What happened to the frames offered so far.
  struct Counters {
    std::uint64_t offered = 0;     // handed to offer()
    std::uint64_t copied = 0;      // copied into a PipeWire buffer and queued
    std::uint64_t noBuffer = 0;    // dropped: no free buffer (consumer slow or gone)
    std::uint64_t replaced = 0;    // dropped: a newer frame arrived before the loop took it
    double copySeconds = 0.0;      // loop-thread time spent copying, in total
  };

  // Connects a new stream to the PipeWire daemon of this session. Fails at
  // once (with PipeWire's reason) when no daemon answers or the stream
  // cannot be made. Without a daemon it costs a socket connect (microseconds)
  // rather than a whole PipeWire context (tens of milliseconds).
  static CreateResult<PipeWireVideoSource> create(std::shared_ptr<const PipeWireApi> api, Settings settings);
  ~PipeWireVideoSource();  // disconnects and ends the loop thread
  PipeWireVideoSource(const PipeWireVideoSource&) = delete;
  PipeWireVideoSource& operator=(const PipeWireVideoSource&) = delete;

  // Any thread, never blocks on PipeWire: the frame is copied later on the
  // loop thread. The frame stays alive until then.
  void offer(std::shared_ptr<const RenderedFrame> frame);

  // A consumer is linked and buffers flow (stream state STREAMING).
  bool isStreaming() const;
  // The connection to the daemon broke (daemon gone, stream error): the
  // source will deliver nothing more and should be replaced.
  bool hasFailed() const;
  // PipeWire's words for the failure, empty while none.
  std::string failure() const;
  // The node's id in the PipeWire registry (PW_ID_ANY until known).
  std::uint32_t nodeId() const;
  // PipeWire's name of the current stream state ("paused", "streaming", ...).
  std::string stateName() const;
  Counters counters() const;

  // Whether something accepts connections on the daemon's socket
  // ($PIPEWIRE_REMOTE, default "pipewire-0", in $PIPEWIRE_RUNTIME_DIR or
  // $XDG_RUNTIME_DIR). True when the socket's place is unknown: PipeWire
  // itself then decides.
  static bool daemonSocketAnswers();

  struct Impl;

 private:
  explicit PipeWireVideoSource(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace velmora
