#pragma once
// Lighting: the six presets, every level and position of the lighting record
// with the range remote control accepts, the warmth, the shadow, and the
// master level. Choosing a preset stores it; moving any control marks the
// record "Custom"; both persist through the state's lighting setter. Main
// thread.

#include <vector>

#include "stage/LightingSettings.h"

namespace velmora {

struct DashboardContext;

class LightingPanel {
 public:
  struct Control {
    const char* label;
    double LightingSettings::*field;
    double lo, hi;
  };
  // key, fill, rim, ambient (0..3), key height and side (-3..3, metres),
  // warmth (-1..1), shadow (0..1), in the record's order.
  static const std::vector<Control>& controls();
  static constexpr float masterMaximum = 5.0f;

  explicit LightingPanel(DashboardContext& context) : context_(context) {}
  void draw();

  void choosePreset(std::size_t index);
  // One field of the record set to `value` (clamped to its control's range);
  // the record becomes "Custom" and is stored.
  void setField(double LightingSettings::*field, double value);
  void setMaster(float value);

 private:
  DashboardContext& context_;
};

}  // namespace velmora
