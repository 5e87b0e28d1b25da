#pragma once
// Draws the wireframe tracker (points and lines of the tracked face) with
// the detail chooser. Main thread.

namespace velmora {

struct DashboardContext;
class WireframeTracker;

class WireframeTrackerView {
 public:
  WireframeTrackerView(DashboardContext& context, const WireframeTracker& tracker)
      : context_(context), tracker_(tracker) {}
  void draw();

 private:
  DashboardContext& context_;
  const WireframeTracker& tracker_;
};

}  // namespace velmora
