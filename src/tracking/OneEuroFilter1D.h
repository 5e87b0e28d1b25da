#pragma once
// One Euro filter for one scalar signal: an adaptive low-pass filter whose
// cut-off frequency rises with the signal's speed, so slow movement is
// smoothed strongly and fast movement follows with little lag.
//
// Timestamps are seconds on the monotonic clock (base/Clock.h uptime()).
// The arithmetic order and precision (dt in double, the rest in float) are
// fixed so every build gives the same bits. Main thread (owned by
// FaceTrackingState); not thread-safe.

#include <optional>

namespace velmora {

class OneEuroFilter1D {
 public:
  OneEuroFilter1D(float minCutoff, float beta, float dCutoff);

  // Filters one sample. A non-finite sample returns the previous output
  // (0 when empty) and changes nothing. The first finite sample after
  // construction or reset() primes the filter and is returned unchanged.
  float filter(float value, double timestamp);

  // Back to empty; the parameters are kept.
  void reset();

  bool isPrimed() const { return previousOutput_.has_value() && previousTime_.has_value(); }

  float minCutoff;  // Hz
  float beta;       // cut-off increase per unit of speed
  float dCutoff;    // Hz, cut-off of the derivative estimate

 private:
  std::optional<float> previousOutput_;
  float previousDerivative_ = 0.0f;
  std::optional<double> previousTime_;
};

}  // namespace velmora
