#pragma once
// Outputs: the same-machine video switch (PipeWire, behind the Syphon
// publisher) and the NDI switch with their status texts, and the projector
// switch with the monitor it covers. Main thread.

namespace velmora {

struct DashboardContext;

class OutputsPanel {
 public:
  explicit OutputsPanel(DashboardContext& context) : context_(context) {}
  void draw();

 private:
  DashboardContext& context_;
};

}  // namespace velmora
