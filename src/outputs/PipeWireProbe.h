#pragma once
// The outside view of this machine's PipeWire session that the output
// self-test needs: the registry's video sources (what other programs can
// pick from), and a consumer stream linked to one of them that keeps the
// first frame it receives. It is an ordinary PipeWire client on its own loop
// thread, exactly as any other program would see Velmora's source.
//
// Threads: the controlling thread calls everything; the registry and stream
// callbacks run on the probe's loop thread and share results under a lock.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/CreateResult.h"

namespace velmora {

class PipeWireApi;

class PipeWireProbe {
 public:
  // One node of media.class "Video/Source" as the registry announces it.
  struct SourceNode {
    std::uint32_t id = 0;
    std::string name;         // node.name
    std::string application;  // application.name of the client that made it
    int processId = 0;        // pipewire.sec.pid of that client (0: unknown)
    std::string serial;       // object.serial, for target.object
  };
  // A received frame, BGRA rows top first, tightly packed.
  struct Frame {
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> bgra;
  };

  // Connects to the session's daemon and starts listening to its registry.
  // Fails (PipeWire's reason) without a daemon or without the client entry
  // points in the loaded library.
  static CreateResult<PipeWireProbe> create(std::shared_ptr<const PipeWireApi> api);
  ~PipeWireProbe();
  PipeWireProbe(const PipeWireProbe&) = delete;
  PipeWireProbe& operator=(const PipeWireProbe&) = delete;

  // The video sources announced so far, in registry order.
  std::vector<SourceNode> videoSources() const;
  // Connects a consumer stream (BGRA at the given size) that the session
  // manager links to the node; false with PipeWire's reason when the stream
  // cannot be made.
  bool connectClient(const SourceNode& node, int width, int height, std::string* error = nullptr);
  // The first frame the consumer received, once there is one.
  std::optional<Frame> receivedFrame() const;

  struct Impl;

 private:
  explicit PipeWireProbe(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace velmora
