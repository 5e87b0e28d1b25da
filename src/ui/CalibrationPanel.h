#pragma once
// Calibration and tuning: recentre, reset calibration and the calibrated
// state; smoothing, the four sensitivities, rotation lock and scale, the
// three reverse switches, opacity, the character and the tracker detail.
// Every control writes through the state's setter. Main thread.

namespace velmora {

struct DashboardContext;

class CalibrationPanel {
 public:
  explicit CalibrationPanel(DashboardContext& context) : context_(context) {}
  void draw();

 private:
  DashboardContext& context_;
  char characterPath_[1024] = "";  // the "Open..." field
};

}  // namespace velmora
