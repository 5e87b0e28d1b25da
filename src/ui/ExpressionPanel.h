#pragma once
// Expression: every blendshape received so far with its raw and processed
// value as bars, its calibration range (floor and ceiling, edited through
// setRange), "Set floors from current pose", "Reset all ranges", and the
// head rotation as received and as processed. Main thread.

#include <string>
#include <vector>

namespace velmora {

struct DashboardContext;
class FaceTrackingState;

class ExpressionPanel {
 public:
  explicit ExpressionPanel(DashboardContext& context) : context_(context) {}
  void draw();

  // The names to list: every received one, in name order.
  static std::vector<std::string> rowNames(const FaceTrackingState& state);
  // One edit of a row's range: only the bound the operator moved is passed
  // on, so the other keeps its stored value.
  static void applyRangeEdit(FaceTrackingState& state, const std::string& name, float oldFloor, float oldCeiling,
                             float newFloor, float newCeiling);

 private:
  void drawHead();
  DashboardContext& context_;
};

}  // namespace velmora
