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

  // 2 pi as a single-precision float: tau = 1 / (cutoff * twoPi).
  static constexpr float twoPi = 6.283185f;

  // Filters one sample. A non-finite sample returns the previous output
  // (0 when empty) and changes nothing. The first finite sample after
  // construction or reset() primes the filter and is returned unchanged.
  float filter(float value, double timestamp);

  // The part of a step that depends only on the two timestamps and dCutoff.
  // Filters that saw the same sample times (the blendshape filters of one
  // stream) can share it; the results are bit for bit those of filter().
  struct TimeStep {
    double previousTime = 0.0;
    double timestamp = 0.0;
    float dCutoff = 0.0f;
    float rate = 0.0f;    // 1 / dt
    float te = 0.0f;      // 1 / max(rate, 0.0001)
    float alphaD = 0.0f;  // derivative smoothing factor
  };
  static TimeStep timeStep(double previousTime, double timestamp, float dCutoff);
  // As filter(value, timestamp), using `shared` when it was made for this
  // filter's previous time, this timestamp and its dCutoff.
  float filter(float value, double timestamp, const TimeStep& shared);

  std::optional<double> previousTime() const { return previousTime_; }

  // Back to empty; the parameters are kept.
  void reset();

  bool isPrimed() const { return previousOutput_.has_value() && previousTime_.has_value(); }

  float minCutoff;  // Hz
  float beta;       // cut-off increase per unit of speed
  float dCutoff;    // Hz, cut-off of the derivative estimate

 private:
  friend class OneEuroFilterBank;  // keeps the same state side by side
  float step(float value, float rate, float te, float alphaD);

  std::optional<float> previousOutput_;
  float previousDerivative_ = 0.0f;
  std::optional<double> previousTime_;
};

}  // namespace velmora
